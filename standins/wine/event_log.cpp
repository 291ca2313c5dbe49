#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "event_log_file.h"
#include "event_log_notification.h"
#include "event_log_settings.h"
#include "process_lock.h"
#include "wine_gap.h"

// The functions of the classic event log, on the files of event_log_file.h. As on Windows, parameters are
// looked at before the handle.
namespace wine_gap {
namespace {

constexpr wchar_t kLogsKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog";

/// What an event log handle stands for. Handles for writing and for reading are one kind.
struct LogHandle {
    std::wstring source;  // the name it was opened by
    EventLogFile file;
    bool isBackup = false;
    DWORD serviceRestarts = EventLogSetting(kServiceRestarts);
    ReadPosition position = {};
};
using LogPointer = std::shared_ptr<LogHandle>;

ProcessLock handlesLock;                            // guards the handles
auto& handles = *new std::map<HANDLE, LogPointer>;  // stays usable at the process' end

BOOL Report(DWORD result) {
    if (result != ERROR_SUCCESS) ::SetLastError(result);
    return result == ERROR_SUCCESS;
}

HANDLE AddHandle(LogHandle log) {
    static ULONG_PTR last = 0x7E000000;  // far from the kernel's
    const std::lock_guard guard(handlesLock);
    const auto handle = reinterpret_cast<HANDLE>(last += 4);
    handles.emplace(handle, std::make_shared<LogHandle>(std::move(log)));
    return handle;
}

/// @return ERROR_INVALID_HANDLE also for one from before the event log service was started again
DWORD Find(HANDLE handle, LogPointer& log) {
    if (EventLogSetting(kServiceIsStopped) != 0) return RPC_S_UNKNOWN_IF;
    const std::lock_guard guard(handlesLock);
    const auto found = handles.find(handle);
    if (found == handles.end() || found->second->serviceRestarts != EventLogSetting(kServiceRestarts))
        return ERROR_INVALID_HANDLE;
    log = found->second;
    return ERROR_SUCCESS;
}

bool Exists(const std::wstring& keyBelowLogs) {
    HKEY key = nullptr;
    const std::wstring path = std::wstring(kLogsKey) + L"\\" + keyBelowLogs;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
    ::RegCloseKey(key);
    return true;
}

bool IsSame(const std::wstring& name, const wchar_t* other) {
    return ::_wcsicmp(name.c_str(), other) == 0;
}

bool IsLog(const std::wstring& name) {
    return IsSame(name, L"Application") || IsSame(name, L"System") || IsSame(name, L"Security") ||
           Exists(name);
}

/// The log of a name, which may also be that of a source below any log; Application if it is unknown.
std::wstring LogOf(const std::wstring& name) {
    constexpr wchar_t kDefault[] = L"Application";
    if (name.find(L'\\') != std::wstring::npos) return kDefault;
    if (IsLog(name)) return name;
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kLogsKey, 0, KEY_READ, &key) != ERROR_SUCCESS) return kDefault;
    std::wstring log = kDefault;
    wchar_t candidate[256] = {};
    for (DWORD i = 0, length = ARRAYSIZE(candidate);
         ::RegEnumKeyExW(key, i, candidate, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++i, length = ARRAYSIZE(candidate))
        if (Exists(std::wstring(candidate) + L"\\" + name)) log = candidate;
    ::RegCloseKey(key);
    return log;
}

/// Whether a server's name, with or without the leading backslashes, is none or this computer's.
bool IsThisComputer(const wchar_t* server) {
    if (server == nullptr || *server == L'\0') return true;
    if (std::wstring(server).starts_with(L"\\\\")) server += 2;
    return std::ranges::any_of(
        std::array{ComputerNameNetBIOS, ComputerNameDnsHostname, ComputerNameDnsFullyQualified},
        [server](COMPUTER_NAME_FORMAT format) {
            wchar_t name[256] = {};
            DWORD length = ARRAYSIZE(name);
            return ::GetComputerNameExW(format, name, &length) && IsSame(name, server);
        });
}

DWORD CheckName(LPCWSTR server, LPCWSTR name) {
    if (name == nullptr || *name == L'\0') return ERROR_INVALID_PARAMETER;
    if (!IsThisComputer(server)) return RPC_S_SERVER_UNAVAILABLE;
    return EventLogSetting(kServiceIsStopped) != 0 ? RPC_S_UNKNOWN_IF : ERROR_SUCCESS;
}

HANDLE Open(LPCWSTR server, LPCWSTR name, bool forWriting) {
    if (!Report(CheckName(server, name))) return nullptr;
    const std::wstring log = LogOf(name);
    const std::wstring denied = EventLogTextSetting(kAccessDeniedTo);
    if (IsSame(denied, log.c_str()) || (forWriting && IsSame(log, L"Security"))) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    LogHandle handle{name, EventLogFile(log)};
    handle.position.generation = handle.file.State().generation;
    return AddHandle(std::move(handle));
}

HANDLE WINAPI RegisterSource(LPCWSTR server, LPCWSTR source) {
    return Open(server, source, true);
}

HANDLE WINAPI OpenLog(LPCWSTR server, LPCWSTR name) {
    return Open(server, name, false);
}

HANDLE WINAPI OpenBackup(LPCWSTR server, LPCWSTR fileName) {
    if (!Report(CheckName(server, fileName))) return nullptr;
    LogHandle handle{fileName, EventLogFile::Backup(fileName), true};
    if (!Report(handle.file.CheckBackup())) return nullptr;
    handle.position.generation = handle.file.State().generation;
    return AddHandle(std::move(handle));
}

BOOL WINAPI CloseHandleOf(HANDLE handle) {
    LogPointer log;
    const DWORD result = Find(handle, log);
    EndNotifications(handle);
    const std::lock_guard guard(handlesLock);
    handles.erase(handle);
    return Report(result);
}

bool IsType(WORD type) {
    return type == EVENTLOG_SUCCESS || type == EVENTLOG_ERROR_TYPE || type == EVENTLOG_WARNING_TYPE ||
           type == EVENTLOG_INFORMATION_TYPE || type == EVENTLOG_AUDIT_SUCCESS ||
           type == EVENTLOG_AUDIT_FAILURE;
}

/// What Windows refuses as too large before the event log service sees it.
bool IsTooLarge(WORD stringCount, DWORD dataSize, const LPCWSTR* strings) {
    constexpr WORD kMostStrings = 256;
    constexpr std::size_t kLongestString = 31839;
    constexpr DWORD kMostData = 61440;
    if (stringCount > kMostStrings || dataSize > kMostData) return true;
    return std::any_of(strings, strings + stringCount, [](LPCWSTR text) {
        return text != nullptr && std::wstring(text).length() > kLongestString;
    });
}

BOOL WINAPI WriteEvent(HANDLE handle, WORD type, WORD category, DWORD id, PSID sid, WORD stringCount,
                       DWORD dataSize, LPCWSTR* strings, LPVOID data) {
    if ((stringCount > 0 && strings == nullptr) || (dataSize > 0 && data == nullptr) || !IsType(type))
        return Report(ERROR_INVALID_PARAMETER);
    if (sid != nullptr && !::IsValidSid(sid)) return Report(ERROR_INVALID_SID);
    if (IsTooLarge(stringCount, dataSize, strings)) return Report(RPC_S_INVALID_BOUND);
    LogPointer log;
    if (!Report(Find(handle, log))) return FALSE;
    if (log->isBackup) return Report(ERROR_INVALID_HANDLE);
    Event event{log->source, type, category, id, {}, {}};
    for (WORD i = 0; i < stringCount; ++i)
        event.strings.emplace_back(strings[i] != nullptr ? strings[i] : L"");
    const auto* bytes = static_cast<const BYTE*>(data);
    if (dataSize > 0) event.data.assign(bytes, bytes + dataSize);
    const auto* sidBytes = static_cast<const BYTE*>(sid);
    if (sid != nullptr) event.sid.assign(sidBytes, sidBytes + ::GetLengthSid(sid));
    return Report(log->file.Append({event}));
}

BOOL WINAPI NumberOfRecords(HANDLE handle, PDWORD number) {
    if (number == nullptr) return Report(ERROR_INVALID_PARAMETER);
    LogPointer log;
    if (!Report(Find(handle, log))) return FALSE;
    *number = log->file.State().Count();
    return TRUE;
}

BOOL WINAPI OldestRecord(HANDLE handle, PDWORD oldest) {
    if (oldest == nullptr) return Report(ERROR_INVALID_PARAMETER);
    LogPointer log;
    if (!Report(Find(handle, log))) return FALSE;
    *oldest = log->file.State().oldest;
    return TRUE;
}

BOOL WINAPI NotifyChange(HANDLE handle, HANDLE event) {
    LogPointer log;
    if (!Report(Find(handle, log))) return FALSE;
    if (log->isBackup || event == nullptr) return Report(ERROR_INVALID_HANDLE);
    return Report(StartNotification(handle, log->file, event));
}

/// Whether exactly one of two flags is given.
bool HasOneOf(DWORD flags, DWORD one, DWORD other) {
    return ((flags & one) != 0) != ((flags & other) != 0);
}

BOOL WINAPI ReadRecords(HANDLE handle, DWORD flags, DWORD offset, LPVOID buffer, DWORD size, DWORD* read,
                        DWORD* needed) {
    constexpr DWORD kLargestBuffer = 0x7FFFF;
    if (buffer == nullptr || read == nullptr || needed == nullptr || size > kLargestBuffer ||
        !HasOneOf(flags, EVENTLOG_SEEK_READ, EVENTLOG_SEQUENTIAL_READ) ||
        !HasOneOf(flags, EVENTLOG_FORWARDS_READ, EVENTLOG_BACKWARDS_READ))
        return Report(ERROR_INVALID_PARAMETER);
    LogPointer log;
    if (!Report(Find(handle, log))) return FALSE;
    const Direction direction =
        (flags & EVENTLOG_FORWARDS_READ) != 0 ? Direction::kForwards : Direction::kBackwards;
    ReadPosition position = log->position;
    if ((flags & EVENTLOG_SEEK_READ) != 0 && !log->file.Find(offset, direction, position))
        return Report(ERROR_INVALID_PARAMETER);
    DWORD bytesRead = 0;
    DWORD bytesNeeded = 0;
    const DWORD result = log->file.Read(position, direction, buffer, size, bytesRead, bytesNeeded);
    // A failed read leaves the position where it was, and tells no sizes but the one that is needed.
    if (result == ERROR_SUCCESS) log->position = position;
    if (result == ERROR_SUCCESS || result == ERROR_INSUFFICIENT_BUFFER) {
        *read = bytesRead;
        *needed = bytesNeeded;
    }
    return Report(result);
}

BOOL WINAPI BackUp(HANDLE handle, LPCWSTR fileName) {
    if (fileName == nullptr || *fileName == L'\0') return Report(ERROR_INVALID_PARAMETER);
    LogPointer log;
    if (!Report(Find(handle, log))) return FALSE;
    return Report(log->file.BackUp(fileName));
}

BOOL WINAPI ClearLog(HANDLE handle, LPCWSTR backupFile) {
    LogPointer log;
    if (!Report(Find(handle, log))) return FALSE;
    if (log->isBackup) return Report(ERROR_INVALID_HANDLE);
    return Report(log->file.Clear(backupFile != nullptr ? backupFile : L""));
}

}  // namespace

