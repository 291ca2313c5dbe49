#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "event_log_file.h"
#include "wine_gap.h"

// The functions of the classic event log, on the files of event_log_file.h.
namespace wine_gap {
namespace {

constexpr wchar_t kLogsKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog";

/// What an event log handle stands for.
struct LogHandle {
    static constexpr DWORD kTag = 0x474F4C45;
    DWORD tag = kTag;
    std::wstring source;  // of handles for writing
    std::wstring log;     // "Application", "System"...
    ReadPosition position;
};

LogHandle* From(HANDLE handle) {
    auto* log = static_cast<LogHandle*>(handle);
    if (log != nullptr && log->tag == LogHandle::kTag) return log;
    ::SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

BOOL Report(DWORD result) {
    if (result != ERROR_SUCCESS) ::SetLastError(result);
    return result == ERROR_SUCCESS;
}

/// Who is to be told of changes. A thread watches the registry for all logs and processes; it is started with
/// the first registration and stays.
struct Notification {
    LogHandle* handle;
    HANDLE event;
    DWORD generation;
    DWORD next;
};
std::mutex notificationLock;  // guards the rest
std::vector<Notification> notifications;
bool watcherRuns = false;

void SignalChanges() {
    const std::lock_guard guard(notificationLock);
    for (Notification& notification : notifications) {
        const LogState state = EventLogFile(notification.handle->log).State();
        if (state.generation == notification.generation && state.next == notification.next) continue;
        notification.generation = state.generation;
        notification.next = state.next;
        ::SetEvent(notification.event);
    }
}

DWORD WINAPI WatchChanges(void* changesKey) {
    const auto key = static_cast<HKEY>(changesKey);
    const HANDLE changed = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    // First the registration, then the look, so that no change falls between.
    while (::RegNotifyChangeKeyValue(key, TRUE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET, changed,
                                     TRUE) == ERROR_SUCCESS) {
        SignalChanges();
        ::WaitForSingleObject(changed, INFINITE);
    }
    ::CloseHandle(changed);
    ::RegCloseKey(key);
    return 0;
}

DWORD StartWatcher() {
    if (watcherRuns) return ERROR_SUCCESS;
    HKEY key = nullptr;
    if (const LSTATUS result =
            ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, (std::wstring(kEventLogChangesKey) + L"\\Kernel").c_str(),
                              0, nullptr, 0, KEY_READ, nullptr, &key, nullptr);
        result != ERROR_SUCCESS)
        return static_cast<DWORD>(result);
    ::RegCloseKey(key);
    if (const LSTATUS result = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kEventLogChangesKey, 0, KEY_READ, &key);
        result != ERROR_SUCCESS)
        return static_cast<DWORD>(result);
    const HANDLE thread = ::CreateThread(nullptr, 0, &WatchChanges, key, 0, nullptr);
    if (thread == nullptr) return ::GetLastError();
    ::CloseHandle(thread);
    watcherRuns = true;
    return ERROR_SUCCESS;
}

BOOL WINAPI NotifyChange(HANDLE handle, HANDLE event) {
    LogHandle* log = From(handle);
    if (log == nullptr) return FALSE;
    const std::lock_guard guard(notificationLock);
    const LogState state = EventLogFile(log->log).State();
    notifications.push_back({log, event, state.generation, state.next});
    return Report(StartWatcher());
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
    const std::lock_guard guard(notificationLock);
    std::erase_if(notifications,
                  [log](const Notification& notification) { return notification.handle == log; });
    log->tag = 0;
    delete log;
    return TRUE;
}

BOOL WINAPI WriteEvent(HANDLE handle, WORD type, WORD category, DWORD id, PSID, WORD stringCount,
                       DWORD dataSize, LPCWSTR* strings, LPVOID data) {
    const LogHandle* log = From(handle);
    if (log == nullptr) return FALSE;
    Event event{log->source, type, category, id, {}, {}};
    for (WORD i = 0; i < stringCount; ++i)
        event.strings.emplace_back(strings[i] != nullptr ? strings[i] : L"");
    const auto* bytes = static_cast<const BYTE*>(data);
    if (dataSize > 0) event.data.assign(bytes, bytes + dataSize);
    return Report(EventLogFile(log->log).Append({event}));
}

HANDLE WINAPI OpenLog(LPCWSTR, LPCWSTR name) {
    if (name == nullptr || *name == L'\0') {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto* handle = new LogHandle;
    handle->log = name;
    handle->position = EventLogFile(name).Start();
    return handle;
}

BOOL WINAPI NumberOfRecords(HANDLE handle, PDWORD number) {
    const LogHandle* log = From(handle);
    if (log == nullptr) return FALSE;
    *number = EventLogFile(log->log).State().Count();
    return TRUE;
}

BOOL WINAPI OldestRecord(HANDLE handle, PDWORD oldest) {
    const LogHandle* log = From(handle);
    if (log == nullptr) return FALSE;
    *oldest = EventLogFile(log->log).State().oldest;
    return TRUE;
}

/// Forwards only, sequentially or from a record number.
BOOL WINAPI ReadRecords(HANDLE handle, DWORD flags, DWORD offset, LPVOID buffer, DWORD size, DWORD* read,
                        DWORD* needed) {
    LogHandle* log = From(handle);
    if (log == nullptr) return FALSE;
    if ((flags & EVENTLOG_FORWARDS_READ) == 0) return Report(ERROR_INVALID_PARAMETER);
    const EventLogFile file(log->log);
    ReadPosition position = log->position;
    if ((flags & EVENTLOG_SEEK_READ) != 0 && !file.Find(offset, position))
        return Report(ERROR_INVALID_PARAMETER);
    // A failed read leaves the position where it was.
    const DWORD result = file.Read(position, buffer, size, *read, *needed);
    if (result == ERROR_SUCCESS) log->position = position;
    return Report(result);
}

BOOL WINAPI ClearLog(HANDLE handle, LPCWSTR backupFile) {
    const LogHandle* log = From(handle);
    if (log == nullptr) return FALSE;
    if (backupFile != nullptr) return Report(ERROR_NOT_SUPPORTED);
    return Report(EventLogFile(log->log).Clear());
}

}  // namespace

std::vector<Replacement> EventLogReplacements() {
    static constexpr wchar_t kLibrary[] = L"advapi32.dll";
    return {
        {kLibrary, "RegisterEventSourceW", reinterpret_cast<void*>(&RegisterSource), nullptr},
        {kLibrary, "DeregisterEventSource", reinterpret_cast<void*>(&CloseHandleOf), nullptr},
        {kLibrary, "ReportEventW", reinterpret_cast<void*>(&WriteEvent), nullptr},
        {kLibrary, "OpenEventLogW", reinterpret_cast<void*>(&OpenLog), nullptr},
        {kLibrary, "CloseEventLog", reinterpret_cast<void*>(&CloseHandleOf), nullptr},
        {kLibrary, "GetNumberOfEventLogRecords", reinterpret_cast<void*>(&NumberOfRecords), nullptr},
        {kLibrary, "GetOldestEventLogRecord", reinterpret_cast<void*>(&OldestRecord), nullptr},
        {kLibrary, "ReadEventLogW", reinterpret_cast<void*>(&ReadRecords), nullptr},
        {kLibrary, "NotifyChangeEventLog", reinterpret_cast<void*>(&NotifyChange), nullptr},
        {kLibrary, "ClearEventLogW", reinterpret_cast<void*>(&ClearLog), nullptr},
    };
}

}  // namespace wine_gap
