#include "system_error.h"

#include <cstdio>
#include <cwchar>
#include <iterator>

#include "function_trace.h"
#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\system_error", "7d1f3c58-0b9e-4a62-8c47-e5a9d2f60b13",
             trace::kSharedTools);

namespace operating_system {
namespace {

/// The system's sentence as it is kept: with its inserts unfilled. Empty if it has none.
std::wstring SystemMessage(DWORD code) {
    FUNCTION_TRACE();
    wchar_t text[1024] = {};
    // Without IGNORE_INSERTS a message with inserts fails with error 87: there is nothing to fill them with.
    const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                          code, 0, text, static_cast<DWORD>(std::size(text)), nullptr);
    if (length == 0) TRACE_WARNING(10, "No text for the error %u, LE(%u)", code, ::GetLastError());
    std::wstring message(text, length);
    // Line ends inside a message break its lines at a width that nobody has asked for.
    for (wchar_t& c : message)
        if (c == L'\r' || c == L'\n') c = L' ';
    const std::size_t end = message.find_last_not_of(L" .");
    message.resize(end == std::wstring::npos ? 0 : end + 1);
    return message;
}

}  // namespace

std::wstring DescribeSystemError(DWORD code, const std::wstring& subject) {
    FUNCTION_TRACE();
    std::wstring message = SystemMessage(code);
    if (const std::size_t insert = message.find(L"%1"); insert != std::wstring::npos)
        message.replace(insert, 2, subject);
    wchar_t number[32] = {};
    std::swprintf(number, std::size(number), (code & 0x80000000) != 0 ? L"error 0x%08lX" : L"error %lu",
                  code);
    return message.empty() ? number : message + L" (" + number + L")";
}

}  // namespace operating_system
