#include <windows.h>
#include <dbt.h>
#include <winsvc.h>

#include <map>
#include <mutex>

#include "wine_gap.h"

// Wine accepts a registration for device notifications with a service status handle and never delivers to it;
// to a window it delivers. So each such registration gets a message-only window of its own, on one thread,
// that calls the service's handler with SERVICE_CONTROL_DEVICEEVENT.
//
// Windows calls the handler on the dispatcher's thread, one control at a time. Here device events come one at
// a time as well, but on a thread of their own, beside the dispatcher's other controls.
namespace wine_gap {
namespace {

struct ServiceHandler {
    LPHANDLER_FUNCTION_EX function = nullptr;
    void* context = nullptr;
};

struct Registration {
    ServiceHandler handler;
    HWND window = nullptr;
};

std::mutex lock;  // guards the two maps
std::map<SERVICE_STATUS_HANDLE, ServiceHandler> handlers;
std::map<HDEVNOTIFY, Registration> registrations;

HWND factory = nullptr;  // makes and destroys the others on their thread
constexpr wchar_t kWindowClass[] = L"WineGapDeviceNotification";
constexpr UINT kMakeWindow = WM_APP;         // lParam: ServiceHandler*, result: the window
constexpr UINT kDestroyWindow = WM_APP + 1;  // lParam: the window

decltype(&::RegisterDeviceNotificationW) originalRegister = nullptr;
decltype(&::UnregisterDeviceNotification) originalUnregister = nullptr;
decltype(&::RegisterServiceCtrlHandlerExW) originalRegisterHandler = nullptr;

/// Whom each window delivers to; touched on the window thread only.
std::map<HWND, ServiceHandler> recipients;

HWND MakeWindow(const ServiceHandler* handler) {
    const HWND window =
        ::CreateWindowExW(0, kWindowClass, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
    if (window != nullptr && handler != nullptr) recipients[window] = *handler;
    return window;
}

void ForgetWindow(HWND window) {
    recipients.erase(window);
    ::DestroyWindow(window);
}

LRESULT CALLBACK WindowProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
        case kMakeWindow:
            return reinterpret_cast<LRESULT>(MakeWindow(reinterpret_cast<const ServiceHandler*>(lParam)));
        case kDestroyWindow:
            ForgetWindow(reinterpret_cast<HWND>(lParam));
            return 0;
        case WM_DEVICECHANGE: {
            const auto recipient = recipients.find(window);
            if (recipient == recipients.end() || lParam == 0) return TRUE;
            const ServiceHandler handler = recipient->second;  // the handler may unregister itself
            handler.function(SERVICE_CONTROL_DEVICEEVENT, static_cast<DWORD>(wParam),
                             reinterpret_cast<void*>(lParam), handler.context);
            return TRUE;
        }
        default:
            return ::DefWindowProcW(window, message, wParam, lParam);
    }
}

DWORD WINAPI WindowThread(void* ready) {
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = &WindowProcedure;
    windowClass.lpszClassName = kWindowClass;
    ::RegisterClassW(&windowClass);
    factory = MakeWindow(nullptr);
    ::SetEvent(ready);
    MSG message;
    while (::GetMessageW(&message, nullptr, 0, 0) > 0)
        ::DispatchMessageW(&message);
    return 0;
}

SERVICE_STATUS_HANDLE WINAPI RegisterHandler(LPCWSTR service, LPHANDLER_FUNCTION_EX function,
                                             LPVOID context) {
    const SERVICE_STATUS_HANDLE handle = originalRegisterHandler(service, function, context);
    if (handle != nullptr) {
        const std::lock_guard guard(lock);
        handlers[handle] = {function, context};
    }
    return handle;
}

HDEVNOTIFY WINAPI Register(HANDLE recipient, LPVOID filter, DWORD flags) {
    if ((flags & DEVICE_NOTIFY_SERVICE_HANDLE) == 0) return originalRegister(recipient, filter, flags);
    Registration registration;
    {
        const std::lock_guard guard(lock);
        const auto found = handlers.find(static_cast<SERVICE_STATUS_HANDLE>(recipient));
        if (found == handlers.end()) {
            ::SetLastError(ERROR_INVALID_HANDLE);
            return nullptr;
        }
        registration.handler = found->second;
    }
    registration.window = reinterpret_cast<HWND>(
        ::SendMessageW(factory, kMakeWindow, 0, reinterpret_cast<LPARAM>(&registration.handler)));
    const HDEVNOTIFY notification = originalRegister(
        registration.window, filter, flags & ~static_cast<DWORD>(DEVICE_NOTIFY_SERVICE_HANDLE));
    if (notification == nullptr) {
        const DWORD error = ::GetLastError();
        ::SendMessageW(factory, kDestroyWindow, 0, reinterpret_cast<LPARAM>(registration.window));
        ::SetLastError(error);
        return nullptr;
    }
    const std::lock_guard guard(lock);
    registrations[notification] = registration;
    return notification;
}

BOOL WINAPI Unregister(HDEVNOTIFY notification) {
    Registration registration;
    {
        const std::lock_guard guard(lock);
        const auto found = registrations.find(notification);
        if (found != registrations.end()) {
            registration = found->second;
            registrations.erase(found);
        }
    }
    const BOOL result = originalUnregister(notification);
    // Waits for a delivery that is under way: afterwards nothing more comes.
    if (registration.window != nullptr)
        ::SendMessageW(factory, kDestroyWindow, 0, reinterpret_cast<LPARAM>(registration.window));
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

DWORD StartDeviceNotifications() {
    const HANDLE ready = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const HANDLE thread = ::CreateThread(nullptr, 0, &WindowThread, ready, 0, nullptr);
    if (thread == nullptr) return ::GetLastError();
    ::WaitForSingleObject(ready, INFINITE);
    ::CloseHandle(thread);
    ::CloseHandle(ready);
    return factory != nullptr ? ERROR_SUCCESS : ERROR_CANNOT_MAKE;
}

}  // namespace wine_gap
