#include "command_line.h"

#include "program.h"

namespace host {
namespace {

using command_line::Command;
using command_line::ExitCodeMeaning;
using command_line::UsageError;

// Each code once: the help and docs/commands.md show this table.
constexpr ExitCodeMeaning kExitCodes[] = {
    {static_cast<int>(ExitCode::kSuccess), "done", ""},
    {static_cast<int>(ExitCode::kFailed), "failed; the reason was printed",
     "read it; the service's log file and the Application log have more"},
    {static_cast<int>(ExitCode::kUsage), "the command line is wrong", "`tessahost help`"},
    {static_cast<int>(ExitCode::kNotInstalled), "the service is not installed", "`tessahost install`"},
    {static_cast<int>(ExitCode::kAlreadyInstalled), "it is installed already", "`tessahost uninstall` first"},
    {static_cast<int>(ExitCode::kNoRights), "no rights", "run it as administrator"},
    {static_cast<int>(ExitCode::kTimedOut), "neither state nor check point changed for 30 seconds",
     "look into its log file"},
    {static_cast<int>(ExitCode::kNotRunning), "it is not running", ""},
    {static_cast<int>(ExitCode::kAlreadyRunning), "it is running already",
     "`tessahost restart`, if that was meant"},
    {static_cast<int>(ExitCode::kEndedByForce), "stopped, but its process had to be ended: a partner hangs",
     "look into its log file"},
};

void RefuseWhatCannotBeQuoted(const std::string& name, const std::wstring& value) {
    // Either would end the quotes of the service's command line in the wrong place.
    if (value.find(L'"') != std::wstring::npos || value.ends_with(L'\\'))
        throw UsageError("the value of " + name + " may neither hold a quotation mark nor end in \\");
}

void AddText(Command& command, const char* name, std::wstring& value, const char* placeholder,
             const char* about) {
    command.Text(name, value, placeholder, about, &RefuseWhatCannotBeQuoted);
}

/// The options that the service's own command line hands on.
void AddServiceOptions(Command& command, Options& options) {
    AddText(command, "--plugin", options.plugIn, "FILE",
            "the plug-in, tessaplug.dll beside the program unless told otherwise");
    // A stop that goes well takes two to three seconds: a shorter limit would end every one by force.
    command.Number("--stop-timeout", options.stopTimeOut, 5, 3600, "SECONDS",
                   "what a stop may take before the process is ended");
    AddText(command, "--log", options.log, "FILE",
            "the log, %ProgramData%\\Tessaplug\\tessahost.log unless told otherwise");
    command.Number("--log-size", options.logSize, 16, 1048576, "KILOBYTES", "when a new log file is begun");
    command.Number("--log-keep", options.logKeep, 0, 99, "NUMBER",
                   "full log files that stay, as FILE.1, FILE.2");
}

void AddInstallOptions(Command& command, Options& options) {
    AddText(command, "--display-name", options.displayName, "TEXT", "its name in the service manager's list");
    command.Switch("--auto", options.automaticStart, "start with the machine");
    command.Switch("--delayed-auto", options.delayedStart, "start some minutes after it");
}

}  // namespace

ExitCode RunCommandLine(const std::vector<std::wstring>& arguments, CommandHandlersIf& handlers) {
    command_line::Program program("tessahost", "the service that runs the adapter plug-in", kExitCodes,
                                  CP_ACP);
    Options options;
    using Handler = ExitCode (CommandHandlersIf::*)(const Options&);
    const auto add = [&](const char* name, Handler handler, const char* about) {
        Command command = program.Add(name, about);
        AddText(command, "--name", options.name, "NAME",
                "the service's name, tessahost unless told otherwise");
        command.Runs([&handlers, &options, handler] {
            if (options.delayedStart) options.automaticStart = true;
            return static_cast<int>((handlers.*handler)(options));
        });
        return command;
    };
    Command install = add("install", &CommandHandlersIf::Install, "installs the service");
    AddServiceOptions(install, options);
    AddInstallOptions(install, options);
    add("uninstall", &CommandHandlersIf::Uninstall, "removes the service; stops it first");
    add("start", &CommandHandlersIf::Start, "starts the service and waits until it runs");
    add("stop", &CommandHandlersIf::Stop, "stops the service and waits until it has ended");
    add("restart", &CommandHandlersIf::Restart,
        "stops the service if it runs, starts it and waits until it runs\n"
        "Waits like stop and start. It ends with 0 if the service runs in the end, also if the stop had to "
        "end its "
        "process, which is told; a stop that fails in another way ends it with the exit code of stop, and "
        "nothing is started.");
    add("status", &CommandHandlersIf::Status, "shows its state and how it is set up")
        .Switch("--json", options.json, "as JSON");
    Command run = add("run", &CommandHandlersIf::Run, "runs as the service; for the service manager only");
    AddServiceOptions(run, options);
    run.Hide();
    return static_cast<ExitCode>(program.Run(arguments));
}

}  // namespace host
