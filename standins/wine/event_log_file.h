#pragma once

#include <windows.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// The classic event log's storage: one file for each log in %SystemRoot%\winegap, shared by all processes of
/// the machine under one lock. Records are kept as ReadEventLogW returns them. A writer that is killed leaves
/// what it had not finished outside of what the file's header tells, and the next one writes over it.
namespace wine_gap {

/// What a writer reports.
struct Event {
    std::wstring source;
    WORD type = 0;
    WORD category = 0;
    DWORD id = 0;
    std::vector<std::wstring> strings;
    std::vector<BYTE> data;
    // NOLINTNEXTLINE(readability-redundant-member-init): most leave it out, which is warned of without it
    std::vector<BYTE> sid = {};  ///< the user's; empty if there is none
};

/// A log at one moment.
struct LogState {
    DWORD generation = 0;  ///< counts how often it was cleared
    DWORD oldest = 0;      ///< number of the oldest record; 0 if there is none
    DWORD next = 1;        ///< number of the next record
    DWORD Count() const { return oldest == 0 ? 0 : next - oldest; }
};

/// Where a reader stands.
struct ReadPosition {
    DWORD generation = 0;
    bool isTaken = false;  ///< before that it is where the first read's direction begins
    ULONGLONG offset = 0;  ///< between two records, counted from the log's first one since it was cleared
};

enum class Direction { kForwards, kBackwards };

class EventLogFile {
  public:
    /// @param log e.g. L"System"
    explicit EventLogFile(const std::wstring& log);
    /// What BackUp has written, to be read only.
    static EventLogFile Backup(const std::wstring& path);

    /// Appends events. A log over its limit, the value MaxSize of its registry key or 1 MB, drops its older
    /// half.
    /// @return a system error code
    DWORD Append(const std::vector<Event>& events) const;
    /// Drops all records; numbering goes on.
    /// @param backup where they are written before, if not empty
    /// @return a system error code, after which they are still there
    DWORD Clear(const std::wstring& backup = {}) const;
    /// Writes all records into a new file.
    /// @return a system error code, ERROR_ALREADY_EXISTS if there is such a file
    DWORD BackUp(const std::wstring& path) const;
    /// @return a system error code, ERROR_EVENTLOG_FILE_CORRUPT if a backup's file is none
    DWORD CheckBackup() const;
    LogState State() const;
    /// The position from which a record is read next.
    /// @return false if there is no such record
    bool Find(DWORD number, Direction direction, ReadPosition& position) const;
    /// Reads whole records from a position on and moves it past them. Records that were dropped meanwhile are
    /// skipped.
    /// @param needed size of the next record if not even one fits
    /// @return ERROR_SUCCESS, ERROR_HANDLE_EOF, ERROR_INSUFFICIENT_BUFFER, or ERROR_EVENTLOG_FILE_CHANGED if
    ///     the log was cleared since the position was taken
    DWORD Read(ReadPosition& position, Direction direction, void* buffer, DWORD size, DWORD& read,
               DWORD& needed) const;

  private:
    EventLogFile(std::wstring log, std::wstring path) : log_(std::move(log)), path_(std::move(path)) {}

    std::wstring log_;  // empty for a backup
    std::wstring path_;
};

/// The registry key, below HKEY_LOCAL_MACHINE, that changes with every change of a log. Kernel drivers leave
/// their records in its subkey "Kernel", one value for each: error_log_record.h tells the layout.
inline constexpr wchar_t kEventLogChangesKey[] = L"SOFTWARE\\winegap\\EventLog";

}  // namespace wine_gap
