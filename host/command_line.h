#pragma once

#include <string>
#include <vector>

namespace host {

/// Exit codes of tessahost.
enum class ExitCode {
    kSuccess = 0,
    kFailed = 1,
    kUsage = 2,
    kNotInstalled = 3,
    kAlreadyInstalled = 4,
    kNoRights = 5,
    kTimedOut = 6,
    kNotRunning = 7,
    kAlreadyRunning = 8,
    kEndedByForce = 9,
};

/// What the command line says beyond the command. Empty means: the default.
struct Options {
    std::wstring name = L"tessahost";  ///< service name
    std::wstring displayName;          ///< shown in the service manager's list
    std::wstring program;              ///< what the service runs: this program; not on the command line
    std::wstring plugIn;               ///< plug-in library
    std::wstring log;                  ///< log file
    unsigned long stopTimeOut = 60;    ///< seconds that a stop may take
    unsigned long logSize = 2048;      ///< kilobytes, then a new log file is begun
    unsigned long logKeep = 2;         ///< full log files that stay
    bool automaticStart = false;       ///< start with the machine
    bool delayedStart = false;         ///< some minutes after it
    bool json = false;                 ///< status as JSON
};

/// What the commands do; the command line only chooses.
class CommandHandlersIf {
  public:
    virtual ~CommandHandlersIf() = default;
    virtual ExitCode Install(const Options& options) = 0;
    virtual ExitCode Uninstall(const Options& options) = 0;
    virtual ExitCode Start(const Options& options) = 0;
    virtual ExitCode Stop(const Options& options) = 0;
    virtual ExitCode Restart(const Options& options) = 0;
    virtual ExitCode Status(const Options& options) = 0;
    virtual ExitCode Run(const Options& options) = 0;
};

/// Parses the arguments behind the program's name and calls the command's handler. What is wrong with them is
/// told on standard error.
ExitCode RunCommandLine(const std::vector<std::wstring>& arguments, CommandHandlersIf& handlers);

}  // namespace host