std::vector<Replacement> EventLogReplacements() {
    static constexpr wchar_t kLibrary[] = L"advapi32.dll";
    return {
        {kLibrary, "RegisterEventSourceW", reinterpret_cast<void*>(&RegisterSource), nullptr},
        {kLibrary, "DeregisterEventSource", reinterpret_cast<void*>(&CloseHandleOf), nullptr},
        {kLibrary, "ReportEventW", reinterpret_cast<void*>(&WriteEvent), nullptr},
        {kLibrary, "OpenEventLogW", reinterpret_cast<void*>(&OpenLog), nullptr},
        {kLibrary, "OpenBackupEventLogW", reinterpret_cast<void*>(&OpenBackup), nullptr},
        {kLibrary, "CloseEventLog", reinterpret_cast<void*>(&CloseHandleOf), nullptr},
        {kLibrary, "GetNumberOfEventLogRecords", reinterpret_cast<void*>(&NumberOfRecords), nullptr},
        {kLibrary, "GetOldestEventLogRecord", reinterpret_cast<void*>(&OldestRecord), nullptr},
        {kLibrary, "ReadEventLogW", reinterpret_cast<void*>(&ReadRecords), nullptr},
        {kLibrary, "NotifyChangeEventLog", reinterpret_cast<void*>(&NotifyChange), nullptr},
        {kLibrary, "BackupEventLogW", reinterpret_cast<void*>(&BackUp), nullptr},
        {kLibrary, "ClearEventLogW", reinterpret_cast<void*>(&ClearLog), nullptr},
    };
}

}  // namespace wine_gap
