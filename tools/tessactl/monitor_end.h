#pragma once

#include <optional>
#include <vector>

#include "event_log_entries.h"

namespace tessactl {

/// When the plug-in's monitor of the driver's errors ended before its time, seconds since 1970 UTC; nothing
/// if it did not. The monitor is a thread that cannot be seen from here: it says so in the log.
/// @param entries of the plug-in, oldest first
std::optional<DWORD> MonitorEnd(const std::vector<LogEntry>& entries);

}  // namespace tessactl
