#include "text.h"

#include <cstdlib>

#include "system_error.h"

namespace tessactl {
namespace {

std::string WithoutLineEnds(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' '))
        text.pop_back();
    for (char& c : text)
        if (c == '\n' || c == '\r') c = ' ';
    return text;
}

}  // namespace

std::string ErrorInWords(DWORD error, const std::wstring& subject) {
    return Utf8(operating_system::DescribeSystemError(error, subject));
}

std::string InWords(const std::string& text) {
    // What GetSystemErrorText says of an error whose text asks for insertions.
    constexpr char kHead[] = "FormatMessage(";
    constexpr char kTail[] = ") FAILED! LE(87)";
    std::string told = WithoutLineEnds(Utf8FromAnsi(text));
    const std::size_t at = told.find(kHead);
    const std::size_t end = at != std::string::npos ? told.find(kTail, at) : std::string::npos;
    if (end == std::string::npos) return told;
    const std::size_t number = at + sizeof kHead - 1;
    const auto code = static_cast<DWORD>(std::strtoul(told.c_str() + number, nullptr, 10));
    return told.replace(at, end + sizeof kTail - 1 - at, ErrorInWords(code));
}

}  // namespace tessactl
