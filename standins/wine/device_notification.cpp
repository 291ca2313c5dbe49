#include <windows.h>
#include <dbt.h>
#include <winsvc.h>

#include <cstddef>
#include <deque>
#include <list>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "wine_gap.h"

// Wine accepts a registration for device notifications with a service status handle and never delivers to it;
// to a window it delivers. So each such registration gets a message-only window of its own, on one thread,
// that calls the service's handler with SERVICE_CONTROL_DEVICEEVENT.
//
// Windows calls the handler on the dispatcher's thread, for one control after the other, whichever control it
// is: a handler that does not return holds up all later ones. Here the handler is called by two threads,
// Wine's dispatcher and one for the device events; they take turns, in the order in which the controls have
// come. The window's thread only puts events down: Wine waits for a window two seconds, then it drops what it
// sends.
namespace wine_gap {
namespace {

struct ServiceHandler {
    LPHANDLER_FUNCTION_EX function = nullptr;
    void* context = nullptr;
};

/// Who calls a handler of this process next.
class Turns {
  public:
    ULONG64 Take() {
        ::AcquireSRWLockExclusive(&lock_);
        const ULONG64 turn = next_++;
        ::ReleaseSRWLockExclusive(&lock_);
        return turn;
    }
    void Await(ULONG64 turn) {
        ::AcquireSRWLockExclusive(&lock_);
        while (current_ != turn)
            ::SleepConditionVariableSRW(&passed_, &lock_, INFINITE, 0);
        ::ReleaseSRWLockExclusive(&lock_);
    }
    void Pass() {
        ::AcquireSRWLockExclusive(&lock_);
        ++current_;
        ::ReleaseSRWLockExclusive(&lock_);
        ::WakeAllConditionVariable(&passed_);
    }

