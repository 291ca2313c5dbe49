#include <windows.h>

// Configuration libraries that misbehave, one for each way; the build chooses which by a definition.
//
//   MISSING_EXPORT  has no TemplateGetEnum
//   ANSWERS_CODE    answers every call with the code in the environment variable Q5ORVIX_ANSWER
//   FAULTS          raises a processor exception in every call

namespace {

DWORD Behave() {
#if defined(FAULTS)
    *static_cast<volatile int*>(nullptr) = 0;  // NOLINT: it is what this library is for
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

}  // namespace

extern "C" {

__declspec(dllexport) DWORD WINAPI LogDeviceExists(const wchar_t*, DWORD) {
    return Behave();
}
__declspec(dllexport) DWORD WINAPI LogDeviceGetValue(const wchar_t*, const wchar_t*, wchar_t*, DWORD*) {
    return Behave();
}
__declspec(dllexport) DWORD WINAPI LogDeviceSetNdiValue(const wchar_t*, const wchar_t*, const wchar_t*) {
    return Behave();
}
#ifndef MISSING_EXPORT
__declspec(dllexport) DWORD WINAPI TemplateGetEnum(const wchar_t*, DWORD, wchar_t*, DWORD*) {
    return Behave();
}
#endif

}  // extern "C"
