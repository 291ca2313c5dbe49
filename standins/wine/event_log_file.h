#pragma once

#include <windows.h>

#include <cstddef>
#include <string>
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
    ULONGLONG offset = 0;  ///< of the next record, counted from the log's first one ever
};

class EventLogFile {
  public:
    /// @param log e.g. L"System"
    explicit EventLogFile(std::wstring log) : log_(std::move(log)) {}

    /// Appends events. A log over its limit, the value MaxSize of its registry key or 1 MB, drops its older
    /// half.
    /// @return a system error code
    DWORD Append(const std::vector<Event>& events) const;
    /// Drops all records; numbering starts again at 1.
    DWORD Clear() const;
    LogState State() const;
    /// The position in front of the oldest record.
    ReadPosition Start() const;
    /// The position in front of a record.
    /// @return false if there is no such record
    bool Find(DWORD number, ReadPosition& position) const;
    /// Reads whole records from a position and moves it behind them. Records that were dropped meanwhile are
    /// skipped.
    /// @param needed size of the next record if not even one fits
    /// @return ERROR_SUCCESS, ERROR_HANDLE_EOF, ERROR_INSUFFICIENT_BUFFER, or ERROR_EVENTLOG_FILE_CHANGED if
    ///     the log was cleared since the position was taken
    DWORD Read(ReadPosition& position, void* buffer, DWORD size, DWORD& read, DWORD& needed) const;

  private:
    std::wstring log_;
};

/// The registry key, below HKEY_LOCAL_MACHINE, that changes with every change of a log. Kernel drivers leave
/// their records in its subkey "Kernel", one value for each: error_log_record.h tells the layout.
inline constexpr wchar_t kEventLogChangesKey[] = L"SOFTWARE\\winegap\\EventLog";

}  // namespace wine_gap
