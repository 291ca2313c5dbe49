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
#include "structured_exception.h"
#include "toolbox.h"
#include "trace_point.h"
#include "win_convenience.h"
#include "windows_api_excp.h"

TRACE_SOURCE("tessaplug_lib\\src\\evlog_check", "0f4b7d21-c6a8-4e5d-9b30-5d1e8a7c3f46", trace::kModule);

using modul_exception::CWindowsApiExcp;

namespace operating_system {
namespace {

constexpr DWORD kMaxRecordLength = 0x10000;

/// Records of a damaged log need not begin at an aligned address.
DWORD LengthOf(const std::byte* rawRecord) {
    FUNCTION_TRACE();
    DWORD length = 0;
    std::memcpy(&length, rawRecord, sizeof length);
    return length;
}

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

EventLogRecord::EventLogRecord(const EVENTLOGRECORD* RawEventLogRecord)
    : EventLogRecord(RawEventLogRecord, {}) {
    FUNCTION_TRACE();
}

EventLogRecord::EventLogRecord(const EVENTLOGRECORD* RawEventLogRecord, std::vector<std::byte> memory)
    : rawData_(std::move(memory)) {
    FUNCTION_TRACE();
    if (RawEventLogRecord == nullptr)
        MODUL_THROW(std::invalid_argument("Pointer to RawEventLogRecord is NULL"));
    const auto* bytes = reinterpret_cast<const std::byte*>(RawEventLogRecord);
    const DWORD length = LengthOf(bytes);
    if (length == 0) MODUL_THROW(std::invalid_argument("EVENTLOGRECORD Length is 0"));
    if (length > kMaxRecordLength)
        MODUL_THROW(std::invalid_argument("EVENTLOGRECORD Length is > 64Kb! Really?"));
    rawData_.assign(bytes, bytes + length);
    // Spelled out, because the text is fixed and the field may be unaligned.
    if (rawData_.size() != length)
        _ModulAssert(L"rawData_.size() == RawEventLogRecord->Length", kWideSourcePath, __LINE__);
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
    return std::wstring(SourceName());
}

std::wstring_view EventLogRecord::SourceName() const {
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
    std::vector<std::byte> memory;
    while (position < rawBuffer.size()) {
        const std::size_t left = rawBuffer.size() - position;
        if (left < sizeof(DWORD)) {
            TRACE_WARNING(32, "A record is cut off after %llu bytes", left);
            return;
        }
        const DWORD length = LengthOf(rawBuffer.data() + position);
        const bool isPossible = length > 0 && length <= kMaxRecordLength;
        if (isPossible && length > left) {
            TRACE_WARNING(33, "A record of %u bytes is cut off after %llu", length, left);
            return;
        }
        if (isPossible && length < sizeof(EVENTLOGRECORD)) {
            TRACE_WARNING(34, "A record of %u bytes is shorter than its header", length);
        } else {
            // Of an impossible length nothing else is read.
            const auto* pEvRec = reinterpret_cast<const EVENTLOGRECORD*>(rawBuffer.data() + position);
            MODUL_ASSERT(pEvRec != NULL);
            EventLogRecord record(pEvRec, std::move(memory));
            TRACE_VERBOSE(35, "%s", toolbox::WstringToString(record.Print()));
            TraverseFilterChain(record, messages);
            memory = record.TakeMemory();
        }
        position += length;
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
    module_ = CallForeign([this] {
        return ::LoadLibraryExW(evMsgFileName_.c_str(), nullptr,
                                LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    });
    if (module_ == nullptr)
        MODUL_THROW(CWindowsApiExcp("LoadLibraryEx()", toolbox::WstringToString(evMsgFileName_)));
    TRACE_VERBOSE(36, "%S loaded, handle %p", evMsgFileName_, module_);
}

void MessageRessource::Close() {
    FUNCTION_TRACE();
    if (module_ == nullptr) return;
    BOOL freed = FALSE;
    auto free = [&] { freed = ::FreeLibrary(module_); };
    if (CallGuarded(free) == 0 && freed)
        TRACE_VERBOSE(37, "%S freed", evMsgFileName_);
    else
        TRACE_WARNING(38, "FreeLibrary(%S) failed, LE(%u)", evMsgFileName_, ::GetLastError());
    module_ = nullptr;
}

std::wstring MessageRessource::ReadMessage(DWORD messageId, DWORD argc, const wchar_t* argv) {
    FUNCTION_TRACE();
    if (module_ == nullptr) MODUL_THROW(std::runtime_error("Invalid Sequence! Open first"));
    MODUL_ASSERT(argc < 99);
    // As many as a message can refer to, %1 to %99: what it refers to beyond argc is null, the last always.
    DWORD_PTR arguments[99] = {};
    DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_FROM_SYSTEM;
    if (argc > 0) {
        if (argv == nullptr) MODUL_THROW(std::invalid_argument("If argc > 0 => provide argv"));
        const std::size_t used = std::min<std::size_t>(argc, std::size(arguments) - 1);
        for (std::size_t i = 0; i < used; ++i) {
            arguments[i] = reinterpret_cast<DWORD_PTR>(argv);
            argv += std::wcslen(argv) + 1;
        }
        flags |= FORMAT_MESSAGE_ARGUMENT_ARRAY;
    } else {
        flags |= FORMAT_MESSAGE_IGNORE_INSERTS;
    }
    wchar_t* text = nullptr;
    // Reads the driver's file, which may be of any kind, and writes what it says.
    const DWORD length = CallForeign([&] {
        return ::FormatMessageW(flags, module_, messageId, 0, reinterpret_cast<wchar_t*>(&text), 0,
                                argc > 0 ? reinterpret_cast<va_list*>(arguments) : nullptr);
    });
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
    const bool isOurs = record.SourceName() == L"fenlu3";
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
