#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace tessactl {

/// One entry of an event log.
struct LogEntry {
    DWORD time = 0;  ///< seconds since 1970 UTC
    WORD type = 0;
    DWORD eventId = 0;
    std::wstring source;
    std::vector<std::wstring> strings;
};

/// All entries of one source, oldest first.
/// @throws ToolError if the log cannot be read
std::vector<LogEntry> ReadEntries(const std::wstring& logName, const std::wstring& source);

/// An entry's time as people here see it.
std::string LocalTimeText(DWORD seconds);

}  // namespace tessactl