  private:
    SRWLOCK lock_ = SRWLOCK_INIT;
    CONDITION_VARIABLE passed_ = CONDITION_VARIABLE_INIT;
    ULONG64 next_ = 0;
    ULONG64 current_ = 0;
};

struct DeviceEvent {
    ULONG64 turn;
    HWND window;
    DWORD eventType;
    std::vector<BYTE> data;
};

Turns turns;

std::mutex lock;  // guards what follows; not held while a handler is called
std::list<ServiceHandler> services;
std::map<SERVICE_STATUS_HANDLE, ServiceHandler> handlers;
std::map<HDEVNOTIFY, HWND> registrations;
std::map<HWND, ServiceHandler> recipients;
std::deque<DeviceEvent> events;

HANDLE eventsWaiting = nullptr;  // a semaphore: how many
HWND factory = nullptr;          // makes and destroys the other windows on their thread
constexpr wchar_t kWindowClass[] = L"WineGapDeviceNotification";
constexpr UINT kMakeWindow = WM_APP;         // result: the window
constexpr UINT kDestroyWindow = WM_APP + 1;  // lParam: the window

decltype(&::RegisterDeviceNotificationW) originalRegister = nullptr;
decltype(&::UnregisterDeviceNotification) originalUnregister = nullptr;
decltype(&::RegisterServiceCtrlHandlerExW) originalRegisterHandler = nullptr;

HWND MakeWindow() {
    return ::CreateWindowExW(0, kWindowClass, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
}

void PutDown(HWND window, DWORD eventType, const DEV_BROADCAST_HDR* header) {
    const auto* bytes = reinterpret_cast<const BYTE*>(header);
    const std::lock_guard guard(lock);
    events.push_back({turns.Take(), window, eventType, {bytes, bytes + header->dbch_size}});
    ::ReleaseSemaphore(eventsWaiting, 1, nullptr);
}

LRESULT CALLBACK WindowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
        case kMakeWindow:
            return reinterpret_cast<LRESULT>(MakeWindow());
        case kDestroyWindow:
            ::DestroyWindow(reinterpret_cast<HWND>(lParam));
            return 0;
        case WM_DEVICECHANGE:
            if (lParam != 0)
                PutDown(window, static_cast<DWORD>(wParam),
                        reinterpret_cast<const DEV_BROADCAST_HDR*>(lParam));
            return TRUE;
        default:
            return ::DefWindowProcW(window, message, wParam, lParam);
    }
}

DWORD WINAPI WindowThread(void* ready) {
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = &WindowProcedure;
    windowClass.lpszClassName = kWindowClass;
    ::RegisterClassW(&windowClass);
    factory = MakeWindow();
    ::SetEvent(ready);
    MSG message;
    while (::GetMessageW(&message, nullptr, 0, 0) > 0)
        ::DispatchMessageW(&message);
    return 0;
}

/// Whom an event is for; nobody if he has unregistered meanwhile.
ServiceHandler RecipientOf(HWND window) {
    const std::lock_guard guard(lock);
    const auto found = recipients.find(window);
    return found != recipients.end() ? found->second : ServiceHandler{};
}

DeviceEvent NextEvent() {
    ::WaitForSingleObject(eventsWaiting, INFINITE);
    const std::lock_guard guard(lock);
    DeviceEvent event = std::move(events.front());
    events.pop_front();
    return event;
}

DWORD WINAPI EventThread(void*) {
    for (;;) {
        DeviceEvent event = NextEvent();
        turns.Await(event.turn);
        if (const ServiceHandler handler = RecipientOf(event.window); handler.function != nullptr)
            handler.function(SERVICE_CONTROL_DEVICEEVENT, event.eventType, event.data.data(),
                             handler.context);
        turns.Pass();
    }
}

/// What Wine's dispatcher calls in place of a service's handler.
/// @param context the service's ServiceHandler
DWORD WINAPI CallInTurn(DWORD control, DWORD eventType, void* eventData, void* context) {
    const auto& handler = *static_cast<const ServiceHandler*>(context);
    turns.Await(turns.Take());
    const DWORD result = handler.function(control, eventType, eventData, handler.context);
    turns.Pass();
    return result;
}

bool StartThread(LPTHREAD_START_ROUTINE body, void* parameter) {
    const HANDLE thread = ::CreateThread(nullptr, 0, body, parameter, 0, nullptr);
    if (thread != nullptr) ::CloseHandle(thread);
    return thread != nullptr;
}

/// For services only: a window needs the display's driver, which takes longer to load than most programs run.
/// @return an error of Windows, or ERROR_SUCCESS
DWORD StartThreads() {
    static std::mutex starting;
    const std::lock_guard guard(starting);
    if (factory != nullptr) return ERROR_SUCCESS;
    eventsWaiting = ::CreateSemaphoreW(nullptr, 0, MAXLONG, nullptr);
    const HANDLE ready = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!StartThread(&EventThread, nullptr) || !StartThread(&WindowThread, ready)) return ::GetLastError();
    ::WaitForSingleObject(ready, INFINITE);
    ::CloseHandle(ready);
    return factory != nullptr ? ERROR_SUCCESS : ERROR_CANNOT_MAKE;
}

SERVICE_STATUS_HANDLE WINAPI RegisterHandler(LPCWSTR service, LPHANDLER_FUNCTION_EX function,
                                             LPVOID context) {
    if (function == nullptr) return originalRegisterHandler(service, function, context);
    if (const DWORD failed = StartThreads(); failed != ERROR_SUCCESS) {
        ::SetLastError(failed);
        return nullptr;
    }
    const std::lock_guard guard(lock);
    services.push_back({function, context});
    const SERVICE_STATUS_HANDLE handle = originalRegisterHandler(service, &CallInTurn, &services.back());
    if (handle != nullptr) handlers[handle] = services.back();
    return handle;
}

