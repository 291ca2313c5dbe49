#include "command_line.h"

#include <cstdio>
#include <cwchar>
#include <optional>

namespace host {
namespace {

constexpr wchar_t kHelp[] =
    L"tessahost: the service that runs the adapter plug-in\n"
    L"\n"
    L"  tessahost install [OPTION]...   installs the service\n"
    L"  tessahost uninstall             removes it\n"
    L"  tessahost start                 starts it and waits until it runs\n"
    L"  tessahost stop                  stops it and waits until it has ended\n"
    L"  tessahost status [--json]       shows its state and how it is set up\n"
    L"  tessahost run                   for the service manager only\n"
    L"\n"
    L"Every command takes --name NAME for a service of another name than \"tessahost\". install takes\n"
    L"\n"
    L"  --plugin FILE           the plug-in, tessaplug.dll beside the program unless told otherwise\n"
    L"  --auto                  start with the machine\n"
    L"  --delayed-auto          start some minutes after it\n"
    L"  --stop-timeout SECONDS  what a stop may take before the process is ended: 5 to 3600, 60\n"
    L"  --log FILE              the log, %ProgramData%\\Tessaplug\\tessahost.log\n"
    L"  --log-size KILOBYTES    when a new log file is begun: 16 to 1048576, 2048\n"
    L"  --log-keep NUMBER       full log files that stay, as FILE.1, FILE.2: 0 to 99, 2\n"
    L"  --display-name TEXT     its name in the service manager's list\n";

ExitCode UsageError(const std::wstring& what) {
    std::fwprintf(stderr, L"tessahost: %ls\nTry \"tessahost help\".\n", what.c_str());
    return ExitCode::kUsage;
}

/// Sets an option that has no value.
bool TakeSwitch(const std::wstring& name, Options& options) {
    if (name == L"--delayed-auto") options.delayedStart = true;
    if (name == L"--auto" || name == L"--delayed-auto") options.automaticStart = true;
    if (name == L"--json") options.json = true;
    return name == L"--auto" || name == L"--delayed-auto" || name == L"--json";
}

std::wstring* TextOption(const std::wstring& name, Options& options) {
    if (name == L"--name") return &options.name;
    if (name == L"--display-name") return &options.displayName;
    if (name == L"--plugin") return &options.plugIn;
    return name == L"--log" ? &options.log : nullptr;
}

struct NumberOption {
    const wchar_t* name;
    unsigned long Options::* value;
    unsigned long lowest;
    unsigned long highest;
};
// A stop that goes well takes two to three seconds: a shorter limit would end every one by force.
constexpr NumberOption kNumberOptions[] = {
    {L"--stop-timeout", &Options::stopTimeOut, 5, 3600},
    {L"--log-size", &Options::logSize, 16, 1048576},
    {L"--log-keep", &Options::logKeep, 0, 99},
};

const NumberOption* FindNumberOption(const std::wstring& name) {
    for (const NumberOption& option : kNumberOptions)
        if (name == option.name) return &option;
    return nullptr;
}

bool SetText(const std::wstring& name, const std::wstring& value, std::wstring& text) {
    // Either would end the quotes of the service's command line in the wrong place.
    if (value.find(L'"') != std::wstring::npos || value.ends_with(L'\\')) {
        UsageError(L"the value of " + name + L" may neither hold a quotation mark nor end in \\");
        return false;
    }
    text = value;
    return true;
}

bool SetNumber(const NumberOption& option, const std::wstring& value, Options& options) {
    constexpr std::size_t kMostDigits = 9;  // of what surely fits
    const bool isNumber =
        value.length() <= kMostDigits && value.find_first_not_of(L"0123456789") == std::wstring::npos;
    const unsigned long number = isNumber ? std::wcstoul(value.c_str(), nullptr, 10) : 0;
    if (!isNumber || number < option.lowest || number > option.highest) {
        UsageError(std::wstring(L"the value of ") + option.name + L" is a whole number from " +
                   std::to_wstring(option.lowest) + L" to " + std::to_wstring(option.highest));
        return false;
    }
    options.*option.value = number;
    return true;
}

/// Reads the options behind the command; nothing if they are wrong, which has been told then.
std::optional<Options> ParseOptions(const std::vector<std::wstring>& arguments) {
    Options options;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::wstring& name = arguments[i];
        if (TakeSwitch(name, options)) continue;
        std::wstring* const text = TextOption(name, options);
        const NumberOption* const number = FindNumberOption(name);
        if (text == nullptr && number == nullptr) {
            UsageError(L"unknown option " + name);
            return std::nullopt;
        }
        if (i + 1 == arguments.size() || arguments[i + 1].empty()) {
            UsageError(L"option " + name + L" needs a value");
            return std::nullopt;
        }
        const std::wstring& value = arguments[++i];
        if (!(text != nullptr ? SetText(name, value, *text) : SetNumber(*number, value, options)))
            return std::nullopt;
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
