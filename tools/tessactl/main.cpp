#include <algorithm>
#include <cstdio>
#include <exception>
#include <utility>

#include "commands.h"
#include "exception_history.h"
#include "library_search.h"
#include "text.h"
#include "wine_gap_loader.h"

// tessactl: the operator's and engineer's tool.
namespace tessactl {
namespace {

struct Command {
    const wchar_t* name;
    ExitCode (*run)(const Arguments&);
    const wchar_t* help;
};

constexpr Command kCommands[] = {
    {L"status", &Status,
     L"  status [--json]\n"
     L"      shows the instance lock, the models' mutexes and shared memories, the adapters with their "
     L"device paths,\n"
     L"      every access point, and the configuration library\n"},
    {L"doctor", &Doctor,
     L"  doctor [--service NAME] [--plugin FILE] [--expect MODEL]... [--timeout SECONDS] [--json]\n"
     L"      goes through what has to be true for an access point to show; says what is wrong and what to "
     L"do; an\n"
     L"      adapter has to be there only if it is expected, e.g. --expect NX4120; a partner that does not "
     L"answer\n"
     L"      within the timeout, 10 seconds unless told otherwise, is a problem\n"},
    {L"show", &ShowAccessPoint,
     L"  show NAME [--json]\n"
     L"      makes an installed access point visible, e.g. show \"NX4120(XLI)\"\n"},
    {L"hide", &HideAccessPoint,
     L"  hide NAME [--json]\n"
     L"      hides it\n"},
    {L"watch", &Watch,
     L"  watch [--seconds N] [--json]\n"
     L"      prints arrivals, removals, changes of access points, messages of the driver and the plug-in's "
     L"log "
     L"entries\n"
     L"      as they happen, until Ctrl+C or for N seconds\n"},
    {L"log", &Log,
     L"  log [--source NAME] [--log NAME] [--since TIME] [--level LEVEL] [--count N]\n"
     L"      [--follow [--seconds N]] [--json]\n"
     L"      shows the plug-in's entries of the Application log as sentences: since a time, e.g. "
     L"2026-11-21T10:11 or\n"
     L"      2h; of a LEVEL, error, warning or information, and graver; the last N; with --follow also new "
     L"ones as\n"
     L"      they come, until Ctrl+C or for N seconds\n"},
    {L"exceptions", &Exceptions,
     L"  exceptions [--service NAME] [--plugin FILE] [--json]\n"
     L"      prints the exceptions that the plug-in of the running service threw last, oldest first\n"},
    {L"dump", &Dump,
     L"  dump info FILE [--json]\n"
     L"      shows what a memory dump holds: the captured exception, threads and modules\n"
     L"  dump history FILE [--json]\n"
     L"      prints the exceptions that the plug-in threw last, oldest first, from the dump alone\n"
     L"  dump list [--folder FOLDER] [--json]\n"
     L"      lists the plug-in's dumps, newest first; without a folder in the service's temporary folder\n"
     L"  dump prune [--keep N] [--older DAYS] [--folder FOLDER] [--dry-run]\n"
     L"      removes all but the newest N, or what is older than some days; with both, what is both\n"},
    {L"trace", &Trace,
     L"  trace start [--file FILE] [--level LEVEL] [--flags FLAGS] [--size MB [--circular]]\n"
     L"      starts recording the plug-in's trace; LEVEL 2 errors, 3 warnings, 4 information, 5 everything "
     L"(the\n"
     L"      default); FLAGS adds up 1 messages, 4 function entry and exit, 8 log-device configuration (all "
     L"of\n"
     L"      them unless told otherwise); at its size it ends, or, circular, the oldest messages go\n"
     L"  trace status [--json]\n"
     L"      shows whether a recording runs, whoever started it, and what it has lost\n"
     L"  trace stop\n"
     L"      ends the recording\n"
     L"  trace decode [FILE] [--tmf FOLDER] [--format text|chrome] [--output FILE] [--functions]\n"
     L"      prints a recording; with --format chrome as a file for Perfetto or chrome://tracing; with "
     L"--functions\n"
     L"      also the function of each message; what the recording lacks is told on standard error\n"},
    {L"probe", &Probe, L""},
};

void PrintHelp() {
    std::fputws(L"tessactl: looks after the adapter plug-in\n\n", stdout);
    for (const Command& command : kCommands)
        std::fputws(command.help, stdout);
    std::fputws(L"\nExit codes: 0 done, 1 failed, 2 not understood, 3 doctor found problems, 5 no rights.\n",
                stdout);
}

ExitCode Run(const Arguments& arguments) {
    if (arguments.empty()) return UsageError(L"a command is missing");
    if (arguments[0] == L"help" || arguments[0] == L"--help") {
        PrintHelp();
        return ExitCode::kSuccess;
    }
    for (const Command& command : kCommands)
        if (arguments[0] == command.name) return command.run({arguments.begin() + 1, arguments.end()});
    return UsageError(L"unknown command " + arguments[0]);
}

}  // namespace

bool TakeJson(Arguments& arguments) {
    return std::erase(arguments, L"--json") > 0;
}

std::optional<std::wstring> TakeValue(Arguments& arguments, const std::wstring& option) {
    const auto found = std::ranges::find(arguments, option);
    if (found == arguments.end() || found + 1 == arguments.end()) return std::nullopt;
    std::wstring value = std::move(found[1]);
    arguments.erase(found, found + 2);
    return value;
}

ExitCode UsageError(const std::wstring& what) {
    std::fprintf(stderr, "tessactl: %s\nTry \"tessactl help\".\n", Utf8(what).c_str());
    return ExitCode::kUsage;
}

}  // namespace tessactl

int wmain(int argc, wchar_t** argv) {
    operating_system::LimitLibrarySearch();
    modul_exception::InitializeExceptionHistory();
    LoadWineGap();
    const UINT codePage = ::GetConsoleOutputCP();
    ::SetConsoleOutputCP(CP_UTF8);
    auto result = tessactl::ExitCode::kFailed;
    try {
        result = tessactl::Run({argv + 1, argv + argc});
    } catch (const tessactl::NoRights& error) {
        std::fprintf(stderr, "tessactl: %s\n", error.what());
        result = tessactl::ExitCode::kNoRights;
    } catch (const tessactl::ToolError& error) {
        std::fprintf(stderr, "tessactl: %s\n", error.what());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tessactl: %s\n", tessactl::InWords(error).c_str());
    }
    std::fflush(stdout);
    if (codePage != 0) ::SetConsoleOutputCP(codePage);
    return static_cast<int>(result);
}
