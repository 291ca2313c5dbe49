#pragma once

#include <windows.h>

#include <atomic>

/// Calls of the plug-in that a test answers itself.
namespace sweep {

/// Windows accepts the handles of real services only.
inline HDEVNOTIFY WINAPI RegisterNotification(HANDLE, void*, DWORD) {
    static std::atomic<ULONG_PTR> next = 0x1000;
    return reinterpret_cast<HDEVNOTIFY>(++next);
}

inline BOOL WINAPI UnregisterNotification(HDEVNOTIFY) {
    return TRUE;
}

/// Most of the waiting is spared.
inline void WINAPI SleepLess(DWORD milliseconds) {
    constexpr DWORD kTimesFaster = 20;
    ::Sleep(milliseconds > kTimesFaster ? milliseconds / kTimesFaster : milliseconds);
}

}  // namespace sweep
