#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "win_api.h"

namespace quelm {

/// The interface-setup panel of the installation, a program without a user interface when run silently: it
/// makes log devices that are installed but missing.
class TvorPanel {
  public:
    explicit TvorPanel(
        std::shared_ptr<windows_api::CKernel32> kernel32 = std::make_shared<windows_api::CKernel32>());
    virtual ~TvorPanel() = default;

    /// Runs the panel and waits until it has ended, at most ten seconds. One that takes longer goes on
    /// running; only the waiting ends. What the panel returns is not looked at.
    /// @throws modul_exception::CWindowsApiExcp if it cannot be started or waited for
    /// @throws std::runtime_error if it takes too long
    virtual void CallSilent();

  private:
    std::wstring CreateAbsoluteDllPath() const;
    void WaitUntilTvorPanelFinished(HANDLE hProcess) const;
    void CloseProcessHandles(const PROCESS_INFORMATION& process) const;

    std::shared_ptr<windows_api::CKernel32> kernel32_;
};

}  // namespace quelm
