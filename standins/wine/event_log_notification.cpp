#include "event_log_notification.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "event_log_settings.h"

namespace wine_gap {
namespace {

constexpr ULONGLONG kQuietMs = 5000;

/// A thread watches the registry for all logs and processes; it is started with the first registration and
/// stays.
struct Notification {
    HANDLE handle;
    EventLogFile file;
    HANDLE event;
    DWORD next;
    DWORD serviceRestarts;
    ULONGLONG quietUntil = 0;
};
std::mutex notificationLock;  // guards the rest
std::vector<Notification> notifications;
bool watcherRuns = false;
HANDLE isRegistered = nullptr;  // auto-reset: somebody new is to be told of changes

void Tell(Notification& notification) {
    if (EventLogSetting(kNotificationSets) != 0) {
        ::SetEvent(notification.event);
        return;
    }
    const ULONGLONG now = ::GetTickCount64();
    if (now < notification.quietUntil) return;
    notification.quietUntil = now + kQuietMs;
    ::PulseEvent(notification.event);
}

void TellOfChanges() {
    const std::lock_guard guard(notificationLock);
    if (EventLogSetting(kServiceIsStopped) != 0) return;
    const DWORD serviceRestarts = EventLogSetting(kServiceRestarts);
    for (Notification& notification : notifications) {
        if (notification.serviceRestarts != serviceRestarts) continue;
        const DWORD next = notification.file.State().next;
        if (next == notification.next) continue;
        notification.next = next;
        Tell(notification);
    }
}

/// For how long nobody can be told of anything, in milliseconds.
DWORD QuietTime() {
    const std::lock_guard guard(notificationLock);
    if (notifications.empty() || EventLogSetting(kNotificationSets) != 0) return 0;
    const ULONGLONG now = ::GetTickCount64();
    const ULONGLONG end = std::ranges::min(notifications, {}, &Notification::quietUntil).quietUntil;
    return end > now ? static_cast<DWORD>(end - now) : 0;
}

/// What came in the quiet time is not told afterwards either.
void SkipUntold() {
    const std::lock_guard guard(notificationLock);
    const ULONGLONG now = ::GetTickCount64();
    for (Notification& notification : notifications)
        if (notification.quietUntil <= now) notification.next = notification.file.State().next;
}

DWORD WINAPI WatchChanges(void* changesKey) {
    const auto key = static_cast<HKEY>(changesKey);
    const HANDLE changed = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    // First the registration, then the look, so that no change falls between.
    while (::RegNotifyChangeKeyValue(key, TRUE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET, changed,
                                     TRUE) == ERROR_SUCCESS) {
        TellOfChanges();
        // Not a look at each change of a flood, in the process of whoever waits for the log.
        if (const DWORD quiet = QuietTime();
            quiet > 0 && ::WaitForSingleObject(isRegistered, quiet) == WAIT_TIMEOUT)
            SkipUntold();
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
    if (isRegistered == nullptr) isRegistered = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const HANDLE thread = ::CreateThread(nullptr, 0, &WatchChanges, key, 0, nullptr);
    if (thread == nullptr) return ::GetLastError();
    ::CloseHandle(thread);
    watcherRuns = true;
    return ERROR_SUCCESS;
}

}  // namespace

DWORD StartNotification(HANDLE handle, const EventLogFile& file, HANDLE event) {
    const std::lock_guard guard(notificationLock);
    notifications.push_back({handle, file, event, file.State().next, EventLogSetting(kServiceRestarts)});
    const DWORD result = StartWatcher();
    ::SetEvent(isRegistered);
    return result;
}

void EndNotifications(HANDLE handle) {
    const std::lock_guard guard(notificationLock);
    std::erase_if(notifications,
                  [handle](const Notification& notification) { return notification.handle == handle; });
}

}  // namespace wine_gap
