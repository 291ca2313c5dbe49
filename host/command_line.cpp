#include "command_line.h"

#include <cstdio>
#include <optional>

namespace host {
namespace {

constexpr wchar_t kHelp[] =
    L"tessahost: the service that runs the adapter plug-in\n"
    L"\n"
    L"  tessahost install [--plugin FILE] [--log FILE] [--auto]   installs the service\n"
    L"  tessahost uninstall                                       removes it\n"
    L"  tessahost start                                           starts it and waits until it runs\n"
    L"  tessahost stop                                            stops it and waits until it has ended\n"
    L"  tessahost status [--json]                                 shows its state\n"
    L"  tessahost run                                             for the service manager only\n"
    L"\n"
    L"Every command takes --name NAME for a service of another name than \"tessahost\"; install takes\n"
    L"--display-name TEXT as well. The plug-in is tessaplug.dll beside the program and the log\n"
    L"%ProgramData%\\Tessaplug\\tessahost.log unless told otherwise.\n";

ExitCode UsageError(const std::wstring& what) {
    std::fwprintf(stderr, L"tessahost: %ls\nTry \"tessahost help\".\n", what.c_str());
    return ExitCode::kUsage;
}

/// Reads the options behind the command; nothing if they are wrong, which has been told then.
std::optional<Options> ParseOptions(const std::vector<std::wstring>& arguments) {
    Options options;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::wstring& argument = arguments[i];
        if (argument == L"--auto") {
            options.automaticStart = true;
            continue;
        }
        if (argument == L"--json") {
            options.json = true;
            continue;
        }
        std::wstring* value = argument == L"--name"           ? &options.name
                              : argument == L"--display-name" ? &options.displayName
                              : argument == L"--plugin"       ? &options.plugIn
                              : argument == L"--log"          ? &options.log
                                                              : nullptr;
        if (value == nullptr) {
            UsageError(L"unknown option " + argument);
            return std::nullopt;
        }
        if (i + 1 == arguments.size() || arguments[i + 1].empty()) {
            UsageError(L"option " + argument + L" needs a value");
            return std::nullopt;
        }
        // Either would end the quotes of the service's command line in the wrong place.
        if (arguments[i + 1].find(L'"') != std::wstring::npos || arguments[i + 1].ends_with(L'\\')) {
            UsageError(L"the value of " + argument + L" may neither hold a quotation mark nor end in \\");
            return std::nullopt;
        }
        *value = arguments[++i];
    }
    return options;
}

}  // namespace

ExitCode RunCommandLine(const std::vector<std::wstring>& arguments, CommandHandlersIf& handlers) {
    struct Command {
        const wchar_t* name;
        ExitCode (CommandHandlersIf::*handler)(const Options&);
    };
    static constexpr Command kCommands[] = {
        {L"install", &CommandHandlersIf::Install}, {L"uninstall", &CommandHandlersIf::Uninstall},
        {L"start", &CommandHandlersIf::Start},     {L"stop", &CommandHandlersIf::Stop},
        {L"status", &CommandHandlersIf::Status},   {L"run", &CommandHandlersIf::Run},
    };
    if (arguments.empty()) return UsageError(L"a command is missing");
    if (arguments[0] == L"help" || arguments[0] == L"--help") {
        std::fputws(kHelp, stdout);
        return ExitCode::kSuccess;
    }
    for (const Command& command : kCommands) {
        if (arguments[0] != command.name) continue;
        const auto options = ParseOptions(arguments);
        return options ? (handlers.*command.handler)(*options) : ExitCode::kUsage;
    }
    return UsageError(L"unknown command " + arguments[0]);
}

}  // namespace host
