#include <windows.h>
#include <dbt.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bare_library.h"
#include "bare_process.h"
#include "component_store.h"
#include "station_manager.h"
#include "subjects.h"
#include "tessaplug_database.h"
#include "unique_handle.h"

namespace bench {
namespace {

/// What the plug-in asks of the station manager when an NX4120 goes, without the plug-in.
void StopComponentsBare() {
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    IUnknown* station = nullptr;
    ISetupSupport* setup = nullptr;
    ::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_LOCAL_SERVER, __uuidof(IUnknown),
                       reinterpret_cast<void**>(&station));
    if (FAILED(::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_ALL, __uuidof(ISetupSupport),
                                  reinterpret_cast<void**>(&setup))))
        throw std::runtime_error("no station manager");
    VARIANT data;
    ::VariantInit(&data);
    setup->GetData(STATION_CONFIG_DATA, &data);
    std::vector<station_manager::Component> components(data.parray->rgsabound[0].cElements /
                                                       sizeof(station_manager::Component));
    std::memcpy(components.data(), data.parray->pvData,
                components.size() * sizeof(station_manager::Component));
    ::VariantClear(&data);
    IComponentControl* control = nullptr;
    IDiagnostics* diagnostics = nullptr;
    station->QueryInterface(__uuidof(IComponentControl), reinterpret_cast<void**>(&control));
    station->QueryInterface(__uuidof(IDiagnostics), reinterpret_cast<void**>(&diagnostics));
    for (const station_manager::Component& component : components) {
        if (component.status != station_manager::kRunning ||
            std::strcmp(component.catalogEntry, "NX4120") != 0)
            continue;
        control->StopComponent(component.virtualDevice, 0);
        diagnostics->AddEntry(165, 0xA523, 1, static_cast<ULONG>(component.virtualDevice) << 24);
    }
    for (IUnknown* object : std::initializer_list<IUnknown*>{diagnostics, control, setup, station})
        object->Release();
    ::CoUninitialize();
}

/// What the window procedure tells the worker.
struct LastEvent {
    std::atomic<WPARAM> type = 0;  // 0 ends the worker
    const UniqueKernelHandle wake{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
} lastEvent;

LRESULT CALLBACK OnMessage(HWND window, UINT message, WPARAM type, LPARAM data) {
    if (message != WM_DEVICECHANGE) return ::DefWindowProcW(window, message, type, data);
    if (type == DBT_DEVICEARRIVAL || type == DBT_DEVICEREMOVECOMPLETE) {
        lastEvent.type = type;
        ::SetEvent(lastEvent.wake.get());
    }
    return TRUE;
}

void Work() {
    for (;;) {
        ::WaitForSingleObject(lastEvent.wake.get(), INFINITE);
        const WPARAM type = lastEvent.type;
        if (type == 0) return;
        try {
            if (type == DBT_DEVICEREMOVECOMPLETE) StopComponentsBare();
            BareLibrary().ShowOrHide(L"NX4120", type == DBT_DEVICEARRIVAL ? L"false" : L"true");
        } catch (const std::exception& error) {
            std::fprintf(stderr, "tessabench: bare station: %s\n", error.what());
            ::ExitProcess(1);
        }
    }
}

HDEVNOTIFY WatchAdapter(HWND window) {
    DEV_BROADCAST_DEVICEINTERFACE_W filter = {};
    filter.dbcc_size = sizeof filter;
    filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    filter.dbcc_classguid = tessaplug::kNx4120InterfaceGuid;
    return ::RegisterDeviceNotificationW(window, &filter, DEVICE_NOTIFY_WINDOW_HANDLE);
}

}  // namespace

void RunBareStation() {
    const UniqueKernelHandle ready(::OpenEventW(EVENT_MODIFY_STATE, FALSE, kBareProcessIsReady));
    const HANDLE stop = ::OpenEventW(SYNCHRONIZE, FALSE, kBareProcessShallStop);
    const UniqueKernelHandle stopOwner(stop);
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = &OnMessage;
    windowClass.lpszClassName = L"tessabench";
    ::RegisterClassW(&windowClass);
    const HWND window = ::CreateWindowExW(0, windowClass.lpszClassName, L"", 0, 0, 0, 0, 0, HWND_MESSAGE,
                                          nullptr, nullptr, nullptr);
    const HDEVNOTIFY notification = WatchAdapter(window);
    if (notification == nullptr || stop == nullptr || !ready)
        throw std::runtime_error("the bare station is run by the measurement only");
    std::thread worker(&Work);
    ::SetEvent(ready.get());
    while (::MsgWaitForMultipleObjects(1, &stop, FALSE, INFINITE, QS_ALLINPUT) == WAIT_OBJECT_0 + 1) {
        MSG message = {};
        while (::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
            ::DispatchMessageW(&message);
    }
    ::UnregisterDeviceNotification(notification);
    lastEvent.type = 0;
    ::SetEvent(lastEvent.wake.get());
    worker.join();
}

}  // namespace bench
