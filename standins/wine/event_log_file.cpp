#include "event_log_file.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <iterator>
#include <map>
#include <memory>
#include <utility>

#include "data_folder.h"
#include "error_log_record.h"
#include "machine_lock.h"

namespace wine_gap {
namespace {

constexpr DWORD kRecordSignature = 0x654c664c;  // "LfLe", as in every EVENTLOGRECORD
constexpr DWORD kFileSignature = 0x474C4557;    // "WELG"
constexpr ULONGLONG kDefaultMaxSize = 1024ULL * 1024;
constexpr wchar_t kLockName[] = L"Global\\WINEGAP_EVENT_LOG";
constexpr wchar_t kKernelRecordsKey[] = L"SOFTWARE\\winegap\\EventLog\\Kernel";
constexpr wchar_t kLogsKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\";

using Bytes = std::vector<BYTE>;

/// Begins every file. Offsets count from the log's first record ever; the file holds those from `base` to
/// `end`.
struct Header {
    DWORD signature = kFileSignature;
    LogState state;
    ULONGLONG base = 0;
    ULONGLONG newest = 0;  // of the newest record
    ULONGLONG end = 0;
};

struct FileCloser {
    void operator()(HANDLE file) const { ::CloseHandle(file); }
};
using File = std::unique_ptr<void, FileCloser>;

File OpenFile(const std::wstring& path, DWORD access, DWORD disposition) {
    const HANDLE file = ::CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    return File(file == INVALID_HANDLE_VALUE ? nullptr : file);
}

bool ReadAt(HANDLE file, ULONGLONG offset, void* buffer, DWORD size) {
    LARGE_INTEGER at = {};
    at.QuadPart = static_cast<LONGLONG>(offset);
    DWORD read = 0;
    return ::SetFilePointerEx(file, at, nullptr, FILE_BEGIN) &&
           ::ReadFile(file, buffer, size, &read, nullptr) && read == size;
}

bool WriteAt(HANDLE file, ULONGLONG offset, const void* data, std::size_t size) {
    LARGE_INTEGER at = {};
    at.QuadPart = static_cast<LONGLONG>(offset);
    DWORD written = 0;
    return ::SetFilePointerEx(file, at, nullptr, FILE_BEGIN) &&
           ::WriteFile(file, data, static_cast<DWORD>(size), &written, nullptr) && written == size;
}

WORD TypeOfSeverity(DWORD messageId) {
    switch (messageId >> 30) {
        case 3:
            return EVENTLOG_ERROR_TYPE;
        case 2:
            return EVENTLOG_WARNING_TYPE;
        default:
            return EVENTLOG_INFORMATION_TYPE;
    }
}

Event EventFrom(ERROR_LOG_RECORD& record) {
    for (wchar_t* end : {std::end(record.source), std::end(record.device), std::end(record.text)})
        end[-1] = L'\0';
    Event event;
    event.source = record.source;
    event.type = TypeOfSeverity(record.message_id);
    event.id = record.message_id;
    event.strings = {record.device, record.text};
    return event;
}

/// One log while the machine's lock is held.
class LockedLog {
  public:
    /// @param log empty for a backup, which is only read
    LockedLog(const std::wstring& log, const std::wstring& path) : lock_(kLockName), log_(log), path_(path) {
        file_ = log.empty() ? OpenFile(path_, GENERIC_READ, OPEN_EXISTING)
                            : OpenFile(path_, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
        error_ = file_ ? ERROR_SUCCESS : ::GetLastError();
        if (file_ &&
            (!ReadAt(file_.get(), 0, &header_, sizeof header_) || header_.signature != kFileSignature)) {
            header_ = {};
            error_ = ERROR_EVENTLOG_FILE_CORRUPT;
        }
        if (::_wcsicmp(log.c_str(), L"System") == 0) TakeKernelRecords();
    }

    /// Why the file that was found is no log; a new log's is none yet.
    DWORD error() const { return error_; }

    const Header& header() const { return header_; }

    bool ReadBytes(ULONGLONG offset, void* buffer, DWORD size) const {
        return offset >= header_.base && offset + size <= header_.end &&
               ReadAt(file_.get(), sizeof(Header) + offset - header_.base, buffer, size);
    }

    DWORD Append(const std::vector<Event>& events) {
        if (!file_) return ERROR_ACCESS_DENIED;
        Bytes records;
        Header changed = header_;
        for (const Event& event : events)
            AddRecord(event, changed, records);
        if (header_.end - header_.base + records.size() > MaxSize() && !DropOlderHalf(changed))
            return ERROR_DISK_FULL;
        if (!WriteAt(file_.get(), sizeof(Header) + header_.end - header_.base, records.data(),
                     records.size()))
            return ERROR_DISK_FULL;
        return Commit(changed);
    }

    DWORD Clear() {
        Header changed;
        changed.state.generation = header_.state.generation + 1;
        changed.state.next = header_.state.next;
        return file_ ? Commit(changed) : ERROR_ACCESS_DENIED;
    }

    DWORD BackUp(const std::wstring& path) const {
        Bytes records(static_cast<std::size_t>(header_.end - header_.base));
        if (!records.empty() && !ReadBytes(header_.base, records.data(), static_cast<DWORD>(records.size())))
            return ERROR_EVENTLOG_FILE_CORRUPT;
        File file = OpenFile(path, GENERIC_WRITE, CREATE_NEW);
        if (!file) return ::GetLastError() == ERROR_FILE_EXISTS ? ERROR_ALREADY_EXISTS : ::GetLastError();
        if (WriteAt(file.get(), 0, &header_, sizeof header_) &&
            WriteAt(file.get(), sizeof header_, records.data(), records.size()))
            return ERROR_SUCCESS;
        file.reset();
        ::DeleteFileW(path.c_str());
        return ERROR_DISK_FULL;
    }

  private:
    ULONGLONG MaxSize() const {
        DWORD limit = 0;
        DWORD size = sizeof limit;
        return ::RegGetValueW(HKEY_LOCAL_MACHINE, (kLogsKey + log_).c_str(), L"MaxSize", RRF_RT_REG_DWORD,
                              nullptr, &limit, &size) == ERROR_SUCCESS
                   ? limit
                   : kDefaultMaxSize;
    }

    /// The header last: what it does not tell of does not exist.
    DWORD Commit(const Header& changed) {
        if (!WriteAt(file_.get(), 0, &changed, sizeof changed)) return ERROR_DISK_FULL;
        header_ = changed;
        // Wakes the readers of all processes.
        const ULONGLONG signal =
            (static_cast<ULONGLONG>(changed.state.generation) << 32) | changed.state.next;
        ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kEventLogChangesKey, log_.c_str(), REG_QWORD, &signal,
                          sizeof signal);
        return ERROR_SUCCESS;
    }

