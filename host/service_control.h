#pragma once

#include <chrono>
#include <memory>

#include "command_line.h"
#include "win_api.h"

namespace host {

/// The commands, done through the service manager.
class ServiceControl : public CommandHandlersIf {
  public:
    explicit ServiceControl(
        std::shared_ptr<windows_api::Advapi32> advapi32 = std::make_shared<windows_api::Advapi32>(),
        std::chrono::milliseconds timeOut = std::chrono::seconds(30))
        : advapi32_(std::move(advapi32)), timeOut_(timeOut) {}

    ExitCode Install(const Options& options) override;
    ExitCode Uninstall(const Options& options) override;
    ExitCode Start(const Options& options) override;
    ExitCode Stop(const Options& options) override;
    ExitCode Restart(const Options& options) override;
    ExitCode Status(const Options& options) override;
    ExitCode Run(const Options& options) override;

  private:
    /// Calls `use` with the opened service; tells why it cannot be opened.
    template <typename Use>
    ExitCode WithService(const Options& options, DWORD access, Use use);
    template <typename Use>
    ExitCode WithManager(DWORD access, Use use);
    bool Query(SC_HANDLE service, SERVICE_STATUS_PROCESS& status);
    /// Stops the service, or waits if it is stopping already, until its process has ended.
    ExitCode StopAndWait(SC_HANDLE service, const Options& options);
    /// Starts the service and waits until it runs.
    /// @param mayRunAlready whether that is as good as having been started
    ExitCode StartAndWait(SC_HANDLE service, const Options& options, bool mayRunAlready = false);
    /// @param status the state that was waited for, or the one it was given up in
    /// @return kTimedOut if neither state nor check point changes for the time-out
    ExitCode WaitFor(SC_HANDLE service, DWORD wanted, const Options& options, SERVICE_STATUS_PROCESS& status);

    std::shared_ptr<windows_api::Advapi32> advapi32_;
    std::chrono::milliseconds timeOut_;
};

}  // namespace host
