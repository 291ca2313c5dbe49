#pragma once

#include <windows.h>
#include <wtsapi32.h>

#include <functional>
#include <memory>
#include <string>

#include "win_api.h"

namespace operating_system {

/// A message box for a program without a desktop, such as a service: it appears on the desktop of the first
/// active user session.
class SystemMessageBox {
  public:
    using WtsFactory = std::function<std::unique_ptr<windows_api::CWtsapi32>()>;

    /// @param loadWts makes the session library's wrapper when the first box is shown
    explicit SystemMessageBox(WtsFactory loadWts = [] { return std::make_unique<windows_api::CWtsapi32>(); });
    virtual ~SystemMessageBox();
    SystemMessageBox(const SystemMessageBox&) = delete;
    SystemMessageBox& operator=(const SystemMessageBox&) = delete;

    /// Shows a box and waits until the user has answered it.
    /// @param title null is shown as "(null)"; so is a null message
    /// @param style MB_... as of MessageBoxW
    /// @return the button, ID... as of MessageBoxW
    /// @throws std::runtime_error if no session is active
    /// @throws std::invalid_argument if there is no session at all
    /// @throws modul_exception::CWindowsApiExcp if Windows refuses
    /// @throws ForeignException if the session library raises a structured exception
    virtual DWORD Show(const wchar_t* title, const wchar_t* message, DWORD style);

    /// Frees the session library; the next box loads it again.
    void UnLoadWtsLib();

  private:
    void LoadWtsLib();
    DWORD FirstActiveSession();
    static DWORD GetFirstActiveUserFrom(const WTS_SESSION_INFOW* WtsSession, DWORD NumOfSessions);

    WtsFactory loadWts_;
    std::unique_ptr<windows_api::CWtsapi32> wts_;
};

}  // namespace operating_system
