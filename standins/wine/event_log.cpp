#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "wine_gap.h"

// The classic event log, for writing and reading back. Each log is a file of EVENTLOGRECORDs as they are
// read, one behind the other; a log that grows over its limit drops its older half. A record that a killed
// writer left unfinished is cut off by the next one.
namespace wine_gap {
namespace {

constexpr DWORD kSignature = 0x654c664c;  // "LfLe", as in every EVENTLOGRECORD
constexpr std::size_t kMaxLogSize = std::size_t{1024} * 1024;
constexpr wchar_t kLogsKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog";
constexpr wchar_t kLockName[] = L"Global\\WINEGAP_EVENT_LOG";

/// What an event log handle stands for.
struct LogHandle {
    static constexpr DWORD kTag = 0x474F4C45;
    DWORD tag = kTag;
    std::wstring source;   // of handles for writing
    std::wstring log;      // "Application", "System"...
    DWORD nextRecord = 0;  // of handles for reading; 0 before the first read
};

LogHandle* From(HANDLE handle) {
    auto* log = static_cast<LogHandle*>(handle);
    if (log != nullptr && log->tag == LogHandle::kTag) return log;
    ::SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

using Bytes = std::vector<BYTE>;

struct FileCloser {
    void operator()(HANDLE file) const { ::CloseHandle(file); }
};

std::wstring PathOf(const std::wstring& log) {
    return DataFolder() + L"\\" + log + L".log";
}

Bytes ReadLog(const std::wstring& log) {
    const HANDLE opened = ::CreateFileW(PathOf(log).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                        nullptr, OPEN_EXISTING, 0, nullptr);
    if (opened == INVALID_HANDLE_VALUE) return {};
    const std::unique_ptr<void, FileCloser> file(opened);
    Bytes bytes(::GetFileSize(opened, nullptr));
    DWORD read = 0;
    ::ReadFile(opened, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
    bytes.resize(read);
    return bytes;
}

/// Calls `use` with every whole record, in order, until it returns false.
/// @return where the whole records end
template <typename Use>
std::size_t ForEachRecord(const Bytes& bytes, Use use) {
    std::size_t at = 0;
    while (at + sizeof(EVENTLOGRECORD) <= bytes.size()) {
        const auto* record = reinterpret_cast<const EVENTLOGRECORD*>(bytes.data() + at);
        if (record->Reserved != kSignature || record->Length < sizeof *record ||
            at + record->Length > bytes.size())
            break;
        if (!use(*record)) break;
        at += record->Length;
    }
    return at;
}

void Append(Bytes& bytes, const void* data, std::size_t size) {
    const auto* from = static_cast<const BYTE*>(data);
    bytes.insert(bytes.end(), from, from + size);
}

void Append(Bytes& bytes, const std::wstring& text) {
    Append(bytes, text.c_str(), (text.length() + 1) * sizeof(wchar_t));
}

std::wstring ComputerName() {
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD length = ARRAYSIZE(name);
    ::GetComputerNameW(name, &length);
    return name;
}

struct Event {
    std::wstring source;
    WORD type;
    WORD category;
    DWORD id;
    std::vector<std::wstring> strings;
    Bytes data;
};

Bytes RecordOf(const Event& event, DWORD number) {
    EVENTLOGRECORD header = {};
    header.Reserved = kSignature;
    header.RecordNumber = number;
    header.TimeGenerated = header.TimeWritten = static_cast<DWORD>(std::time(nullptr));
    header.EventID = event.id;
    header.EventType = event.type;
    header.EventCategory = event.category;
    header.NumStrings = static_cast<WORD>(event.strings.size());
    Bytes record(sizeof header);
    Append(record, event.source);
    Append(record, ComputerName());
    record.resize((record.size() + 3) & ~std::size_t{3});
    header.UserSidOffset = header.StringOffset = static_cast<DWORD>(record.size());
    for (const std::wstring& text : event.strings)
        Append(record, text);
    header.DataOffset = static_cast<DWORD>(record.size());
    header.DataLength = static_cast<DWORD>(event.data.size());
    Append(record, event.data.data(), event.data.size());
    record.resize((record.size() + 3) & ~std::size_t{3});
    header.Length = static_cast<DWORD>(record.size() + sizeof(DWORD));
    Append(record, &header.Length, sizeof header.Length);
    std::memcpy(record.data(), &header, sizeof header);
    return record;
}

BOOL WriteEvent(const std::wstring& log, const Event& event) {
    const MachineLock lock(kLockName);
    Bytes bytes = ReadLog(log);
    DWORD lastNumber = 0;
    bytes.resize(ForEachRecord(bytes, [&](const EVENTLOGRECORD& record) {
        lastNumber = record.RecordNumber;
        return true;
    }));
    const Bytes record = RecordOf(event, lastNumber + 1);
    bool rewrite = false;
    if (bytes.size() + record.size() > kMaxLogSize) {
        std::size_t dropped = 0;
        ForEachRecord(bytes,
                      [&](const EVENTLOGRECORD& old) { return (dropped += old.Length) < kMaxLogSize / 2; });
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(dropped));
        rewrite = true;
    }
    const HANDLE opened =
        ::CreateFileW(PathOf(log).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                      OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (opened == INVALID_HANDLE_VALUE) return FALSE;
    const std::unique_ptr<void, FileCloser> file(opened);
    DWORD written = 0;
    if (rewrite) ::WriteFile(opened, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    ::SetFilePointer(opened, static_cast<LONG>(bytes.size()), nullptr, FILE_BEGIN);
    return ::WriteFile(opened, record.data(), static_cast<DWORD>(record.size()), &written, nullptr) &&
           ::SetEndOfFile(opened);
}

/// The log that a source is registered under; Application if it is under none.
std::wstring LogOfSource(const std::wstring& source) {
    for (const wchar_t* log : {L"System", L"Application"}) {
        HKEY key = nullptr;
        const std::wstring path = std::wstring(kLogsKey) + L"\\" + log + L"\\" + source;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) continue;
        ::RegCloseKey(key);
        return log;
    }
    return L"Application";
}

HANDLE WINAPI RegisterSource(LPCWSTR, LPCWSTR source) {
    if (source == nullptr || *source == L'\0') {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto* handle = new LogHandle;
    handle->source = source;
    handle->log = LogOfSource(source);
    return handle;
}

BOOL WINAPI CloseHandleOf(HANDLE handle) {
    LogHandle* log = From(handle);
    if (log == nullptr) return FALSE;
    log->tag = 0;
    delete log;
    return TRUE;
}

BOOL WINAPI Report(HANDLE handle, WORD type, WORD category, DWORD id, PSID, WORD stringCount, DWORD dataSize,
                   LPCWSTR* strings, LPVOID data) {
    const LogHandle* log = From(handle);
    if (log == nullptr) return FALSE;
    Event event{log->source, type, category, id, {}, {}};
    for (WORD i = 0; i < stringCount; ++i)
        event.strings.emplace_back(strings[i] != nullptr ? strings[i] : L"");
    if (dataSize > 0) Append(event.data, data, dataSize);
    return WriteEvent(log->log, event);
}

HANDLE WINAPI OpenLog(LPCWSTR, LPCWSTR name) {
    if (name == nullptr || *name == L'\0') {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto* handle = new LogHandle;
    handle->log = name;
    return handle;
}

Bytes ReadLogUnderLock(const std::wstring& log) {
    const MachineLock lock(kLockName);
    return ReadLog(log);
}

BOOL WINAPI NumberOfRecords(HANDLE handle, PDWORD number) {
    const LogHandle* log = From(handle);
    if (log == nullptr) return FALSE;
    *number = 0;
    ForEachRecord(ReadLogUnderLock(log->log), [&](const EVENTLOGRECORD&) { return ++*number, true; });
    return TRUE;
}

BOOL WINAPI OldestRecord(HANDLE handle, PDWORD oldest) {
    const LogHandle* log = From(handle);
    if (log == nullptr) return FALSE;
    *oldest = 0;
    ForEachRecord(ReadLogUnderLock(log->log), [&](const EVENTLOGRECORD& record) {
        *oldest = record.RecordNumber;
        return false;
    });
    return TRUE;
}

/// Forwards only, sequentially or from a record number.
BOOL WINAPI ReadRecords(HANDLE handle, DWORD flags, DWORD offset, LPVOID buffer, DWORD size, DWORD* read,
                        DWORD* needed) {
    LogHandle* log = From(handle);
    if (log == nullptr) return FALSE;
    if ((flags & EVENTLOG_FORWARDS_READ) == 0) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const DWORD first = (flags & EVENTLOG_SEEK_READ) != 0 ? offset : log->nextRecord;
    *read = 0;
    *needed = 0;
    ForEachRecord(ReadLogUnderLock(log->log), [&](const EVENTLOGRECORD& record) {
        if (record.RecordNumber < first) return true;
        if (*read + record.Length > size) {
            *needed = record.Length;
            return false;
        }
        std::memcpy(static_cast<BYTE*>(buffer) + *read, &record, record.Length);
        *read += record.Length;
        log->nextRecord = record.RecordNumber + 1;
        return true;
    });
    if (*read > 0) return TRUE;
    ::SetLastError(*needed > 0 ? ERROR_INSUFFICIENT_BUFFER : ERROR_HANDLE_EOF);
    return FALSE;
}

}  // namespace

std::vector<Replacement> EventLogReplacements() {
    static constexpr wchar_t kLibrary[] = L"advapi32.dll";
    return {
        {kLibrary, "RegisterEventSourceW", reinterpret_cast<void*>(&RegisterSource), nullptr},
        {kLibrary, "DeregisterEventSource", reinterpret_cast<void*>(&CloseHandleOf), nullptr},
        {kLibrary, "ReportEventW", reinterpret_cast<void*>(&Report), nullptr},
        {kLibrary, "OpenEventLogW", reinterpret_cast<void*>(&OpenLog), nullptr},
        {kLibrary, "CloseEventLog", reinterpret_cast<void*>(&CloseHandleOf), nullptr},
        {kLibrary, "GetNumberOfEventLogRecords", reinterpret_cast<void*>(&NumberOfRecords), nullptr},
        {kLibrary, "GetOldestEventLogRecord", reinterpret_cast<void*>(&OldestRecord), nullptr},
        {kLibrary, "ReadEventLogW", reinterpret_cast<void*>(&ReadRecords), nullptr},
    };
}

}  // namespace wine_gap