/// What is wrong with a registration; ERROR_SUCCESS if nothing is. Which devices can be asked for is
/// documented, the codes are those that Windows was seen to answer.
DWORD WhatIsWrongWith(HANDLE recipient, const DEV_BROADCAST_HDR* filter, DWORD flags) {
    constexpr DWORD kKnownFlags = DEVICE_NOTIFY_SERVICE_HANDLE | DEVICE_NOTIFY_ALL_INTERFACE_CLASSES;
    if (recipient == nullptr || filter == nullptr || (flags & ~kKnownFlags) != 0)
        return ERROR_INVALID_PARAMETER;
    if (filter->dbch_size < sizeof *filter) return ERROR_INVALID_DATA;
    switch (filter->dbch_devicetype) {
        case DBT_DEVTYP_DEVICEINTERFACE:
            return filter->dbch_size < sizeof(DEV_BROADCAST_DEVICEINTERFACE_W) ? ERROR_INVALID_DATA
                                                                               : ERROR_SUCCESS;
        case DBT_DEVTYP_HANDLE:
            if ((flags & DEVICE_NOTIFY_ALL_INTERFACE_CLASSES) != 0) return ERROR_INVALID_PARAMETER;
            return filter->dbch_size < offsetof(DEV_BROADCAST_HANDLE, dbch_data) ? ERROR_INVALID_DATA
                                                                                 : ERROR_NOT_SUPPORTED;
        default:
            return ERROR_INVALID_DATA;
    }
}

HDEVNOTIFY Refuse(DWORD error) {
    ::SetLastError(error);
    return nullptr;
}

HDEVNOTIFY WINAPI Register(HANDLE recipient, LPVOID filter, DWORD flags) {
    if (const DWORD wrong = WhatIsWrongWith(recipient, static_cast<const DEV_BROADCAST_HDR*>(filter), flags);
        wrong != ERROR_SUCCESS)
        return Refuse(wrong);
    if ((flags & DEVICE_NOTIFY_SERVICE_HANDLE) == 0) return originalRegister(recipient, filter, flags);
    // Not under the lock: the window's thread takes it.
    const HWND window = reinterpret_cast<HWND>(::SendMessageW(factory, kMakeWindow, 0, 0));
    {
        const std::lock_guard guard(lock);
        const auto found = handlers.find(static_cast<SERVICE_STATUS_HANDLE>(recipient));
        if (found != handlers.end()) recipients[window] = found->second;
    }
    DWORD error = ERROR_INVALID_HANDLE;
    HDEVNOTIFY notification = nullptr;
    if (RecipientOf(window).function != nullptr) {
        notification =
            originalRegister(window, filter, flags & ~static_cast<DWORD>(DEVICE_NOTIFY_SERVICE_HANDLE));
        error = ::GetLastError();
    }
    const std::lock_guard guard(lock);
    if (notification != nullptr) {
        registrations[notification] = window;
        return notification;
    }
    recipients.erase(window);
    ::PostMessageW(factory, kDestroyWindow, 0, reinterpret_cast<LPARAM>(window));
    return Refuse(error);
}

/// Does not wait for an event that is being handled; those that wait for their turn come no more.
BOOL WINAPI Unregister(HDEVNOTIFY notification) {
    HWND window = nullptr;
    {
        const std::lock_guard guard(lock);
        const auto found = registrations.find(notification);
        if (found != registrations.end()) {
            window = found->second;
            recipients.erase(window);
            registrations.erase(found);
        }
    }
    const BOOL result = originalUnregister(notification);
    if (window != nullptr) ::PostMessageW(factory, kDestroyWindow, 0, reinterpret_cast<LPARAM>(window));
    return result;
}

}  // namespace

std::vector<Replacement> DeviceNotificationReplacements() {
    return {
        {L"user32.dll", "RegisterDeviceNotificationW", reinterpret_cast<void*>(&Register),
         Slot(originalRegister)},
        {L"user32.dll", "UnregisterDeviceNotification", reinterpret_cast<void*>(&Unregister),
         Slot(originalUnregister)},
        {L"advapi32.dll", "RegisterServiceCtrlHandlerExW", reinterpret_cast<void*>(&RegisterHandler),
         Slot(originalRegisterHandler)},
    };
}

}  // namespace wine_gap