    /// Into a file of its own that takes the log's place when it is complete.
    bool DropOlderHalf(Header& changed) {
        const ULONGLONG half = header_.base + (header_.end - header_.base) / 2;
        ULONGLONG kept = header_.base;
        DWORD oldest = header_.state.oldest;
        for (DWORD length = 0; kept < half && ReadBytes(kept, &length, sizeof length); ++oldest)
            kept += length;
        Bytes bytes(static_cast<std::size_t>(header_.end - kept));
        if (!bytes.empty() && !ReadBytes(kept, bytes.data(), static_cast<DWORD>(bytes.size()))) return false;
        Header smaller = header_;
        smaller.base = kept;
        smaller.state.oldest = bytes.empty() ? 0 : oldest;
        const std::wstring newPath = path_ + L".new";
        {
            const File file = OpenFile(newPath, GENERIC_WRITE, CREATE_ALWAYS);
            if (!file || !WriteAt(file.get(), 0, &smaller, sizeof smaller) ||
                !WriteAt(file.get(), sizeof smaller, bytes.data(), bytes.size()))
                return false;
        }
        file_.reset();
        const bool replaced = ::MoveFileExW(newPath.c_str(), path_.c_str(), MOVEFILE_REPLACE_EXISTING);
        file_ = OpenFile(path_, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
        if (!replaced || !file_) return false;
        header_ = smaller;
        changed.base = kept;
        changed.state.oldest = bytes.empty() ? header_.state.next : oldest;
        return true;
    }

    /// Takes over what kernel drivers have left.
    void TakeKernelRecords() {
        HKEY key = nullptr;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKernelRecordsKey, 0, KEY_READ | KEY_WRITE, &key) !=
            ERROR_SUCCESS)
            return;
        std::map<std::wstring, ERROR_LOG_RECORD> records;  // in the order of their names
        wchar_t name[64] = {};
        DWORD length = ARRAYSIZE(name);
        ERROR_LOG_RECORD record = {};
        DWORD size = sizeof record;
        for (DWORD i = 0; ::RegEnumValueW(key, i, name, &length, nullptr, nullptr,
                                          reinterpret_cast<BYTE*>(&record), &size) == ERROR_SUCCESS;
             ++i, length = ARRAYSIZE(name), size = sizeof record)
            records.emplace(name, record);
        for (auto& [value, left] : records)
            if (Append({EventFrom(left)}) == ERROR_SUCCESS) ::RegDeleteValueW(key, value.c_str());
        ::RegCloseKey(key);
    }

