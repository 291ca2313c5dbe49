#pragma once

#include <string>
#include <vector>

namespace tessactl {

/// Exit codes of the tool.
enum class ExitCode {
    kSuccess = 0,
    kFailed = 1,
    kUsage = 2,
    kNoRights = 5,
};

/// The arguments behind a command.
using Arguments = std::vector<std::wstring>;

/// Tells what was wrong with the arguments.
ExitCode UsageError(const std::wstring& what);

/// trace start, stop and decode.
ExitCode Trace(const Arguments& arguments);

/// Entries of the event log as sentences.
ExitCode Log(const Arguments& arguments);

}  // namespace tessactl
