#pragma once

#include <string>
#include <vector>

#include "exception_history.h"
#include "running_process.h"

namespace tessactl {

/// The exceptions that the plug-in of a running service threw last.
struct PlugInHistory {
    std::wstring module;
    std::vector<modul_exception::ExceptionRecord> records;  ///< oldest first
    bool isSettled = true;                                  ///< false if the newest may be half written
};

/// @throws ToolError if the module has no history, or not one that this tool can read
PlugInHistory ReadPlugInHistory(const RunningProcess& process, const RunningProcess::Module& module);

}  // namespace tessactl