    static void Add(Bytes& bytes, const void* data, std::size_t size) {
        const auto* from = static_cast<const BYTE*>(data);
        bytes.insert(bytes.end(), from, from + size);
    }
    static void Add(Bytes& bytes, const std::wstring& text) {
        Add(bytes, text.c_str(), (text.length() + 1) * sizeof(wchar_t));
    }
    static void Align(Bytes& bytes, std::size_t size) {
        bytes.resize((bytes.size() + size - 1) & ~(size - 1));
    }

    static const std::wstring& ComputerName() {
        static const std::wstring name = [] {
            wchar_t text[256] = {};
            DWORD length = ARRAYSIZE(text);
            ::GetComputerNameExW(ComputerNameDnsFullyQualified, text, &length);
            return std::wstring(text);
        }();
        return name;
    }

    static void AddRecord(const Event& event, Header& header, Bytes& records) {
        EVENTLOGRECORD fields = {};
        fields.Reserved = kRecordSignature;
        fields.RecordNumber = header.state.next;
        fields.TimeGenerated = fields.TimeWritten = static_cast<DWORD>(std::time(nullptr));
        fields.EventID = event.id;
        fields.EventType = event.type;
        fields.EventCategory = event.category;
        fields.NumStrings = static_cast<WORD>(event.strings.size());
        Bytes record(sizeof fields);
        Add(record, event.source);
        Add(record, ComputerName());
        Align(record, sizeof(DWORD));
        fields.UserSidOffset = static_cast<DWORD>(record.size());
        fields.UserSidLength = static_cast<DWORD>(event.sid.size());
        Add(record, event.sid.data(), event.sid.size());
        fields.StringOffset = static_cast<DWORD>(record.size());
        for (const std::wstring& text : event.strings)
            Add(record, text);
        Align(record, sizeof(ULONGLONG));
        fields.DataOffset = static_cast<DWORD>(record.size());
        fields.DataLength = static_cast<DWORD>(event.data.size());
        Add(record, event.data.data(), event.data.size());
        Align(record, sizeof(DWORD));
        fields.Length = static_cast<DWORD>(record.size() + sizeof(DWORD));
        Add(record, &fields.Length, sizeof fields.Length);
        std::memcpy(record.data(), &fields, sizeof fields);
        Add(records, record.data(), record.size());
        if (header.state.oldest == 0) header.state.oldest = header.state.next;
        ++header.state.next;
        header.newest = header.end;
        header.end += record.size();
    }

