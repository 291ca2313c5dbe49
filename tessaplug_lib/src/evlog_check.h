#pragma once

#include <windows.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "win_api.h"

namespace operating_system {

/// Reads the records that are appended to one classic event log, from the first read on. What is appended
/// without the log telling of it is found within five seconds.
///
/// Threads: one thread owns the object; only CancelRead may come from another.
class EventLog {
  public:
    /// @param eventSourceName name of the log, e.g. "System"; 1 to 260 characters
    /// @throws std::invalid_argument if the name is empty or too long
    explicit EventLog(
        std::wstring eventSourceName,
        std::unique_ptr<windows_api::Advapi32> advapi32 = std::make_unique<windows_api::Advapi32>(),
        std::unique_ptr<windows_api::CKernel32> kernel32 = std::make_unique<windows_api::CKernel32>());
    virtual ~EventLog();
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    /// @throws std::runtime_error if it is open
    /// @throws modul_exception::CWindowsApiExcp if Windows refuses
    /// @throws ForeignException if the event log's library raises a structured exception
    virtual void Open();
    /// The next read after it starts behind what the log holds then. Never throws.
    virtual void Close();
    /// Waits until records are appended and returns them as ReadEventLogW delivers them: EVENTLOGRECORDs back
    /// to back. Records that exist before the first call are never returned.
    /// @return empty if it was cancelled or the log could not be read; the latter is traced
    /// @throws std::runtime_error before Open
    virtual std::vector<std::byte> BlockingRead();
    /// Closes the log and opens it again, as what cannot be read any more needs it: the next read goes on
    /// behind the last record that was returned. A log that was cleared meanwhile is watched from its newest
    /// record on. Never throws.
    /// @return false if it could not be opened; the reason is traced
    virtual bool Reopen();
    /// How many reads and openings have failed since the log could last be read.
    virtual DWORD FailedReads() const;
    /// Makes a BlockingRead that waits, or the next one, return at once. Never throws.
    virtual void CancelRead();

  private:
    /// Records are numbered one after the other.
    struct Numbers {
        DWORD oldest = 0;
        DWORD count = 0;
        DWORD Newest() const { return oldest + count - 1; }
    };

    void CreateEvents();
    void Cleanup();
    Numbers GetNumbers(HANDLE hEventLog) const;
    DWORD GetLastRecordNumber(HANDLE hEventLog, Numbers& numbers) const;
    DWORD NextNumber(const Numbers& numbers) const;
    void ReadRecord(HANDLE hEventLog, std::vector<std::byte>& buffer, DWORD recordOffset, DWORD readFlags);
    bool ReadOnce(HANDLE hEventLog, std::vector<std::byte>& buffer, DWORD recordOffset, DWORD readFlags);
    void HandleCleanupOfEventLog();
    void SeekToLastRecord();
    void RegisterForEventLogChangeNotification();
    bool WaitForChangesInEventLog();
    void ReadNewRecords(std::vector<std::byte>& buffer);
    void ReadBehindLastRecord(HANDLE hEventLog, std::vector<std::byte>& buffer);
    bool TryReadFrom(HANDLE hEventLog, DWORD number, DWORD newest, std::vector<std::byte>& buffer);
    bool IsReadable(HANDLE hEventLog, DWORD number);
    void TakePosition();
    void WaitAndRead(std::vector<std::byte>& buffer);

    enum EventIndex { kCancel = 0, kNotification = 1, kEventCount = 2 };

    HANDLE hEventLog_ = nullptr;
    HANDLE events_[kEventCount] = {};
    std::wstring eventSourceName_;
    bool seekRequired_ = true;
    DWORD lastRecordNumber_ = 0;       // of the last record that is not to be returned (again)
    DWORD oldestRecordNumber_ = 0;     // as last seen; it falls only if the log is cleared
    bool isNumberKnown_ = false;       // whether a log that is opened again is read on by number
    bool isPositionByNumber_ = false;  // whether the log's own read position is not where it should be
    bool mayHoldMore_ = false;         // whether the last read has not come to the log's end
    DWORD failedReads_ = 0;
    std::unique_ptr<windows_api::Advapi32> advapi32_;
    std::unique_ptr<windows_api::CKernel32> kernel32_;
};

/// A copy of one record of the classic event log. No operation reads outside of it, whatever its fields say.
class EventLogRecord {
  public:
    /// @param RawEventLogRecord its Length bytes are copied
    /// @throws std::invalid_argument if it is null, or its Length is 0 or above 65536
    explicit EventLogRecord(const EVENTLOGRECORD* RawEventLogRecord);
    /// The same, with the memory of a record that nobody needs any more: of a flood only the first one asks
    /// for some.
    EventLogRecord(const EVENTLOGRECORD* RawEventLogRecord, std::vector<std::byte> memory);
    virtual ~EventLogRecord() = default;
    /// For the next record. This one is not used any more.
    std::vector<std::byte> TakeMemory() { return std::move(rawData_); }

