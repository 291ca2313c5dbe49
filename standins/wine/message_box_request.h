#pragma once

#include <windows.h>

/// How a program without a desktop has a message box shown: winegapbox.exe, started on the user's desktop,
/// reads this and the two texts, without terminating zeros, from its standard input, shows the box and ends
/// with the answer.
namespace wine_gap {

struct MessageBoxRequest {
    DWORD style;
    DWORD titleLength;    ///< in characters
    DWORD messageLength;  ///< in characters
};

}  // namespace wine_gap
