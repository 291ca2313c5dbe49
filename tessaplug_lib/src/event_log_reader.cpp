#include <algorithm>
#include <atomic>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "evlog_check.h"
#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "structured_exception.h"
#include "trace_point.h"
#include "windows_api_excp.h"

// The path of the whole family: service staff know its assertions by it.
TRACE_SOURCE("tessaplug_lib\\src\\evlog_check", "6d2a91c4-0e7b-4f38-8a5d-b3c1f4e70926", trace::kModule);

using modul_exception::CWindowsApiExcp;

namespace operating_system {
namespace {

constexpr std::size_t MAX_PROVIDER_NAME_LEN = 260;
constexpr std::size_t kMinBufferSize = 512;
constexpr std::size_t kNewRecordsBufferSize = 0x10000;
constexpr DWORD MAX_RECORD_BUFFER_SIZE_IN_KB = 1024;
constexpr DWORD kEmptyLog = 0xFFFFFFFF;  // number of the newest record of a log without records
constexpr std::size_t kLargestDocumentedBuffer = 0x7FFFF;
constexpr DWORD kLongestWaitMs = 5000;
constexpr DWORD kSeek = EVENTLOG_SEEK_READ | EVENTLOG_FORWARDS_READ;
constexpr DWORD kSequential = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ;

/// Whether a record's number lies before another's. Numbers count on from 0 after 0xFFFFFFFF, and the newest
/// of a log that never had a record is 0xFFFFFFFF.
bool IsBefore(DWORD number, DWORD other) {
    FUNCTION_TRACE();
    return static_cast<LONG>(number - other) < 0;
}

/// The number of the last whole record in a buffer of them; `otherwise` if there is none.
DWORD LastNumberIn(const std::vector<std::byte>& buffer, DWORD otherwise) {
    FUNCTION_TRACE();
    std::size_t position = 0;
    EVENTLOGRECORD header = {};
    while (buffer.size() - position >= sizeof header) {
        std::memcpy(&header, buffer.data() + position, sizeof header);
        if (header.Length < sizeof header || header.Length > buffer.size() - position) break;
        otherwise = header.RecordNumber;
        position += header.Length;
    }
    return otherwise;
}

/// Whether a failed read met a record that is longer than the reader's limit, or needs a buffer larger than
/// ReadEventLogW is documented to take: that one is refused as a parameter, or by the call to the service.
bool IsRecordTooLong(DWORD error, std::size_t bufferSize, DWORD bytesNeeded) {
    FUNCTION_TRACE();
    switch (error) {
        case ERROR_INSUFFICIENT_BUFFER:
            return bytesNeeded > MAX_RECORD_BUFFER_SIZE_IN_KB * 1024;
        case ERROR_INVALID_PARAMETER:
        case RPC_S_INVALID_BOUND:
        case RPC_X_BAD_STUB_DATA:
            return bufferSize > kLargestDocumentedBuffer;
        default:
            return false;
    }
}

}  // namespace

EventLog::EventLog(std::wstring eventSourceName, std::unique_ptr<windows_api::Advapi32> advapi32,
                   std::unique_ptr<windows_api::CKernel32> kernel32)
    : eventSourceName_(std::move(eventSourceName)),
      advapi32_(std::move(advapi32)),
      kernel32_(std::move(kernel32)) {
    FUNCTION_TRACE();
    if (eventSourceName_.empty()) MODUL_THROW(std::invalid_argument("EventSourceName name is EMPTY"));
    if (eventSourceName_.length() > MAX_PROVIDER_NAME_LEN)
        MODUL_THROW(std::invalid_argument("EventSourceName name is GT MAX_PROVIDER_NAME_LEN"));
}

EventLog::~EventLog() {
    FUNCTION_TRACE();
    Cleanup();
}

void EventLog::Cleanup() {
    FUNCTION_TRACE();
    EventLog::Close();
    for (HANDLE& event : events_) {
        if (event != nullptr && !kernel32_->CloseHandle(event))
            TRACE_WARNING(10, "CloseHandle(%p) failed, LE(%u)", event, ::GetLastError());
        event = nullptr;
    }
}

void EventLog::CreateEvents() {
    FUNCTION_TRACE();
    for (const EventIndex index : {kCancel, kNotification}) {
        if (events_[index] != nullptr) continue;
        const BOOL manualReset = index == kNotification;
        std::atomic_ref(events_[index]).store(kernel32_->CreateEventW(nullptr, manualReset, FALSE, nullptr));
        // One text for both events: it is what service staff know.
        if (events_[index] == nullptr)
            MODUL_THROW(CWindowsApiExcp("CreateEventW(CANCEL_EVENT)", "Insufficient rights?"));
    }
}

void EventLog::Open() {
    FUNCTION_TRACE();
    MODUL_ASSERT(!eventSourceName_.empty());
    if (hEventLog_ != nullptr) MODUL_THROW(std::runtime_error("Eventlog already opened"));
    CreateEvents();
    hEventLog_ = CallForeign([this] { return advapi32_->OpenEventLogW(nullptr, eventSourceName_.c_str()); });
    if (hEventLog_ == nullptr) MODUL_THROW(CWindowsApiExcp("OpenEventLogW() on EventSouce FAILED!", ""));
    TRACE_INFO(11, "Log %S opened", eventSourceName_);
}

void EventLog::Close() {
    FUNCTION_TRACE();
    MODUL_ASSERT(!eventSourceName_.empty());
    BOOL closed = TRUE;
    auto close = [&] { closed = advapi32_->CloseEventLog(hEventLog_); };
    const DWORD raised = hEventLog_ != nullptr ? CallGuarded(close) : 0;
    if (raised != 0 || !closed)
        TRACE_WARNING(12, "CloseEventLog(%S) failed, LE(%u), raised 0x%x", eventSourceName_, ::GetLastError(),
                      raised);
    hEventLog_ = nullptr;
    seekRequired_ = true;
    isNumberKnown_ = false;
    mayHoldMore_ = false;
}

bool EventLog::Reopen() {
    FUNCTION_TRACE();
    const bool isNumberKnown = isNumberKnown_;
    Close();
    isNumberKnown_ = isNumberKnown;
    try {
        Open();
        return true;
    } catch (const std::exception& error) {
        TRACE_ERROR(27, "Opening %S again: %s", eventSourceName_, error.what());
    } catch (...) {
        TRACE_ERROR(28, "Opening %S again: unknown exception", eventSourceName_);
    }
    ++failedReads_;
    return false;
}

DWORD EventLog::FailedReads() const {
    FUNCTION_TRACE();
    return failedReads_;
}

EventLog::Numbers EventLog::GetNumbers(HANDLE hEventLog) const {
    FUNCTION_TRACE();
    Numbers numbers;
    if (!CallForeign([&] { return advapi32_->GetOldestEventLogRecord(hEventLog, &numbers.oldest); }))
        MODUL_THROW(CWindowsApiExcp("GetOldestEventLogRecord", ""));
    if (!CallForeign([&] { return advapi32_->GetNumberOfEventLogRecords(hEventLog, &numbers.count); }))
        MODUL_THROW(CWindowsApiExcp("GetNumberOfEventLogRecords", ""));
    return numbers;
}

DWORD EventLog::GetLastRecordNumber(HANDLE hEventLog, Numbers& numbers) const {
    FUNCTION_TRACE();
    MODUL_ASSERT(hEventLog != NULL);
    numbers = GetNumbers(hEventLog);
    const DWORD last = numbers.Newest();
    if (numbers.count == 0 || last == kEmptyLog) TRACE_INFO(13, "Log %S is empty", eventSourceName_);
    return last;
}

void EventLog::ReadRecord(HANDLE hEventLog, std::vector<std::byte>& buffer, DWORD recordOffset,
                          DWORD readFlags) {
    FUNCTION_TRACE();
    MODUL_ASSERT(hEventLog != NULL);
    if (buffer.capacity() < kMinBufferSize) {
        TRACE_INFO(14, "Buffer of %llu bytes is too small", buffer.capacity());
        buffer.assign(kMinBufferSize, std::byte{});
    }
    while (!ReadOnce(hEventLog, buffer, recordOffset, readFlags))
        continue;
    TRACE_VERBOSE(15, "%llu bytes read", buffer.size());
}

/// @return false if the buffer was too small; it has grown then
bool EventLog::ReadOnce(HANDLE hEventLog, std::vector<std::byte>& buffer, DWORD recordOffset,
                        DWORD readFlags) {
    FUNCTION_TRACE();
    DWORD bytesRead = 0;
    DWORD minNumberOfBytesNeeded = 0;
    if (CallForeign([&] {
            return advapi32_->ReadEventLogW(hEventLog, readFlags, recordOffset, buffer.data(),
                                            static_cast<DWORD>(buffer.size()), &bytesRead,
                                            &minNumberOfBytesNeeded);
        })) {
        buffer.resize(bytesRead);
        return true;
    }
    const DWORD error = ::GetLastError();
    const bool isTooLong = IsRecordTooLong(error, buffer.size(), minNumberOfBytesNeeded);
    switch (error) {
        case ERROR_INSUFFICIENT_BUFFER:
            TRACE_INFO(16, "Buffer of %llu bytes, %u are needed", buffer.size(), minNumberOfBytesNeeded);
            // Asked again with no more room, the log would answer the same for ever.
            if (isTooLong || minNumberOfBytesNeeded <= buffer.size()) break;
            buffer.resize(minNumberOfBytesNeeded);
            return false;
        case ERROR_HANDLE_EOF:
            TRACE_INFO(17, "No new records");
            buffer.clear();
            return true;
        case ERROR_EVENTLOG_FILE_CHANGED:
            TRACE_WARNING(18, "Log %S was cleared", eventSourceName_);
            buffer.clear();
            HandleCleanupOfEventLog();
            return true;
        default:
            break;
    }
    buffer.clear();
    if (isTooLong)
        MODUL_THROW(std::overflow_error("Record Buffer reached limit MAX_RECORD_BUFFER_SIZE_IN_KB"));
    MODUL_THROW(std::runtime_error("ReadEventLogW() FAILED! LE=" + std::to_string(error)));
}

void EventLog::HandleCleanupOfEventLog() {
    FUNCTION_TRACE();
    Close();
    Open();
}

void EventLog::SeekToLastRecord() {
    FUNCTION_TRACE();
    Numbers numbers;
    lastRecordNumber_ = GetLastRecordNumber(hEventLog_, numbers);
    oldestRecordNumber_ = numbers.oldest;
    isPositionByNumber_ = false;
    // Emptied, not cleared: numbers go on. The read position is in front of the record to come.
    if (numbers.count == 0 && lastRecordNumber_ != kEmptyLog) return;
    std::vector<std::byte> scratch;
    try {
        ReadRecord(hEventLog_, scratch, lastRecordNumber_, kSeek);
    } catch (const std::overflow_error&) {
        TRACE_WARNING(29, "Record %u is too long to be read: going on behind it", lastRecordNumber_);
        isPositionByNumber_ = true;
    } catch (const std::runtime_error& error) {
        // A log without records has none to be read: the read position is where it should be.
        if (numbers.count != 0) throw;
        TRACE_INFO(19, "Nothing to seek: %s", error.what());
    }
}

void EventLog::RegisterForEventLogChangeNotification() {
    FUNCTION_TRACE();
    const HANDLE hEventLog = hEventLog_;
    MODUL_ASSERT(hEventLog != NULL);
    if (!CallForeign([&] { return advapi32_->NotifyChangeEventLog(hEventLog, events_[kNotification]); }))
        MODUL_THROW(CWindowsApiExcp("NotifyChangeEventLog()", ""));
}

bool EventLog::WaitForChangesInEventLog() {
    FUNCTION_TRACE();
    switch (kernel32_->WaitForMultipleObjects(kEventCount, events_, FALSE, kLongestWaitMs)) {
        case WAIT_OBJECT_0 + kCancel:
            TRACE_INFO(20, "Reading %S is cancelled", eventSourceName_);
            return false;
        case WAIT_OBJECT_0 + kNotification:
            TRACE_INFO(21, "Log %S has changed", eventSourceName_);
            return true;
        case WAIT_TIMEOUT:
            // Windows pulses the event, and at most once in five seconds: what is written in between is not
            // told. The wait is as long, so that it is found in the time in which it might have been.
            TRACE_VERBOSE(30, "Log %S has not told of a change", eventSourceName_);
            return true;
        default:
            MODUL_THROW(std::runtime_error("FAILED! WaitForMultipleObjects() LE(" +
                                           std::to_string(::GetLastError()) + ")"));
    }
}

void EventLog::ReadNewRecords(std::vector<std::byte>& buffer) {
    FUNCTION_TRACE();
    const HANDLE hEventLog = hEventLog_;
    MODUL_ASSERT(hEventLog != NULL);
    buffer.resize(kNewRecordsBufferSize);
    try {
        if (isPositionByNumber_)
            ReadBehindLastRecord(hEventLog, buffer);
        else
            ReadRecord(hEventLog, buffer, 0, kSequential);
    } catch (const std::overflow_error&) {
        // Sequentially it would be met again at every read.
        lastRecordNumber_ = NextNumber(GetNumbers(hEventLog));
        isPositionByNumber_ = true;
        TRACE_WARNING(31, "Record %u is too long to be read: going on behind it", lastRecordNumber_);
        throw;
    }
    lastRecordNumber_ = LastNumberIn(buffer, lastRecordNumber_);
    mayHoldMore_ = !buffer.empty();
    if (!buffer.empty()) failedReads_ = 0;
}

/// The number of the record behind the last one, or of the oldest if the log has dropped that one meanwhile.
DWORD EventLog::NextNumber(const Numbers& numbers) const {
    FUNCTION_TRACE();
    const DWORD next = lastRecordNumber_ + 1;
    return IsBefore(next, numbers.oldest) ? numbers.oldest : next;
}

void EventLog::ReadBehindLastRecord(HANDLE hEventLog, std::vector<std::byte>& buffer) {
    FUNCTION_TRACE();
    const Numbers numbers = GetNumbers(hEventLog);
    const DWORD newest = numbers.Newest();
    const bool wasCleared =
        IsBefore(newest, lastRecordNumber_) || IsBefore(numbers.oldest, oldestRecordNumber_);
    if (numbers.count != 0 && wasCleared) {
        TRACE_WARNING(32, "Log %S was cleared, its newest record is %u", eventSourceName_, newest);
        buffer.clear();
        SeekToLastRecord();
        return;
    }
    oldestRecordNumber_ = numbers.oldest;
    // Of a log that was emptied every record to come is new, whatever its number.
    if (numbers.count == 0) lastRecordNumber_ = newest;
    if (lastRecordNumber_ == newest) {
        TRACE_VERBOSE(33, "Nothing behind record %u", newest);
        buffer.clear();
        return;
    }
    for (DWORD number = NextNumber(numbers); !TryReadFrom(hEventLog, number, newest, buffer); ++number)
        lastRecordNumber_ = number;
    isPositionByNumber_ = false;
}

/// @return false if this record cannot be read although the newest can: the log works, the record is damaged
bool EventLog::TryReadFrom(HANDLE hEventLog, DWORD number, DWORD newest, std::vector<std::byte>& buffer) {
    FUNCTION_TRACE();
    try {
        buffer.resize(kNewRecordsBufferSize);
        ReadRecord(hEventLog, buffer, number, kSeek);
        return true;
    } catch (const std::overflow_error&) {
        throw;
    } catch (const std::runtime_error& error) {
        if (number == newest || !IsReadable(hEventLog, newest)) throw;
        TRACE_WARNING(34, "Record %u is passed over: %s", number, error.what());
        return false;
    }
}

bool EventLog::IsReadable(HANDLE hEventLog, DWORD number) {
    FUNCTION_TRACE();
    std::vector<std::byte> scratch;
    try {
        ReadRecord(hEventLog, scratch, number, kSeek);
        return !scratch.empty();
    } catch (const std::runtime_error& error) {
        TRACE_INFO(35, "Record %u: %s", number, error.what());
        return false;
    }
}

std::vector<std::byte> EventLog::BlockingRead() {
    FUNCTION_TRACE();
    MODUL_ASSERT(!eventSourceName_.empty());
    if (hEventLog_ == nullptr) MODUL_THROW(std::runtime_error("Invalid sequence -> open first"));
    std::vector<std::byte> buffer;
    try {
        WaitAndRead(buffer);
        return buffer;
    } catch (const std::exception& error) {
        TRACE_ERROR(22, "Reading %S: %s", eventSourceName_, error.what());
    } catch (...) {
        TRACE_ERROR(23, "Reading %S: unknown exception", eventSourceName_);
    }
    ++failedReads_;
    return buffer;
}

void EventLog::TakePosition() {
    FUNCTION_TRACE();
    if (isNumberKnown_)
        isPositionByNumber_ = mayHoldMore_ = true;
    else
        SeekToLastRecord();
    RegisterForEventLogChangeNotification();
    isNumberKnown_ = true;
    seekRequired_ = false;
}

void EventLog::WaitAndRead(std::vector<std::byte>& buffer) {
    FUNCTION_TRACE();
    for (;;) {
        // At the first read, and after the log was opened again: its notification went with the handle.
        if (seekRequired_) TakePosition();
        // What was written while nobody waited has pulsed the event in vain.
        if (mayHoldMore_) ReadNewRecords(buffer);
        if (!buffer.empty()) return;
        if (seekRequired_) continue;
        if (!WaitForChangesInEventLog()) return;
        TRACE_INFO(24, "Reading the new records of %S", eventSourceName_);
        ReadNewRecords(buffer);
        if (!buffer.empty()) return;
        // Only now, so that a burst is read completely first.
        TRACE_INFO(25, "Log %S is read completely", eventSourceName_);
        if (!kernel32_->ResetEvent(events_[kNotification]))
            MODUL_THROW(CWindowsApiExcp("ResetEvent(NOTIFICATION_EVENT)", ""));
        // A record that came in between has lost its notification. A log that was opened again has another
        // one.
        if (!seekRequired_) ReadNewRecords(buffer);
        if (!buffer.empty()) return;
        failedReads_ = 0;
    }
}

void EventLog::CancelRead() {
    FUNCTION_TRACE();
    // It may just be made, on the thread that opens the log.
    const HANDLE cancel = std::atomic_ref(events_[kCancel]).load();
    if (cancel != nullptr && !kernel32_->SetEvent(cancel))
        TRACE_ERROR(26, "SetEvent(CANCEL_EVENT) failed, LE(%u)", ::GetLastError());
}

}  // namespace operating_system
