#include <windows.h>

// What the configuration library needs beside it; with the definition PLANTED somebody else's under its name.

extern "C" __declspec(dllexport) BOOL WINAPI IsOwnCompanion() {
#if defined(PLANTED)
    return FALSE;
#else
    return TRUE;
#endif
}
