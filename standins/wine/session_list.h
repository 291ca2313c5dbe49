#pragma once

#include <windows.h>
#include <wtsapi32.h>

#include <string>
#include <vector>

/// The sessions of the machine, as a registry value describes them: HKEY_LOCAL_MACHINE\SOFTWARE\winegap,
/// Sessions, one text for each, in this order. It is read anew each time.
///
///     1 active          somebody is logged on there
///     1 locked          so he is, and has locked it
///     2 disconnected    he is logged on and not there
///     1 connected       the log-on screen: nobody is logged on
///
/// Without the value there is one, number 1, active. The services' session 0, disconnected, is always the
/// first.
namespace wine_gap {

inline constexpr wchar_t kSessionKey[] = L"SOFTWARE\\winegap";

struct Session {
    DWORD number;
    WTS_CONNECTSTATE_CLASS state;
    bool isLocked;
    std::wstring name;  ///< of its window station

    /// Whether somebody sees and answers a box there.
    bool IsAttended() const { return state == WTSActive && !isLocked; }
};

std::vector<Session> Sessions();

}  // namespace wine_gap
