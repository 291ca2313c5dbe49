#pragma once

#include <windows.h>

/// How a program without a desktop has a message box shown: winegapbox.exe, started on the user's desktop,
/// reads this and the two texts, without terminating zeros, from its standard input, shows the box and ends
/// with the answer.
namespace wine_gap {

struct MessageBoxRequest {
    DWORD session;
    DWORD timeout;  ///< in seconds; 0: none
    DWORD style;
    DWORD titleLength;    ///< in characters
    DWORD messageLength;  ///< in characters
};

/// What it ends with if there was no answer in time, as WTSSendMessage documents it (IDTIMEOUT). It ends with
/// 0 if the session has ended, or the box cannot be shown.
inline constexpr DWORD kTimedOut = 32000;

}  // namespace wine_gap
