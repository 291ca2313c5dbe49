#include "export_guard.h"

#include <cstdio>

namespace sweep {
namespace {

/// Of this run time's kind, whichever module throws it.
constexpr DWORD kCppException = 0x20474343;

/// The compiler guards calls only. C++ exceptions are left to C++: nothing else unwinds its frames.
[[gnu::noinline]] void Call(void (*function)(void* context), void* context, EXCEPTION_RECORD& exception) {
    try {
        function(context);
    } catch (...) {
        exception.ExceptionCode = kCppException;
    }
}

int Keep(const EXCEPTION_POINTERS* pointers, EXCEPTION_RECORD& exception) {
    if (pointers->ExceptionRecord->ExceptionCode == kCppException) return EXCEPTION_CONTINUE_SEARCH;
    exception = *pointers->ExceptionRecord;
    return EXCEPTION_EXECUTE_HANDLER;
}

/// No object with a destructor may be in it.
bool IsQuiet(void (*function)(void* context), void* context, EXCEPTION_RECORD& exception) {
    __try {
        Call(function, context, exception);
    } __except (Keep(GetExceptionInformation(), exception)) {
        return false;
    }
    return exception.ExceptionCode == 0;
}

LONG CALLBACK GoOn(EXCEPTION_POINTERS* exception) {
    if (exception->ExceptionRecord->ExceptionCode != EXCEPTION_BREAKPOINT) return EXCEPTION_CONTINUE_SEARCH;
    constexpr BYTE kBreakpoint = 0xCC;
    auto& next = exception->ContextRecord->Rip;
    if (*reinterpret_cast<const BYTE*>(next) == kBreakpoint) ++next;
    return EXCEPTION_CONTINUE_EXECUTION;
}

}  // namespace

std::string Describe(const EXCEPTION_RECORD& exception) {
    const auto* address = static_cast<const char*>(exception.ExceptionAddress);
    if (address == nullptr) return "C++ exception";
    HMODULE module = nullptr;
    char path[MAX_PATH] = "";
    if (::GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            reinterpret_cast<const wchar_t*>(address), &module))
        ::GetModuleFileNameA(module, path, MAX_PATH);
    const std::string name = path;
    char text[64];
    std::snprintf(text, sizeof text, " + 0x%llx",
                  static_cast<unsigned long long>(address - reinterpret_cast<const char*>(module)));
    const std::string place = name.substr(name.rfind('\\') + 1) + text;
    std::snprintf(text, sizeof text, "exception 0x%08lX at ", exception.ExceptionCode);
    return text + place;
}

std::string CallHost(void (*function)(void* context), void* context) {
    EXCEPTION_RECORD exception = {};
    return IsQuiet(function, context, exception) ? "" : Describe(exception);
}

void LetBreakpointsGoOn() {
    ::AddVectoredExceptionHandler(1, &GoOn);
}

}  // namespace sweep
