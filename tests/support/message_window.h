#pragma once

#include <windows.h>

#include <string>

#include "command.h"

/// The message boxes on the display of this machine, whoever shows them.
namespace test_support {

inline HWND FindMessageBox(const std::wstring& title) {
    return ::FindWindowW(L"#32770", title.c_str());
}

/// Waits for a box, at most ten seconds; null if none appears.
inline HWND WaitForMessageBox(const std::wstring& title) {
    HWND box = nullptr;
    Eventually([&] { return (box = FindMessageBox(title)) != nullptr && ::IsWindowVisible(box); });
    return box;
}

/// The text of a box.
inline std::wstring MessageOf(HWND box) {
    constexpr int kMessage = 0xFFFF;  // the identifier that Windows gives it
    wchar_t text[1024] = {};
    ::SendDlgItemMessageW(box, kMessage, WM_GETTEXT, std::size(text), reinterpret_cast<LPARAM>(text));
    return text;
}

/// Answers a box and waits until it is gone.
/// @param button ID...
inline bool Answer(HWND box, WORD button = IDOK) {
    ::PostMessageW(box, WM_COMMAND, button, 0);
    return Eventually([box] { return !::IsWindow(box); });
}

}  // namespace test_support
