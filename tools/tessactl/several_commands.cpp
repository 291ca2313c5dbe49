#include "several_commands.h"

#include <windows.h>
#include <shellapi.h>

#include <charconv>
#include <cstddef>
#include <cstdio>
#include <utility>

#include "unique_handle.h"

namespace tessactl {
namespace {

/// Stands before the exit code of the command that ends here; a line end stands behind it. JSON escapes it,
/// and the words of an error have it only where somebody has put it into a name.
constexpr char kEndOfCommand = '\x1E';

std::vector<std::wstring> ArgumentsIn(const std::wstring& command) {
    const std::wstring line = L"tessactl " + command;
    int count = 0;
    const UniqueHandle<wchar_t**, [](wchar_t** all) { ::LocalFree(all); }> all(
        ::CommandLineToArgvW(line.c_str(), &count));
    return {all.get() + 1, all.get() + count};
}

/// What one command wrote into an output.
struct Piece {
    std::string text;
    std::optional<DWORD> exitCode;  ///< nothing: it came to no end
};

/// @return at least one; only the last one came to no end
std::vector<Piece> PiecesOf(const std::string& output) {
    std::vector<Piece> pieces;
    std::size_t begin = 0;
    for (;;) {
        const std::size_t mark = output.find(kEndOfCommand, begin);
        const std::size_t end = output.find('\n', mark);
        pieces.push_back({output.substr(begin, mark - begin), std::nullopt});
        if (mark == std::string::npos || end == std::string::npos) return pieces;
        DWORD exitCode = 0;
        std::from_chars(output.data() + mark + 1, output.data() + end, exitCode);
        pieces.back().exitCode = exitCode;
        begin = end + 1;
    }
}

}  // namespace

void RunSeveral(const std::vector<std::wstring>& commands,
                const std::function<int(const std::vector<std::wstring>& arguments)>& run) {
    for (const std::wstring& command : commands) {
        const int exitCode = run(ArgumentsIn(command));
        for (FILE* output : {stdout, stderr}) {
            std::fprintf(output, "%c%d\n", kEndOfCommand, exitCode);
            std::fflush(output);  // the next one may end the process
        }
    }
}

std::vector<std::optional<LimitedResult>> RunTheseCommands(const std::vector<std::wstring>& commands,
                                                           std::chrono::milliseconds limit) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + limit;
    std::vector<std::optional<LimitedResult>> results;
    while (results.size() < commands.size() && Clock::now() < deadline) {
        std::wstring arguments = L"several";
        for (std::size_t i = results.size(); i < commands.size(); ++i)
            arguments += L" " + Quoted(commands[i]);
        LimitedResult process =
            RunThisProgram(arguments, std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()));
        std::vector<Piece> errors = PiecesOf(process.errors);
        errors.resize(commands.size() + 1);
        std::size_t number = 0;
        for (Piece& output : PiecesOf(process.output)) {
            if (results.size() == commands.size()) break;
            results.push_back({{output.exitCode || process.ended, output.exitCode.value_or(process.exitCode),
                                std::move(output.text), std::move(errors[number++].text)}});
        }
    }
    results.resize(commands.size());
    return results;
}

}  // namespace tessactl
