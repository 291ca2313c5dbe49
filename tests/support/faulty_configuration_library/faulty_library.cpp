#include <windows.h>

#include <cstdarg>
#include <cwchar>
#include <stdexcept>

// Configuration libraries that misbehave, one for each way; the build chooses which by a definition.
//
//   MISSING_EXPORT  has no TemplateGetEnum
//   ANSWERS_CODE    answers every call with the code in the environment variable Q5ORVIX_ANSWER, writes
//   "answer"
//                   where it may, and tells in Q5ORVIX_RECEIVED what it was asked
//   FAULTS          raises a processor exception in every call
//   RAISES          raises what Q5ORVIX_RAISES names, as long as it names something
//   BLOCKS          the first to come here sets the event Q5ORVIX_ENTERED and waits for Q5ORVIX_GO_ON
//   HANGS           answers no call for a minute
//   ENDS            ends the process in every call
//
// RAISES and BLOCKS misbehave where Q5ORVIX_WHERE says: in a "call", at "attach" or at "detach".

namespace {

[[maybe_unused]] bool IsSet(const wchar_t* variable, const wchar_t* to) {
    wchar_t text[32] = {};
    ::GetEnvironmentVariableW(variable, text, ARRAYSIZE(text));
    return std::wcscmp(text, to) == 0;
}

[[maybe_unused]] void TouchGuardPage() {
    auto* page = static_cast<volatile char*>(
        ::VirtualAlloc(nullptr, 1, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE | PAGE_GUARD));
    *page = 1;
}

[[maybe_unused]] void Raise() {
    constexpr DWORD kCppExceptionOfAnotherRunTime = 0xE06D7363;
    constexpr DWORD kSoftwareException = 0xE0000001;
    const auto is = [](const wchar_t* kind) { return IsSet(L"Q5ORVIX_RAISES", kind); };
    if (is(L"access violation")) *static_cast<volatile int*>(nullptr) = 0;  // NOLINT: it is asked for
    if (is(L"breakpoint")) ::DebugBreak();
    if (is(L"guard page")) TouchGuardPage();
    if (is(L"software exception")) ::RaiseException(kSoftwareException, 0, 0, nullptr);
    if (is(L"another C++ exception"))
        ::RaiseException(kCppExceptionOfAnotherRunTime, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    if (is(L"standard exception")) throw std::runtime_error("thrown by the library");
    if (is(L"unknown exception")) throw 42;
}

[[maybe_unused]] void Block() {
    static LONG comers = 0;
    if (::InterlockedIncrement(&comers) != 1) return;
    constexpr DWORD kLongestTest = 30000;
    const HANDLE entered = ::OpenEventW(EVENT_MODIFY_STATE, FALSE, L"Q5ORVIX_ENTERED");
    const HANDLE goOn = ::OpenEventW(SYNCHRONIZE, FALSE, L"Q5ORVIX_GO_ON");
    ::SetEvent(entered);
    ::WaitForSingleObject(goOn, kLongestTest);
    ::CloseHandle(entered);
    ::CloseHandle(goOn);
}

void Misbehave([[maybe_unused]] const wchar_t* where) {
#if defined(RAISES)
    if (IsSet(L"Q5ORVIX_WHERE", where)) Raise();
#elif defined(BLOCKS)
    if (IsSet(L"Q5ORVIX_WHERE", where)) Block();
#endif
}

DWORD Behave() {
    Misbehave(L"call");
#if defined(FAULTS)
    *static_cast<volatile int*>(nullptr) = 0;  // NOLINT: it is what this library is for
#elif defined(HANGS)
    ::Sleep(60000);
#elif defined(ENDS)
    ::ExitProcess(0xE0D5);
#elif defined(ANSWERS_CODE)
    wchar_t text[16] = {};
    ::GetEnvironmentVariableW(L"Q5ORVIX_ANSWER", text, ARRAYSIZE(text));
    DWORD code = 0;
    for (const wchar_t* c = text; *c != L'\0'; ++c)
        code = code * 10 + static_cast<DWORD>(*c - L'0');
    return code;
#endif
    return 0;
}

void Tell([[maybe_unused]] const wchar_t* format, ...) {
#if defined(ANSWERS_CODE)
    wchar_t text[1024] = {};
    va_list arguments;
    va_start(arguments, format);
    std::vswprintf(text, ARRAYSIZE(text), format, arguments);
    va_end(arguments);
    ::SetEnvironmentVariableW(L"Q5ORVIX_RECEIVED", text);
#endif
}

void Write([[maybe_unused]] wchar_t* buffer, [[maybe_unused]] DWORD* length) {
#if defined(ANSWERS_CODE)
    std::wcscpy(buffer, L"answer");
    *length = 6;
#endif
}

}  // namespace

extern "C" {

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*) {
    if (reason == DLL_PROCESS_ATTACH) Misbehave(L"attach");
    if (reason == DLL_PROCESS_DETACH) Misbehave(L"detach");
    return TRUE;
}

__declspec(dllexport) DWORD WINAPI LogDeviceExists(const wchar_t* logDevice, DWORD flags) {
    Tell(L"exists %ls %lu", logDevice, flags);
    return Behave();
}
__declspec(dllexport) DWORD WINAPI LogDeviceGetValue(const wchar_t* logDevice, const wchar_t* parameter,
                                                     wchar_t* value, DWORD* length) {
    Tell(L"get %ls %ls %lu", logDevice, parameter, *length);
    Write(value, length);
    return Behave();
}
__declspec(dllexport) DWORD WINAPI LogDeviceSetNdiValue(const wchar_t* logDevice, const wchar_t* parameter,
                                                        const wchar_t* value) {
    Tell(L"set %ls %ls %ls", logDevice, parameter, value);
    return Behave();
}
#ifndef MISSING_EXPORT
__declspec(dllexport) DWORD WINAPI TemplateGetEnum(const wchar_t* type, DWORD index, wchar_t* name,
                                                   DWORD* length) {
    Tell(L"enum %ls %lu %lu", type, index, *length);
    Write(name, length);
    return Behave();
}
#endif

}  // extern "C"
