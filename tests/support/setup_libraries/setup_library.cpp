#include <windows.h>

// A device installation library that has only the first FUNCTIONS of the five functions, and whose functions
// all throw like C++ code of another compiler's run time.

namespace {

void* Throw() {
    constexpr DWORD kCppExceptionOfAnotherRunTime = 0xE06D7363;
    ::RaiseException(kCppExceptionOfAnotherRunTime, 0, 0, nullptr);
    return nullptr;
}

}  // namespace

// The library throws before it looks at an argument, so none is declared.
extern "C" {

#if FUNCTIONS > 0
__declspec(dllexport) void* SetupDiGetClassDevsW() {
    return Throw();
}
#endif
#if FUNCTIONS > 1
__declspec(dllexport) void* SetupDiDestroyDeviceInfoList() {
    return Throw();
}
#endif
#if FUNCTIONS > 2
__declspec(dllexport) void* SetupDiEnumDeviceInterfaces() {
    return Throw();
}
#endif
#if FUNCTIONS > 3
__declspec(dllexport) void* SetupDiGetDeviceInterfaceDetailW() {
    return Throw();
}
#endif
#if FUNCTIONS > 4
__declspec(dllexport) void* SetupDiOpenDeviceInterfaceRegKey() {
    return Throw();
}
#else
/// Keeps a library without a function from exporting everything.
__declspec(dllexport) void* NothingOfTheSort() {
    return Throw();
}
#endif

}  // extern "C"
