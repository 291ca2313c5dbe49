#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "event_log_entries.h"

namespace tessactl {

/// Which entries are shown.
struct LogFilter {
    DWORD since = 0;                         ///< seconds since 1970 UTC
    WORD level = EVENTLOG_INFORMATION_TYPE;  ///< the least grave that is shown: error, warning, information
    bool Passes(const LogEntry& entry) const;
};

/// "error", "warning" or "information"; "other" for all else, which counts as information.
const char* TypeName(WORD type);

/// The type of one of the first three names.
std::optional<WORD> TypeNamed(const std::wstring& name);

/// A time as people give it: "2026-11-21", "2026-11-21T10:11" or with seconds, local, or UTC with a Z behind
/// it; or how long ago: "90s", "10m", "2h", "3d".
/// @param now seconds since 1970 UTC, as the result
std::optional<DWORD> ParseSince(const std::wstring& text, DWORD now);

/// What passes the filter, of that the last `count`, if a count is given.
std::vector<LogEntry> Filtered(std::vector<LogEntry> entries, const LogFilter& filter,
                               std::optional<ULONG> count = std::nullopt);

}  // namespace tessactl
