#include "toolbox.h"

#include <windows.h>
#include <objbase.h>

#include <stdexcept>

#include "exception_history.h"
#include "function_trace.h"
#include "last_error_keeper.h"
#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\toolbox", "b7f4b0c8-5a84-4dd3-8f3a-9b1f7a5f2e04", trace::kSharedTools);

namespace toolbox {

std::string WstringToString(const std::wstring& wide, UINT codePage) {
    FUNCTION_TRACE();
    if (wide.empty()) return {};
    const LastErrorKeeper keepLastError;
    const int wideLength = static_cast<int>(wide.length());
    const int length =
        ::WideCharToMultiByte(codePage, 0, wide.c_str(), wideLength, nullptr, 0, nullptr, nullptr);
    if (length == 0) {
        MODUL_THROW(std::runtime_error("FAILED: WideCharToMultiByte() len calculation! LE(" +
                                       std::to_string(::GetLastError()) + ")!"));
    }
    std::string narrow(static_cast<std::size_t>(length) + 1, '\0');
    const int converted =
        ::WideCharToMultiByte(codePage, 0, wide.c_str(), wideLength, narrow.data(), length, nullptr, nullptr);
    if (converted == 0) {
        MODUL_THROW(std::runtime_error("FAILED: WideCharToMultiByte() StringConversion! LE(" +
                                       std::to_string(::GetLastError()) + ")!"));
    }
    narrow.resize(static_cast<std::size_t>(converted));
    return narrow;
}

std::wstring StringToWstring(const std::string& narrow, UINT codePage) {
    FUNCTION_TRACE();
    if (narrow.empty()) return {};
    const LastErrorKeeper keepLastError;
    const int narrowLength = static_cast<int>(narrow.length());
    const int length =
        ::MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, narrow.c_str(), narrowLength, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    if (length == 0 || ::MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, narrow.c_str(), narrowLength,
                                             wide.data(), length) != length) {
        MODUL_THROW(std::runtime_error("Invalid ANSI-String: " + narrow));
    }
    return wide;
}

std::wstring Widened(const std::string& narrow, UINT codePage) {
    FUNCTION_TRACE();
    std::wstring wide(narrow.length(), L'\0');
    const int length = static_cast<int>(narrow.length());
    wide.resize(static_cast<std::size_t>(
        ::MultiByteToWideChar(codePage, 0, narrow.data(), length, wide.data(), length)));
    return wide;
}

std::string GuidToString(const GUID* guid) {
    FUNCTION_TRACE();
    if (guid == nullptr) return "<NULL>";
    constexpr int kLengthWithTerminator = 39;
    wchar_t text[40] = {};
    if (::StringFromGUID2(*guid, text, 40) != kLengthWithTerminator) return "<INVALID GUID>";
    std::string narrow;
    for (const wchar_t* c = text; *c != L'\0'; ++c)
        narrow += static_cast<char>(*c);
    return narrow;
}

}  // namespace toolbox
