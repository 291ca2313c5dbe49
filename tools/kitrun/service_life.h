#pragma once

#include <functional>
#include <string>
#include <vector>

#include "test_process.h"

namespace kitrun {

/// One command of the service's life, and what came of it.
struct LifeStep {
    std::string command;
    bool isRight = false;  ///< it ended as it should and said what it should
    ProcessResult result;
};

/// The service on this machine: a station of the stand-ins, the service installed, started, looked at,
/// stopped and removed, with a recording of its trace. Each step is taken, also after one that failed: what
/// doctor says of a service that does not start is worth having, and the removal comes last.
/// @param programs the kit's programs, with a backslash at its end
/// @param recording where the trace is recorded; the file is removed
/// @param told is called after each step
std::vector<LifeStep> LiveOnce(const std::wstring& programs, const std::wstring& recording,
                               const std::function<void(const LifeStep&)>& told);

}  // namespace kitrun