    /// The fixed fields; null if the record is shorter than they are.
    const EVENTLOGRECORD* GetEventLogPtr() const;
    DWORD GetMessageId() const;
    WORD GetType() const;
    WORD GetNumberOfStrings() const;
    /// The first insertion string; null if it lies outside of the record.
    const wchar_t* GetVariableStringArray() const;
    /// How many of the insertion strings lie inside the record, with their terminating zeros.
    WORD GetNumberOfSoundStrings() const;
    /// Empty if it does not end within the record.
    std::wstring GetSourceName() const;
    /// The same, not copied: valid as long as the record.
    std::wstring_view SourceName() const;
    /// TimeGenerated in local time, "day.month.year hh:mm:ss".
    /// @throws modul_exception::CWindowsApiExcp if it cannot be converted
    std::wstring GetTimeStampFromRecord() const;
    const wchar_t* GetEventTypeName() const;
    /// The fixed fields on one line, for traces.
    /// @throws modul_exception::CWindowsApiExcp if the time cannot be converted
    std::wstring Print() const;

  private:
    std::size_t GetDataPosition() const;

    std::vector<std::byte> rawData_;
};

/// What a filter makes of a record.
struct UserMessage {
    DWORD severity = 0;  ///< 1 information, 2 warning, 3 error, 4 audit, 0 invalid
    std::wstring message;
    std::wstring source;
};

class EventLogFilterIf {
  public:
    virtual ~EventLogFilterIf() = default;
    /// Whether the record is this filter's.
    virtual bool Validate(const EventLogRecord& record) = 0;
    virtual UserMessage CreateMessageFrom(const EventLogRecord& record) = 0;
};

using FilterChain = std::vector<std::shared_ptr<EventLogFilterIf>>;

/// Takes a buffer of records apart and lets a chain of filters look at each.
class EventRecordParser {
  public:
    /// @throws std::invalid_argument if there is no chain
    explicit EventRecordParser(std::shared_ptr<FilterChain> filterChain);
    virtual ~EventRecordParser() = default;

    /// @param rawBuffer records back to back, as EventLog::BlockingRead returns them
    /// @param messages replaced by what the filters made; left alone if the buffer is empty
    /// @throws std::invalid_argument at a record whose length is 0 or above 65536
    virtual void Process(const std::vector<std::byte>& rawBuffer, std::vector<UserMessage>& messages);

  private:
    void TraverseFilterChain(const EventLogRecord& record, std::vector<UserMessage>& messages);

    std::shared_ptr<FilterChain> filterChain_;
};

/// The texts of a message file.
class MessageRessource {
  public:
    /// @param fileName full path, 1 to 260 characters; not loaded yet
    /// @throws std::invalid_argument if it is empty or too long
    explicit MessageRessource(std::wstring fileName);
    virtual ~MessageRessource();
    MessageRessource(const MessageRessource&) = delete;
    MessageRessource& operator=(const MessageRessource&) = delete;

    /// @throws std::runtime_error if it is open
    /// @throws modul_exception::CWindowsApiExcp if the file cannot be loaded
    virtual void Open();
    /// Never throws.
    virtual void Close();
    /// @param argv argc zero-terminated strings back to back; at most 98 are used
    /// @return "ERROR: NO STRING FOR EVENT ID" if the file has no such message
    /// @throws std::runtime_error before Open
    /// @throws std::invalid_argument if argv is null although argc is not 0
    /// @throws ForeignException if the file is of a kind that makes Windows raise a structured exception
    virtual std::wstring ReadMessage(DWORD messageId, DWORD argc, const wchar_t* argv);

  private:
    std::wstring evMsgFileName_;
    HMODULE module_ = nullptr;
};

/// The records of the Fennlink U3's driver.
class Fenlu3 : public EventLogFilterIf {
  public:
    /// @param messages the driver's own file by default
    explicit Fenlu3(std::unique_ptr<MessageRessource> messages = DriverMessages());

    bool Validate(const EventLogRecord& record) override;
    /// @throws modul_exception::CWindowsApiExcp if the driver's file cannot be loaded
    UserMessage CreateMessageFrom(const EventLogRecord& record) override;

  private:
    static std::unique_ptr<MessageRessource> DriverMessages();

    std::unique_ptr<MessageRessource> messages_;
};

}  // namespace operating_system
