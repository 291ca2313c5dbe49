#include <windows.h>

extern "C" {

__declspec(dllimport) BOOL WINAPI IsOwnCompanion();

/// The library can be loaded with its own companion only.
BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*) {
    return reason != DLL_PROCESS_ATTACH || IsOwnCompanion();
}

}  // extern "C"
