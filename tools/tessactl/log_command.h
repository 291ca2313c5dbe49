#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "commands.h"
#include "log_filter.h"

namespace tessactl {

/// What is to be shown of an event log.
struct LogRequest {
    std::wstring logName = L"Application";
    std::wstring source = L"tessaplug";
    LogFilter filter;
    std::optional<ULONG> count;  ///< the last of those that are there; nothing: all
    bool json = false;
    bool follow = false;  ///< also what is written from now on
    ULONG seconds = 0;    ///< for how long it is followed; 0: without end
};

/// @throws ToolError if the log cannot be read
ExitCode ShowLog(const LogRequest& request);

}  // namespace tessactl