    MachineLock lock_;
    std::wstring log_;
    std::wstring path_;
    File file_;
    DWORD error_ = ERROR_SUCCESS;
    Header header_;
};

DWORD ReadForwards(const LockedLog& log, ULONGLONG& offset, BYTE* buffer, DWORD size, DWORD& read,
                   DWORD& needed) {
    const auto left = static_cast<DWORD>(std::min<ULONGLONG>(log.header().end - offset, size));
    if (log.header().end == offset) return ERROR_HANDLE_EOF;
    if (!log.ReadBytes(offset, buffer, left)) return ERROR_EVENTLOG_FILE_CORRUPT;
    DWORD length = 0;
    while (left - read >= sizeof length) {
        std::memcpy(&length, buffer + read, sizeof length);
        if (length < sizeof(EVENTLOGRECORD)) return ERROR_EVENTLOG_FILE_CORRUPT;
        if (length > left - read) break;
        read += length;
    }
    if (read == 0) {
        if (!log.ReadBytes(offset, &needed, sizeof needed)) return ERROR_EVENTLOG_FILE_CORRUPT;
        return ERROR_INSUFFICIENT_BUFFER;
    }
    offset += read;
    return ERROR_SUCCESS;
}

DWORD ReadBackwards(const LockedLog& log, ULONGLONG& offset, BYTE* buffer, DWORD size, DWORD& read,
                    DWORD& needed) {
    const ULONGLONG base = log.header().base;
    if (offset == base) return ERROR_HANDLE_EOF;
    while (offset > base) {
        DWORD length = 0;  // stands also at the record's end
        if (!log.ReadBytes(offset - sizeof length, &length, sizeof length) ||
            length < sizeof(EVENTLOGRECORD) || length > offset - base)
            return ERROR_EVENTLOG_FILE_CORRUPT;
        if (length > size - read) {
            needed = read == 0 ? length : 0;
            break;
        }
        if (!log.ReadBytes(offset - length, buffer + read, length)) return ERROR_EVENTLOG_FILE_CORRUPT;
        offset -= length;
        read += length;
    }
    return read == 0 ? ERROR_INSUFFICIENT_BUFFER : ERROR_SUCCESS;
}

}  // namespace

EventLogFile::EventLogFile(const std::wstring& log)
    : EventLogFile(log, DataFolder() + L"\\" + log + L".log") {}

EventLogFile EventLogFile::Backup(const std::wstring& path) {
    wchar_t fullPath[MAX_PATH] = {};
    const DWORD length = ::GetFullPathNameW(path.c_str(), MAX_PATH, fullPath, nullptr);
    return {L"", length == 0 || length >= MAX_PATH ? path : fullPath};
}

DWORD EventLogFile::Append(const std::vector<Event>& events) const {
    return LockedLog(log_, path_).Append(events);
}

DWORD EventLogFile::Clear(const std::wstring& backup) const {
    LockedLog log(log_, path_);
    const DWORD result = backup.empty() ? ERROR_SUCCESS : log.BackUp(backup);
    return result == ERROR_SUCCESS ? log.Clear() : result;
}

DWORD EventLogFile::BackUp(const std::wstring& path) const {
    return LockedLog(log_, path_).BackUp(path);
}

DWORD EventLogFile::CheckBackup() const {
    return LockedLog(log_, path_).error();
}

LogState EventLogFile::State() const {
    return LockedLog(log_, path_).header().state;
}

bool EventLogFile::Find(DWORD number, Direction direction, ReadPosition& position) const {
    const LockedLog log(log_, path_);
    const Header& header = log.header();
    if (header.state.Count() == 0 || number < header.state.oldest || number >= header.state.next)
        return false;
    const bool isNewest = number == header.state.next - 1;
    position = {header.state.generation, true, isNewest ? header.newest : header.base};
    DWORD length = 0;
    for (DWORD skipped = header.state.oldest; !isNewest && skipped < number; ++skipped) {
        if (!log.ReadBytes(position.offset, &length, sizeof length)) return false;
        position.offset += length;
    }
    if (direction == Direction::kForwards) return true;
    if (!log.ReadBytes(position.offset, &length, sizeof length)) return false;
    position.offset += length;
    return true;
}

DWORD EventLogFile::Read(ReadPosition& position, Direction direction, void* buffer, DWORD size, DWORD& read,
                         DWORD& needed) const {
    read = needed = 0;
    const LockedLog log(log_, path_);
    const Header& header = log.header();
    if (position.generation != header.state.generation) return ERROR_EVENTLOG_FILE_CHANGED;
    const bool forwards = direction == Direction::kForwards;
    if (!position.isTaken) position.offset = forwards ? header.base : header.end;
    position.isTaken = true;
    position.offset = std::max(position.offset, header.base);
    auto* bytes = static_cast<BYTE*>(buffer);
    return forwards ? ReadForwards(log, position.offset, bytes, size, read, needed)
                    : ReadBackwards(log, position.offset, bytes, size, read, needed);
}

}  // namespace wine_gap
