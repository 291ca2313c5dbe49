#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "commands.h"
#include "exception_history.h"
#include "library_search.h"
#include "output.h"
#include "several_commands.h"
#include "text.h"
#include "wine_gap_loader.h"

// tessactl: the operator's and engineer's tool.
namespace tessactl {
namespace {

// Each code once: the help and docs/commands.md show this table.
constexpr command_line::ExitCodeMeaning kExitCodes[] = {
    {static_cast<int>(ExitCode::kSuccess), "done", ""},
    {static_cast<int>(ExitCode::kFailed), "failed; the reason was printed", "read it"},
    {static_cast<int>(ExitCode::kUsage), "the command line is wrong", "`tessactl help`"},
    {static_cast<int>(ExitCode::kProblems), "doctor found problems", "what it says behind each"},
    {static_cast<int>(ExitCode::kNoRights), "no rights", "run it as administrator"},
};

int Run(const std::vector<std::wstring>& arguments);

/// @return the exit code; what kept the command from its end is told on standard error
int RunToTheEnd(const std::vector<std::wstring>& arguments) {
    try {
        return Run(arguments);
    } catch (const NoRights& error) {
        std::fprintf(stderr, "tessactl: %s\n", error.what());
        return static_cast<int>(ExitCode::kNoRights);
    } catch (const ToolError& error) {
        std::fprintf(stderr, "tessactl: %s\n", error.what());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tessactl: %s\n", InWords(error).c_str());
    }
    return static_cast<int>(ExitCode::kFailed);
}

void AddSeveral(command_line::Program& program) {
    struct Options {
        std::vector<std::wstring> commands;
    };
    AddCommand<Options>(
        program, "several", "runs commands one behind the other; for report only",
        [](command_line::Command& command, Options& options) {
            command.Operands("COMMAND", options.commands, "each with what stands behind it");
            command.Hide();
        },
        [](const Options& options) {
            RunSeveral(options.commands, &RunToTheEnd);
            return ExitCode::kSuccess;
        });
}

int Run(const std::vector<std::wstring>& arguments) {
    command_line::Program program("tessactl", "looks after the adapter plug-in", kExitCodes, CP_UTF8);
    AddStatus(program);
    AddDoctor(program);
    AddShowAndHide(program);
    AddWatch(program);
    AddLog(program);
    AddExceptions(program);
    AddDump(program);
    AddTrace(program);
    AddMetrics(program);
    AddReport(program);
    AddReportPart(program);
    AddProbe(program);
    AddSeveral(program);
    return program.Run(arguments);
}

}  // namespace
}  // namespace tessactl

int wmain(int argc, wchar_t** argv) {
    operating_system::LimitLibrarySearch();
    modul_exception::InitializeExceptionHistory();
    LoadWineGap();
    const UINT codePage = ::GetConsoleOutputCP();
    ::SetConsoleOutputCP(CP_UTF8);
    const int result = command_line::FinishOutput("tessactl", tessactl::RunToTheEnd({argv + 1, argv + argc}));
    if (codePage != 0) ::SetConsoleOutputCP(codePage);
    return result;
}
