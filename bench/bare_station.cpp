#include <windows.h>
#include <dbt.h>
#include <winsvc.h>

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
#include "wine_gap_loader.h"

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

/// What the control handler tells the worker.
struct LastEvent {
    std::atomic<DWORD> type = 0;  // 0 ends the worker
    const UniqueKernelHandle wake{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
} lastEvent;

DWORD WINAPI HandleControl(DWORD control, DWORD eventType, void* /*eventData*/, void* /*context*/) {
    if (control == SERVICE_CONTROL_STOP)
        lastEvent.type = 0;
    else if (control == SERVICE_CONTROL_DEVICEEVENT &&
             (eventType == DBT_DEVICEARRIVAL || eventType == DBT_DEVICEREMOVECOMPLETE))
        lastEvent.type = eventType;
    else
        return NO_ERROR;
    ::SetEvent(lastEvent.wake.get());
    return NO_ERROR;
}

void Work() {
    for (;;) {
        ::WaitForSingleObject(lastEvent.wake.get(), INFINITE);
        const DWORD type = lastEvent.type;
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

HDEVNOTIFY WatchAdapter(SERVICE_STATUS_HANDLE service) {
    DEV_BROADCAST_DEVICEINTERFACE_W filter = {};
    filter.dbcc_size = sizeof filter;
    filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    filter.dbcc_classguid = tessaplug::kNx4120InterfaceGuid;
    return ::RegisterDeviceNotificationW(service, &filter, DEVICE_NOTIFY_SERVICE_HANDLE);
}

void Report(SERVICE_STATUS_HANDLE service, DWORD state, DWORD exitCode = NO_ERROR) {
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = SERVICE_ACCEPT_STOP;
    status.dwWin32ExitCode = exitCode;
    ::SetServiceStatus(service, &status);
}

void WINAPI ServiceMain(DWORD /*argc*/, wchar_t** /*argv*/) {
    const SERVICE_STATUS_HANDLE service =
        ::RegisterServiceCtrlHandlerExW(kBareStationService, &HandleControl, nullptr);
    const HDEVNOTIFY notification = WatchAdapter(service);
    if (notification == nullptr) return Report(service, SERVICE_STOPPED, ::GetLastError());
    std::thread worker(&Work);
    Report(service, SERVICE_RUNNING);
    worker.join();
    ::UnregisterDeviceNotification(notification);
    Report(service, SERVICE_STOPPED);
}

}  // namespace

void RunBareStation() {
    LoadWineGap();
    std::wstring name = kBareStationService;
    const SERVICE_TABLE_ENTRYW services[] = {{name.data(), &ServiceMain}, {nullptr, nullptr}};
    if (!::StartServiceCtrlDispatcherW(services))
        throw std::runtime_error("the bare station is run by the measurement only");
}

}  // namespace bench
