#include <windows.h>

// What every DLL built here begins and ends with. The C++ run time is linked into each of them, and each copy
// keeps a pool of 73 KB from which exceptions are thrown when memory is short. The run time never gives it
// back: a DLL that is loaded again and again would grow its host by that much each time.

extern "C" BOOL WINAPI DllMainCRTStartup(HINSTANCE module, DWORD reason, void* reserved);

// Part of the run time, for memory checkers; in none of its headers.
namespace __gnu_cxx {       // NOLINT(bugprone-reserved-identifier): the run time's own
void __freeres() noexcept;  // NOLINT(bugprone-reserved-identifier)
}  // namespace __gnu_cxx

/// The run time's entry point, and behind it, after DllMain and the destructors of static objects, the end of
/// the pool: nothing of the DLL can throw any more. When the process ends, the system takes the memory, and a
/// heap that a thread was ended in must not be touched.
extern "C" BOOL WINAPI ModuleEntryPoint(HINSTANCE module, DWORD reason, void* reserved) {
    const BOOL result = ::DllMainCRTStartup(module, reason, reserved);
    const bool isUnload = reason == DLL_PROCESS_DETACH && reserved == nullptr;
    if (isUnload) __gnu_cxx::__freeres();
    return result;
}
