#include "evlog_check.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "toolbox.h"
#include "trace_point.h"
#include "win_convenience.h"
#include "windows_api_excp.h"

TRACE_SOURCE("tessaplug_lib\\src\\evlog_check", "0f4b7d21-c6a8-4e5d-9b30-5d1e8a7c3f46", trace::kModule);

using modul_exception::CWindowsApiExcp;

namespace operating_system {
namespace {

constexpr std::size_t MAX_PROVIDER_NAME_LEN = 260;
constexpr std::size_t kMinBufferSize = 512;
constexpr std::size_t kNewRecordsBufferSize = 0x10000;
constexpr DWORD MAX_RECORD_BUFFER_SIZE_IN_KB = 1024;
constexpr DWORD kMaxRecordLength = 0x10000;
constexpr DWORD kEmptyLog = 0xFFFFFFFF;  // number of the newest record of a log without records

/// Length of the zero-terminated text at `data`, with its zero, in characters; 0 if it does not end within
/// `size` bytes.
std::size_t LengthWithZero(const std::byte* data, std::size_t size) {
    FUNCTION_TRACE();
    const auto* text = reinterpret_cast<const wchar_t*>(data);
    const std::size_t capacity = size / sizeof(wchar_t);
    const std::size_t length = ::wcsnlen(text, capacity);
    return length < capacity ? length + 1 : 0;
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
        events_[index] = kernel32_->CreateEventW(nullptr, manualReset, FALSE, nullptr);
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
    hEventLog_ = advapi32_->OpenEventLogW(nullptr, eventSourceName_.c_str());
    if (hEventLog_ == nullptr) MODUL_THROW(CWindowsApiExcp("OpenEventLogW() on EventSouce FAILED!", ""));
    TRACE_INFO(11, "Log %S opened", eventSourceName_);
}

void EventLog::Close() {
    FUNCTION_TRACE();
    MODUL_ASSERT(!eventSourceName_.empty());
    if (hEventLog_ != nullptr && !advapi32_->CloseEventLog(hEventLog_))
        TRACE_WARNING(12, "CloseEventLog(%S) failed, LE(%u)", eventSourceName_, ::GetLastError());
    hEventLog_ = nullptr;
    seekRequired_ = true;
}

DWORD EventLog::GetLastRecordNumber(HANDLE hEventLog) const {
    FUNCTION_TRACE();
    MODUL_ASSERT(hEventLog != NULL);
    DWORD oldest = 0;
    DWORD count = 0;
    if (!advapi32_->GetOldestEventLogRecord(hEventLog, &oldest))
        MODUL_THROW(CWindowsApiExcp("GetOldestEventLogRecord", ""));
    if (!advapi32_->GetNumberOfEventLogRecords(hEventLog, &count))
        MODUL_THROW(CWindowsApiExcp("GetNumberOfEventLogRecords", ""));
    const DWORD last = oldest + count - 1;
    if (last == kEmptyLog) TRACE_INFO(13, "Log %S is empty", eventSourceName_);
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
    if (advapi32_->ReadEventLogW(hEventLog, readFlags, recordOffset, buffer.data(),
                                 static_cast<DWORD>(buffer.size()), &bytesRead, &minNumberOfBytesNeeded)) {
        buffer.resize(bytesRead);
        return true;
    }
    const DWORD error = ::GetLastError();
    switch (error) {
        case ERROR_INSUFFICIENT_BUFFER:
            TRACE_INFO(16, "Buffer of %llu bytes, %u are needed", buffer.size(), minNumberOfBytesNeeded);
            if (minNumberOfBytesNeeded > MAX_RECORD_BUFFER_SIZE_IN_KB * 1024) {
                buffer.clear();
                MODUL_THROW(std::overflow_error("Record Buffer reached limit MAX_RECORD_BUFFER_SIZE_IN_KB"));
            }
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
            buffer.clear();
            MODUL_THROW(std::runtime_error("ReadEventLogW() FAILED! LE=" + std::to_string(error)));
    }
}

void EventLog::HandleCleanupOfEventLog() {
    FUNCTION_TRACE();
    Close();
    Open();
}

void EventLog::SeekToLastRecord() {
    FUNCTION_TRACE();
    lastRecordNumber_ = GetLastRecordNumber(hEventLog_);
    std::vector<std::byte> scratch;
    try {
        ReadRecord(hEventLog_, scratch, lastRecordNumber_, EVENTLOG_SEEK_READ | EVENTLOG_FORWARDS_READ);
    } catch (const std::runtime_error& error) {
        // A log without records has none to be read: the read position is where it should be.
        if (lastRecordNumber_ != kEmptyLog) throw;
        TRACE_INFO(19, "Nothing to seek: %s", error.what());
    }
}

void EventLog::RegisterForEventLogChangeNotification() {
    FUNCTION_TRACE();
    const HANDLE hEventLog = hEventLog_;
    MODUL_ASSERT(hEventLog != NULL);
    if (!advapi32_->NotifyChangeEventLog(hEventLog, events_[kNotification]))
        MODUL_THROW(CWindowsApiExcp("NotifyChangeEventLog()", ""));
}

bool EventLog::WaitForChangesInEventLog() {
    FUNCTION_TRACE();
    switch (kernel32_->WaitForMultipleObjects(kEventCount, events_, FALSE, INFINITE)) {
        case WAIT_OBJECT_0 + kCancel:
            TRACE_INFO(20, "Reading %S is cancelled", eventSourceName_);
            return false;
        case WAIT_OBJECT_0 + kNotification:
            TRACE_INFO(21, "Log %S has changed", eventSourceName_);
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
        ReadRecord(hEventLog, buffer, 0, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ);
    } catch (const std::overflow_error&) {
        // The read position would stay before the record that is too long, and no later one be seen.
        HandleCleanupOfEventLog();
        throw;
    }
}

std::vector<std::byte> EventLog::BlockingRead() {
    FUNCTION_TRACE();
    MODUL_ASSERT(!eventSourceName_.empty());
    if (hEventLog_ == nullptr) MODUL_THROW(std::runtime_error("Invalid sequence -> open first"));
    std::vector<std::byte> buffer;
    try {
        WaitAndRead(buffer);
    } catch (const std::exception& error) {
        TRACE_ERROR(22, "Reading %S: %s", eventSourceName_, error.what());
    } catch (...) {
        TRACE_ERROR(23, "Reading %S: unknown exception", eventSourceName_);
    }
    return buffer;
}

void EventLog::WaitAndRead(std::vector<std::byte>& buffer) {
    FUNCTION_TRACE();
    for (;;) {
        // At the first read, and after a cleared log was opened again: its notification went with the handle.
        if (seekRequired_) {
            SeekToLastRecord();
            RegisterForEventLogChangeNotification();
            seekRequired_ = false;
        }
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
    }
}

void EventLog::CancelRead() {
    FUNCTION_TRACE();
    if (events_[kCancel] != nullptr && !kernel32_->SetEvent(events_[kCancel]))
        TRACE_ERROR(26, "SetEvent(CANCEL_EVENT) failed, LE(%u)", ::GetLastError());
}

EventLogRecord::EventLogRecord(const EVENTLOGRECORD* RawEventLogRecord) {
    FUNCTION_TRACE();
    if (RawEventLogRecord == nullptr)
        MODUL_THROW(std::invalid_argument("Pointer to RawEventLogRecord is NULL"));
    if (RawEventLogRecord->Length == 0) MODUL_THROW(std::invalid_argument("EVENTLOGRECORD Length is 0"));
    if (RawEventLogRecord->Length > kMaxRecordLength)
        MODUL_THROW(std::invalid_argument("EVENTLOGRECORD Length is > 64Kb! Really?"));
    const auto* bytes = reinterpret_cast<const std::byte*>(RawEventLogRecord);
    rawData_.assign(bytes, bytes + RawEventLogRecord->Length);
    MODUL_ASSERT(rawData_.size() == RawEventLogRecord->Length);
}

const EVENTLOGRECORD* EventLogRecord::GetEventLogPtr() const {
    FUNCTION_TRACE();
    MODUL_ASSERT(rawData_.size() >= sizeof(EVENTLOGRECORD));
    return rawData_.size() >= sizeof(EVENTLOGRECORD)
               ? reinterpret_cast<const EVENTLOGRECORD*>(rawData_.data())
               : nullptr;
}

DWORD EventLogRecord::GetMessageId() const {
    FUNCTION_TRACE();
    const EVENTLOGRECORD* tmpPtr = GetEventLogPtr();
    MODUL_ASSERT(tmpPtr != nullptr);
    return tmpPtr != nullptr ? tmpPtr->EventID : 0;
}

WORD EventLogRecord::GetType() const {
    FUNCTION_TRACE();
    const EVENTLOGRECORD* tmpPtr = GetEventLogPtr();
    MODUL_ASSERT(tmpPtr != nullptr);
    return tmpPtr != nullptr ? tmpPtr->EventType : 0;
}

WORD EventLogRecord::GetNumberOfStrings() const {
    FUNCTION_TRACE();
    const EVENTLOGRECORD* tmpPtr = GetEventLogPtr();
    MODUL_ASSERT(tmpPtr != nullptr);
    return tmpPtr != nullptr ? tmpPtr->NumStrings : 0;
}

const wchar_t* EventLogRecord::GetVariableStringArray() const {
    FUNCTION_TRACE();
    const EVENTLOGRECORD* tmpPtr = GetEventLogPtr();
    MODUL_ASSERT(tmpPtr != nullptr);
    if (tmpPtr == nullptr) return nullptr;
    if (tmpPtr->StringOffset >= rawData_.size()) {
        TRACE_WARNING(28, "Insertion strings at %u of a record of %llu bytes", tmpPtr->StringOffset,
                      rawData_.size());
        return nullptr;
    }
    return reinterpret_cast<const wchar_t*>(rawData_.data() + tmpPtr->StringOffset);
}

WORD EventLogRecord::GetNumberOfSoundStrings() const {
    FUNCTION_TRACE();
    const WORD count = GetNumberOfStrings();
    const auto* at = reinterpret_cast<const std::byte*>(count > 0 ? GetVariableStringArray() : nullptr);
    if (at == nullptr) return 0;
    const std::byte* end = rawData_.data() + rawData_.size();
    WORD sound = 0;
    while (sound < count) {
        const std::size_t length = LengthWithZero(at, static_cast<std::size_t>(end - at));
        if (length == 0) {
            TRACE_WARNING(29, "Only %u of %u insertion strings end within the record", sound, count);
            break;
        }
        at += length * sizeof(wchar_t);
        ++sound;
    }
    return sound;
}

std::size_t EventLogRecord::GetDataPosition() const {
    FUNCTION_TRACE();
    std::size_t pos = sizeof(EVENTLOGRECORD);
    if (rawData_.size() == sizeof(EVENTLOGRECORD)) pos = 0;
    MODUL_ASSERT("INVALID DATA IN RECORD!" && (pos > 0));
    MODUL_ASSERT(pos < rawData_.size());
    return pos;
}

std::wstring EventLogRecord::GetSourceName() const {
    FUNCTION_TRACE();
    const std::size_t position = std::min(GetDataPosition(), rawData_.size());
    const std::byte* name = rawData_.data() + position;
    const std::size_t length = LengthWithZero(name, rawData_.size() - position);
    if (length == 0) {
        TRACE_WARNING(30, "The source name does not end within the record");
        return {};
    }
    return {reinterpret_cast<const wchar_t*>(name), length - 1};
}

std::wstring EventLogRecord::GetTimeStampFromRecord() const {
    FUNCTION_TRACE();
    constexpr ULONGLONG kSecondsFrom1601To1970 = 11644473600;
    constexpr ULONGLONG kIntervalsPerSecond = 10000000;
    const EVENTLOGRECORD* EvRec = GetEventLogPtr();
    MODUL_ASSERT(EvRec != NULL);
    ULARGE_INTEGER intervals = {};
    intervals.QuadPart =
        ((EvRec != nullptr ? EvRec->TimeGenerated : 0) + kSecondsFrom1601To1970) * kIntervalsPerSecond;
    const FILETIME utc = {intervals.LowPart, intervals.HighPart};
    FILETIME local = {};
    if (!::FileTimeToLocalFileTime(&utc, &local))
        MODUL_THROW(CWindowsApiExcp("FileTimeToLocalFileTime()", ""));
    SYSTEMTIME time = {};
    ::FileTimeToSystemTime(&local, &time);
    wchar_t text[24] = {};
    std::swprintf(text, std::size(text), L"%d.%d.%d %.2d:%.2d:%.2d", time.wDay, time.wMonth, time.wYear,
                  time.wHour, time.wMinute, time.wSecond);
    return text;
}

const wchar_t* EventLogRecord::GetEventTypeName() const {
    FUNCTION_TRACE();
    switch (GetType()) {
        case EVENTLOG_ERROR_TYPE:
            return L"EVENTLOG_ERROR_TYPE";
        case EVENTLOG_WARNING_TYPE:
            return L"EVENTLOG_WARNING_TYPE";
        case EVENTLOG_INFORMATION_TYPE:
            return L"EVENTLOG_INFORMATION_TYPE";
        case EVENTLOG_AUDIT_SUCCESS:
            return L"EVENTLOG_AUDIT_SUCCESS";
        case EVENTLOG_AUDIT_FAILURE:
            return L"EVENTLOG_AUDIT_FAILURE";
        default:
            return L"!! INVALID !!";
    }
}

std::wstring EventLogRecord::Print() const {
    FUNCTION_TRACE();
    const EVENTLOGRECORD* tmpPtr = GetEventLogPtr();
    MODUL_ASSERT(tmpPtr != nullptr);
    const EVENTLOGRECORD fields = tmpPtr != nullptr ? *tmpPtr : EVENTLOGRECORD{};
    return L"{\"Length\":" + std::to_wstring(fields.Length) + L",\"Record Number\":" +
           std::to_wstring(fields.RecordNumber) + L",\"EventID\":" + std::to_wstring(fields.EventID) +
           L",\"TimeGenerated\":\"" + GetTimeStampFromRecord() + L"\",\"EventType\":\"" + GetEventTypeName() +
           L"\"}";
}

EventRecordParser::EventRecordParser(std::shared_ptr<FilterChain> filterChain)
    : filterChain_(std::move(filterChain)) {
    FUNCTION_TRACE();
    if (filterChain_ == nullptr) MODUL_THROW(std::invalid_argument("No Filterchain provided!"));
}

void EventRecordParser::Process(const std::vector<std::byte>& rawBuffer, std::vector<UserMessage>& messages) {
    FUNCTION_TRACE();
    if (rawBuffer.empty()) {
        TRACE_INFO(31, "No records");
        return;
    }
    messages.clear();
    std::size_t position = 0;
    while (position < rawBuffer.size()) {
        const std::size_t left = rawBuffer.size() - position;
        if (left < sizeof(EVENTLOGRECORD)) {
            TRACE_WARNING(32, "A record is cut off after %llu bytes", left);
            return;
        }
        // Records of a damaged log need not begin at an aligned address.
        EVENTLOGRECORD header = {};
        std::memcpy(&header, rawBuffer.data() + position, sizeof header);
        const bool isPossible = header.Length >= sizeof header && header.Length <= kMaxRecordLength;
        if (isPossible && header.Length > left) {
            TRACE_WARNING(33, "A record of %u bytes is cut off after %llu", header.Length, left);
            return;
        }
        if (header.Length > 0 && header.Length < sizeof header) {
            TRACE_WARNING(34, "A record of %u bytes is shorter than its header", header.Length);
        } else {
            const auto* pEvRec = reinterpret_cast<const EVENTLOGRECORD*>(rawBuffer.data() + position);
            MODUL_ASSERT(pEvRec != NULL);
            const EventLogRecord record(pEvRec);
            TRACE_VERBOSE(35, "%s", toolbox::WstringToString(record.Print()));
            TraverseFilterChain(record, messages);
        }
        position += header.Length;
    }
}

void EventRecordParser::TraverseFilterChain(const EventLogRecord& record,
                                            std::vector<UserMessage>& messages) {
    FUNCTION_TRACE();
    MODUL_ASSERT(!filterChain_->empty());
    for (const auto& filter : *filterChain_) {
        if (!filter->Validate(record)) continue;
        messages.push_back(filter->CreateMessageFrom(record));
        return;
    }
}

MessageRessource::MessageRessource(std::wstring fileName) : evMsgFileName_(std::move(fileName)) {
    FUNCTION_TRACE();
    if (evMsgFileName_.empty()) MODUL_THROW(std::invalid_argument("Parameter FileName is EMPTY"));
    if (evMsgFileName_.length() > MAX_PATH)
        MODUL_THROW(std::invalid_argument("Parameter FileName is > MAX_PATH"));
}

MessageRessource::~MessageRessource() {
    FUNCTION_TRACE();
    MessageRessource::Close();
}

void MessageRessource::Open() {
    FUNCTION_TRACE();
    MODUL_ASSERT(!evMsgFileName_.empty());
    if (module_ != nullptr) MODUL_THROW(std::runtime_error("Invalid Sequence! Already open"));
    module_ = ::LoadLibraryExW(evMsgFileName_.c_str(), nullptr,
                               LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    if (module_ == nullptr)
        MODUL_THROW(CWindowsApiExcp("LoadLibraryEx()", toolbox::WstringToString(evMsgFileName_)));
    TRACE_VERBOSE(36, "%S loaded, handle %p", evMsgFileName_, module_);
}

void MessageRessource::Close() {
    FUNCTION_TRACE();
    if (module_ == nullptr) return;
    if (::FreeLibrary(module_))
        TRACE_VERBOSE(37, "%S freed", evMsgFileName_);
    else
        TRACE_WARNING(38, "FreeLibrary(%S) failed, LE(%u)", evMsgFileName_, ::GetLastError());
    module_ = nullptr;
}

std::wstring MessageRessource::ReadMessage(DWORD messageId, DWORD argc, const wchar_t* argv) {
    FUNCTION_TRACE();
    if (module_ == nullptr) MODUL_THROW(std::runtime_error("Invalid Sequence! Open first"));
    MODUL_ASSERT(argc < 99);
    // As many as a message can refer to: what it refers to beyond argc is null.
    DWORD_PTR arguments[99] = {};
    DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_FROM_SYSTEM;
    if (argc > 0) {
        if (argv == nullptr) MODUL_THROW(std::invalid_argument("If argc > 0 => provide argv"));
        const std::size_t used = std::min<std::size_t>(argc, std::size(arguments));
        for (std::size_t i = 0; i < used; ++i) {
            arguments[i] = reinterpret_cast<DWORD_PTR>(argv);
            argv += std::wcslen(argv) + 1;
        }
        flags |= FORMAT_MESSAGE_ARGUMENT_ARRAY;
    } else {
        flags |= FORMAT_MESSAGE_IGNORE_INSERTS;
    }
    wchar_t* text = nullptr;
    const DWORD length = ::FormatMessageW(flags, module_, messageId, 0, reinterpret_cast<wchar_t*>(&text), 0,
                                          argc > 0 ? reinterpret_cast<va_list*>(arguments) : nullptr);
    if (length == 0) {
        TRACE_ERROR(39, "FormatMessageW(0x%x) failed, LE(%u)", messageId, ::GetLastError());
        return L"ERROR: NO STRING FOR EVENT ID";
    }
    const std::unique_ptr<wchar_t, decltype(&::LocalFree)> owner(text, &::LocalFree);
    return {text, length};
}

Fenlu3::Fenlu3(std::unique_ptr<MessageRessource> messages) : messages_(std::move(messages)) {
    FUNCTION_TRACE();
}

std::unique_ptr<MessageRessource> Fenlu3::DriverMessages() {
    FUNCTION_TRACE();
    return std::make_unique<MessageRessource>(windows_api::GetSystem32Directory() + L"\\drivers\\fenlu3.sys");
}

bool Fenlu3::Validate(const EventLogRecord& record) {
    FUNCTION_TRACE();
    const bool isOurs = record.GetSourceName() == L"fenlu3";
    if (isOurs) TRACE_VERBOSE(40, "A record of the driver");
    return isOurs;
}

UserMessage Fenlu3::CreateMessageFrom(const EventLogRecord& record) {
    FUNCTION_TRACE();
    /// The driver's file is open only as long as it is read.
    struct OpenMessages {
        explicit OpenMessages(MessageRessource& messages) : messages_(messages) { messages_.Open(); }
        ~OpenMessages() { messages_.Close(); }
        OpenMessages(const OpenMessages&) = delete;
        OpenMessages& operator=(const OpenMessages&) = delete;
        MessageRessource& messages_;
    } const open(*messages_);

    UserMessage message;
    message.source = record.GetSourceName();
    message.message = messages_->ReadMessage(record.GetMessageId(), record.GetNumberOfSoundStrings(),
                                             record.GetVariableStringArray());
    switch (record.GetType()) {
        case EVENTLOG_ERROR_TYPE:
            message.severity = 3;
            break;
        case EVENTLOG_WARNING_TYPE:
            message.severity = 2;
            break;
        case EVENTLOG_INFORMATION_TYPE:
            message.severity = 1;
            break;
        case EVENTLOG_AUDIT_SUCCESS:
        case EVENTLOG_AUDIT_FAILURE:
            message.severity = 4;
            break;
        default:
            MODUL_FAIL("Invalid EventType in EVENTLOGRECORD");
            break;
    }
    return message;
}

}  // namespace operating_system
