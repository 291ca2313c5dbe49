#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "limited_process.h"

// Starting a process costs more than most commands: those of a report whose partner is Windows itself share
// one.
namespace tessactl {

/// Runs commands one behind the other and marks in both outputs where each ends.
/// @param commands each as it stands in a command line, e.g. L"trace status --json"
/// @param run runs the command that is told by these arguments and returns its exit code; does not throw
void RunSeveral(const std::vector<std::wstring>& commands,
                const std::function<int(const std::vector<std::wstring>& arguments)>& run);

/// Runs commands of this program in a process of their own, by its hidden command "several". One that ends
/// the process costs itself and nothing else: those behind it get another one.
/// @param limit of all of them together
/// @return for each what came of it; nothing if one before it took all the time
/// @throws ToolError if a process cannot be started
std::vector<std::optional<LimitedResult>> RunTheseCommands(const std::vector<std::wstring>& commands,
                                                           std::chrono::milliseconds limit);

}  // namespace tessactl
