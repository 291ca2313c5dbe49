#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "unique_handle.h"

namespace tessactl {

/// One entry of an event log.
struct LogEntry {
    DWORD number = 0;  ///< of the record in its log
    DWORD time = 0;    ///< seconds since 1970 UTC
    WORD type = 0;
    DWORD eventId = 0;
    std::wstring source;
    std::vector<std::wstring> strings;
    bool operator==(const LogEntry&) const = default;
};

/// Reads the entries of one source as they come, also beyond a clearing of the log.
class EventLogFollower {
  public:
    EventLogFollower(const std::wstring& logName, const std::wstring& source);

    /// The entries that were not read yet, oldest first; the first time all that there are.
    /// @throws ToolError if the log cannot be read now; a later call goes on where this one did not
    std::vector<LogEntry> ReadNew();

  private:
    using UniqueEventLog = UniqueHandle<HANDLE, [](HANDLE log) { ::CloseEventLog(log); }>;

    void Open();
    /// @return a system error code; ERROR_HANDLE_EOF when everything was read
    DWORD ReadOnce(std::vector<LogEntry>& entries);

    std::wstring logName_;
    std::wstring source_;
    UniqueEventLog log_;
    std::vector<BYTE> buffer_;
    std::optional<LogEntry> last_;  // of any source
};

/// All entries of one source, oldest first.
/// @throws ToolError if the log cannot be read
std::vector<LogEntry> ReadEntries(const std::wstring& logName, const std::wstring& source);

/// An entry's time as people here see it.
std::string LocalTimeText(DWORD seconds);

}  // namespace tessactl
