#pragma once

#include <windows.h>

#include <atomic>
#include <iterator>
#include <string>
#include <thread>
#include <utility>

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

/// A user who answers every box with a title in the same way, for as long as it lives.
class User {
  public:
    User(std::wstring title, WORD button) : title_(std::move(title)), button_(button) {}
    ~User() {
        leaves_ = true;
        thread_.join();
    }
    User(const User&) = delete;
    User& operator=(const User&) = delete;

    int Answers() const { return answers_; }

  private:
    void AnswerAll() {
        while (!leaves_) {
            const HWND box = FindMessageBox(title_);
            if (box != nullptr && Answer(box, button_)) ++answers_;
            ::Sleep(20);
        }
    }
    const std::wstring title_;
    const WORD button_;
    std::atomic<bool> leaves_ = false;
    std::atomic<int> answers_ = 0;
    std::thread thread_{[this] { AnswerAll(); }};
};

/// Title of the box of a failed assertion in the plug-in.
inline constexpr wchar_t kFatalErrorTitle[] = L"Fatal Error: tessaplug.dll !!!";

}  // namespace test_support
