#include "windows_api_excp.h"

#include <memory>

#include "function_trace.h"
#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\windows_api_excp", "2f0a8d43-7d0e-4a0b-bd4b-0a1f6a4b6f03",
             trace::kSharedTools);

namespace modul_exception {
namespace {

std::string ComposeFromLastError(const char* apiName, DWORD lastError, const char* hint) {
    FUNCTION_TRACE();
    return std::string("FAILED! ") + apiName + "! LE(" + std::to_string(lastError) +
           "): " + GetSystemErrorText(lastError) + " Hint: " + hint + "\n";
}

std::string ComposeFromReturnValue(const char* apiName, DWORD returnValue, const char* hint) {
    FUNCTION_TRACE();
    return std::string("FAILED! ") + apiName + "! ReturnValue(" + std::to_string(returnValue) +
           "): " + GetSystemErrorText(returnValue) + " Hint: " + hint + "\n";
}

}  // namespace

CWindowsApiExcp::CWindowsApiExcp(const char* apiName, const char* hint)
    : message_(ComposeFromLastError(apiName, ::GetLastError(), hint)) {
    FUNCTION_TRACE();
}

CWindowsApiExcp::CWindowsApiExcp(const std::string& apiName, const std::string& hint)
    : message_(ComposeFromLastError(apiName.c_str(), ::GetLastError(), hint.c_str())) {
    FUNCTION_TRACE();
}

CWindowsApiExcp::CWindowsApiExcp(const char* apiName, DWORD returnValue, const char* hint)
    : message_(ComposeFromReturnValue(apiName, returnValue, hint)) {
    FUNCTION_TRACE();
}

CWindowsApiExcp::CWindowsApiExcp(const std::string& apiName, DWORD returnValue, const std::string& hint)
    : message_(ComposeFromReturnValue(apiName.c_str(), returnValue, hint.c_str())) {
    FUNCTION_TRACE();
}

std::string GetSystemErrorText(DWORD code) {
    FUNCTION_TRACE();
    char* text = nullptr;
    const DWORD length = ::FormatMessageA(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_ARGUMENT_ARRAY, nullptr,
        code, 0, reinterpret_cast<char*>(&text), 0, nullptr);
    if (length == 0) {
        const DWORD lastError = ::GetLastError();
        if (lastError == ERROR_MR_MID_NOT_FOUND)
            return "Unknown system error-code(" + std::to_string(code) + ")";
        return "FormatMessage(" + std::to_string(code) + ") FAILED! LE(" + std::to_string(lastError) + ")";
    }
    const std::unique_ptr<char, decltype(&::LocalFree)> owner(text, &::LocalFree);
    // System messages end with CR LF.
    return std::string(text, length >= 2 ? length - 2 : 0);
}

}  // namespace modul_exception
