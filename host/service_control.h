#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "command_line.h"
#include "messages.h"
#include "win_api.h"

namespace host {

/// The command line of a service with these options, paths in full. It is quoted whole, so that a path with
/// blanks cannot run another program. How the service is started is no part of it.
std::wstring CommandLineOf(const Options& options);

/// The options that a service's command line was made of; nothing if it is not one of this program.
std::optional<Options> OptionsOf(const std::wstring& commandLine);

/// A service that is there, whoever installed it.
struct InstalledService {
    std::wstring commandLine;
    std::optional<Options> options;  ///< what it was installed with; nothing if it is none of this program
    bool isRunning = false;          ///< or starting, or stopping
};

/// The commands, done through the service manager.
class ServiceControl : public CommandHandlersIf {
  public:
    explicit ServiceControl(
        std::shared_ptr<windows_api::Advapi32> advapi32 = std::make_shared<windows_api::Advapi32>(),
        std::chrono::milliseconds timeOut = std::chrono::seconds(30),
        std::shared_ptr<MessagesIf> messages = std::make_shared<ConsoleMessages>())
        : advapi32_(std::move(advapi32)), timeOut_(timeOut), messages_(std::move(messages)) {}

    ExitCode Install(const Options& options) override;
    ExitCode Uninstall(const Options& options) override;
    ExitCode Start(const Options& options) override;
    ExitCode Stop(const Options& options) override;
    ExitCode Restart(const Options& options) override;
    ExitCode Status(const Options& options) override;
    ExitCode Run(const Options& options) override;

    /// Sets an installed service up anew, as Install would.
    ExitCode Update(const Options& options);
    /// @return nothing if there is no service of that name, or if it cannot be looked at, which is told then
    std::optional<InstalledService> Find(const std::wstring& name);

  private:
    /// Calls `use` with the opened service; tells why it cannot be opened.
    template <typename Use>
    ExitCode WithService(const Options& options, DWORD access, Use use);
    template <typename Use>
    ExitCode WithManager(DWORD access, Use use);
    /// Calls `use` with the options, paths of plug-in and log in full; tells what is wrong with either.
    template <typename Use>
    ExitCode WithPaths(const Options& options, Use use);
    /// @return empty if the log cannot be written, which has been told then
    std::wstring LogPath(const Options& options);
    void SetUp(SC_HANDLE manager, SC_HANDLE service, const Options& options);
    ExitCode Failed(const Options& options, const wchar_t* what, DWORD error);
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
    std::shared_ptr<MessagesIf> messages_;
};

}  // namespace host
