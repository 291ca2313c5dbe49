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

bool IsUtf8(const std::string& text) {
    return text.empty() || ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(),
                                                 static_cast<int>(text.length()), nullptr, 0) != 0;
}

/// The machine's ANSI code page, whatever that of this process is.
UINT MachineCodePage() {
    DWORD codePage = CP_ACP;
    ::GetLocaleInfoW(LOCALE_SYSTEM_DEFAULT, LOCALE_IDEFAULTANSICODEPAGE | LOCALE_RETURN_NUMBER,
                     reinterpret_cast<wchar_t*>(&codePage), sizeof codePage / sizeof(wchar_t));
    return codePage;
}

}  // namespace

std::string Utf8FromAnsi(std::string text) {
    // A text of the machine's code page that is also UTF-8, and not plain ASCII, does not come about by
    // chance.
    if (IsUtf8(text)) return text;
    return Utf8(Widened(text, MachineCodePage()));
}

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
