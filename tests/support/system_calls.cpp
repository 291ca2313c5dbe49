#include "system_calls.h"

namespace test_support {

constinit SystemCalls systemCalls;

}  // namespace test_support

namespace {

using test_support::systemCalls;

template <typename Function>
Function* Real(const char* library, const char* name) {
    const HMODULE module = ::LoadLibraryA(library);
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

/// What the import pointer of one function points to: the test's function if there is one.
template <auto Member, typename Name, typename Function>
struct Call;

template <auto Member, typename Name, typename Result, typename... Args>
struct Call<Member, Name, Result WINAPI(Args...)> {
    static Result WINAPI Do(Args... args) {
        if (auto* replacement = systemCalls.*Member) return replacement(args...);
        static auto* const real = Real<Result WINAPI(Args...)>(Name::kLibrary, Name::kFunction);
        return real(args...);
    }
};

}  // namespace

// The import pointers: a program that links this file gets these instead of the system libraries'.
#define NAMED(library, function)                       \
    namespace {                                        \
    struct Name##function {                            \
        static constexpr char kLibrary[] = library;    \
        static constexpr char kFunction[] = #function; \
    };                                                 \
    }                                                  \
    static_assert(true, "")
#define REPLACED(function, member) \
    Call<&test_support::SystemCalls::member, Name##function, decltype(::function)>::Do
#define REPLACEABLE(library, function, member)                                           \
    NAMED(library, function);                                                            \
    extern "C" {                                                                         \
    extern void* const __imp_##function;                                                 \
    void* const __imp_##function = reinterpret_cast<void*>(&REPLACED(function, member)); \
    }                                                                                    \
    static_assert(true, "")

REPLACEABLE("kernel32.dll", WideCharToMultiByte, wideCharToMultiByte);
REPLACEABLE("kernel32.dll", FormatMessageA, formatMessageA);
REPLACEABLE("kernel32.dll", LocalFree, localFree);
REPLACEABLE("kernel32.dll", GetSystemTime, getSystemTime);
REPLACEABLE("kernel32.dll", GetLocalTime, getLocalTime);
REPLACEABLE("kernel32.dll", GetCurrentProcessorNumber, getCurrentProcessorNumber);
REPLACEABLE("kernel32.dll", CreateDirectoryW, createDirectoryW);
REPLACEABLE("kernel32.dll", LoadLibraryW, loadLibraryW);
REPLACEABLE("kernel32.dll", GetModuleFileNameW, getModuleFileNameW);
REPLACEABLE("kernel32.dll", OutputDebugStringW, outputDebugStringW);
REPLACEABLE("kernel32.dll", OutputDebugStringA, outputDebugStringA);
REPLACEABLE("advapi32.dll", ReportEventW, reportEventW);
REPLACEABLE("advapi32.dll", InitializeSecurityDescriptor, initializeSecurityDescriptor);
REPLACEABLE("advapi32.dll", SetSecurityDescriptorDacl, setSecurityDescriptorDacl);
REPLACEABLE("ole32.dll", CoTaskMemFree, coTaskMemFree);
REPLACEABLE("ole32.dll", StringFromGUID2, stringFromGuid2);

// This one is not declared as imported: what is called is the function that jumps to it.
NAMED("shell32.dll", SHGetKnownFolderPath);
HRESULT WINAPI KnownFolderPath(REFKNOWNFOLDERID folder, DWORD flags, HANDLE token,
                               PWSTR* path) __asm__("SHGetKnownFolderPath");
HRESULT WINAPI KnownFolderPath(REFKNOWNFOLDERID folder, DWORD flags, HANDLE token, PWSTR* path) {
    return REPLACED(SHGetKnownFolderPath, shGetKnownFolderPath)(folder, flags, token, path);
}
