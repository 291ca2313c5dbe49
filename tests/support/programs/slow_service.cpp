#include <windows.h>
#include <dbt.h>
#include <winsvc.h>

#include <string>

#include "wine_gap_loader.h"

// A service whose control handler takes its time, as none should: it waits in each device event of the
// stand-in adapter NX4120, and in the control 200, until the semaphore "Global\slow_service_goes_on" lets it
// go on. What the handler is called for, and when it is through, stands line by line in the file that is its
// argument: "begin 11", "end 11 NAME-OF-THE-DEVICE", "begin 1", "end 1".
namespace {

constexpr wchar_t kName[] = L"slow_service";

std::wstring recordPath;
HANDLE goesOn = nullptr;
HANDLE stop = nullptr;

void Record(const std::string& line) {
    const HANDLE file = ::CreateFileW(recordPath.c_str(), FILE_APPEND_DATA,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, 0, nullptr);
    DWORD written = 0;
    ::WriteFile(file, (line + "\n").c_str(), static_cast<DWORD>(line.size() + 1), &written, nullptr);
    ::CloseHandle(file);
}

std::string NameOf(const void* eventData) {
    std::string name;
    for (const wchar_t* at = static_cast<const DEV_BROADCAST_DEVICEINTERFACE_W*>(eventData)->dbcc_name; *at;
         ++at)
        name += static_cast<char>(*at);
    return name;
}

DWORD WINAPI HandleControl(DWORD control, DWORD, void* eventData, void*) {
    Record("begin " + std::to_string(control));
    std::string name;
    if (control == SERVICE_CONTROL_DEVICEEVENT || control == 200) ::WaitForSingleObject(goesOn, INFINITE);
    if (control == SERVICE_CONTROL_DEVICEEVENT) name = " " + NameOf(eventData);
    Record("end " + std::to_string(control) + name);
    if (control == SERVICE_CONTROL_STOP) ::SetEvent(stop);
    return NO_ERROR;
}

void Report(SERVICE_STATUS_HANDLE service, DWORD state) {
    SERVICE_STATUS status = {};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    ::SetServiceStatus(service, &status);
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
    LoadWineGap();
    goesOn = ::OpenSemaphoreW(SYNCHRONIZE, FALSE, L"Global\\slow_service_goes_on");
    stop = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const SERVICE_STATUS_HANDLE service = ::RegisterServiceCtrlHandlerExW(kName, &HandleControl, nullptr);
    DEV_BROADCAST_DEVICEINTERFACE_W filter = {};
    filter.dbcc_size = sizeof filter;
    filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    filter.dbcc_classguid = {0xAD4DCAAF, 0xA25B, 0x41BB, {0x80, 0x36, 0x04, 0x60, 0xA9, 0x89, 0xAF, 0xE1}};
    ::RegisterDeviceNotificationW(service, &filter, DEVICE_NOTIFY_SERVICE_HANDLE);
    Report(service, SERVICE_RUNNING);
    ::WaitForSingleObject(stop, INFINITE);
    Report(service, SERVICE_STOPPED);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc != 2) return 2;
    recordPath = argv[1];
    std::wstring name = kName;
    const SERVICE_TABLE_ENTRYW services[] = {{name.data(), &ServiceMain}, {nullptr, nullptr}};
    return ::StartServiceCtrlDispatcherW(services) ? 0 : 1;
}
