#pragma once

#include <windows.h>

#include <chrono>
#include <cstddef>
#include <string>

namespace tessactl {

/// What came of a process that was given a limit.
struct LimitedResult {
    bool ended = false;  ///< by itself, within the limit
    DWORD exitCode = 0;
    std::string output;  ///< what it wrote to its standard output until then
    std::string errors;  ///< the same of its standard error
};

/// More of an output is not taken: a process that never stops writing waits for that until its limit.
inline constexpr std::size_t kMostOutput = 32 << 20;

/// An argument as it stands in a command line, whatever is in it.
std::wstring Quoted(const std::wstring& argument);

/// Runs this program once more with other arguments and ends that process if it takes longer than the limit:
/// a thread that waits for a partner cannot be ended without harm, a process can.
/// @throws ToolError if it cannot be started
LimitedResult RunThisProgram(const std::wstring& arguments, std::chrono::milliseconds limit);

}  // namespace tessactl
