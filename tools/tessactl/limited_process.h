#pragma once

#include <windows.h>

#include <chrono>
#include <string>

namespace tessactl {

/// What came of a process that was given a limit.
struct LimitedResult {
    bool ended = false;  ///< by itself, within the limit
    DWORD exitCode = 0;
    std::string output;  ///< what it wrote to its standard output until then
};

/// A text as one argument of a command line, whatever it holds.
std::wstring Quoted(const std::wstring& text);

/// Runs this program once more with other arguments and ends that process if it takes longer than the limit:
/// a thread that waits for a partner cannot be ended without harm, a process can.
/// @throws ToolError if it cannot be started
LimitedResult RunThisProgram(const std::wstring& arguments, std::chrono::milliseconds limit);

}  // namespace tessactl
