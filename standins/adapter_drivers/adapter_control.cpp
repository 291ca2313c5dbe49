#include "adapter_control.h"

#include <windows.h>
#include <newdev.h>
#include <setupapi.h>
#include <winioctl.h>
#include <winsvc.h>

#include <algorithm>
#include <cwchar>
#include <functional>
#include <memory>

#include "adapter_protocol.h"

namespace adapter_control {
namespace {

constexpr GUID kSystemClass = {0x4d36e97d, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};

const std::wstring kSystemLogKey = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\System\\";

[[noreturn]] void Fail(const std::string& what, DWORD code = ::GetLastError()) {
    throw AdapterError(what, code);
}

/// Closes what a system call opened at the end of a scope.
template <auto Close, typename Handle>
auto Owned(Handle handle) {
    return std::unique_ptr<std::remove_pointer_t<Handle>, decltype([](Handle h) { Close(h); })>(handle);
}

/// Calls `use` with every installed device of a model.
/// @return how many there are
int ForEachDevice(const Model& model, const std::function<void(HDEVINFO, SP_DEVINFO_DATA&)>& use) {
    const HDEVINFO set = ::SetupDiGetClassDevsW(&kSystemClass, nullptr, nullptr, 0);
    if (set == INVALID_HANDLE_VALUE) Fail("listing the devices failed");
    const auto owner = Owned<&::SetupDiDestroyDeviceInfoList>(set);
    int count = 0;
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof device;
    for (DWORD index = 0; ::SetupDiEnumDeviceInfo(set, index, &device); ++index) {
        wchar_t ids[512] = {};
        if (!::SetupDiGetDeviceRegistryPropertyW(set, &device, SPDRP_HARDWAREID, nullptr,
                                                 reinterpret_cast<BYTE*>(ids), sizeof ids - sizeof(wchar_t),
                                                 nullptr))
            continue;
        if (::_wcsicmp(ids, model.hardwareId) != 0) continue;
        use(set, device);
        ++count;
    }
    return count;
}

void RegisterDevice(const Model& model) {
    const HDEVINFO set = ::SetupDiCreateDeviceInfoList(&kSystemClass, nullptr);
    if (set == INVALID_HANDLE_VALUE) Fail("making a device list failed");
    const auto owner = Owned<&::SetupDiDestroyDeviceInfoList>(set);
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof device;
    if (!::SetupDiCreateDeviceInfoW(set, L"System", &kSystemClass, nullptr, nullptr, DICD_GENERATE_ID,
                                    &device))
        Fail("making the device failed");
    const std::wstring ids = std::wstring(model.hardwareId) + L'\0';
    if (!::SetupDiSetDeviceRegistryPropertyW(set, &device, SPDRP_HARDWAREID,
                                             reinterpret_cast<const BYTE*>(ids.c_str()),
                                             static_cast<DWORD>((ids.length() + 1) * sizeof(wchar_t))))
        Fail("setting the hardware identifier failed");
    if (!::SetupDiCallClassInstaller(DIF_REGISTERDEVICE, set, &device)) Fail("registering the device failed");
}

/// True once the driver runs and all its ports are started.
bool IsReady(const Model& model) {
    try {
        for (DWORD port = 0; port < ADAPTER_PORTS; ++port)
            Unplug(model, port);
        return true;
    } catch (const AdapterError&) {
        return false;
    }
}

/// Installs the driver and waits until it runs. A machine that has just booted may refuse to start a driver
/// for some seconds, which the system does not report: the installation is repeated then.
DWORD InstallDriver(const Model& model, const std::wstring& infPath) {
    constexpr ULONGLONG kTimeOut = 20000;
    const ULONGLONG deadline = ::GetTickCount64() + kTimeOut;
    do {
        BOOL reboot = FALSE;
        if (!::UpdateDriverForPlugAndPlayDevicesW(nullptr, model.hardwareId, infPath.c_str(),
                                                  INSTALLFLAG_FORCE, &reboot))
            return ::GetLastError();
        for (int i = 0; i < 10; ++i) {
            if (IsReady(model)) return ERROR_SUCCESS;
            ::Sleep(100);
        }
    } while (::GetTickCount64() < deadline);
    return ERROR_SERVICE_REQUEST_TIMEOUT;
}

void DeleteService(const Model& model) {
    const auto manager = Owned<&::CloseServiceHandle>(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) Fail("opening the service manager failed");
    const auto service =
        Owned<&::CloseServiceHandle>(::OpenServiceW(manager.get(), model.serviceName, DELETE | SERVICE_STOP));
    if (!service) return;
    SERVICE_STATUS status = {};
    ::ControlService(service.get(), SERVICE_CONTROL_STOP, &status);
    ::DeleteService(service.get());
}

void Send(const Model& model, DWORD request, void* input, DWORD size, const char* what) {
    const HANDLE device =
        ::CreateFileW((std::wstring(L"\\\\.\\") + model.controlDevice).c_str(), GENERIC_READ,
                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (device == INVALID_HANDLE_VALUE) Fail("the adapter's driver is not there; install it first");
    const auto owner = Owned<&::CloseHandle>(device);
    DWORD returned = 0;
    if (!::DeviceIoControl(device, request, input, size, nullptr, 0, &returned, nullptr)) Fail(what);
}

std::wstring DriverPath(const Model& model) {
    wchar_t folder[MAX_PATH] = {};
    ::GetSystemDirectoryW(folder, MAX_PATH);
    return std::wstring(folder) + L"\\drivers\\" + model.serviceName + L".sys";
}

/// Tells the event log where the texts of the driver's records are.
void RegisterEventSource(const Model& model) {
    const std::wstring key = kSystemLogKey + model.serviceName;
    const std::wstring file = DriverPath(model);
    const DWORD types = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
    LSTATUS result =
        ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"EventMessageFile", REG_SZ, file.c_str(),
                          static_cast<DWORD>((file.length() + 1) * sizeof(wchar_t)));
    if (result == ERROR_SUCCESS)
        result = ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"TypesSupported", REG_DWORD, &types,
                                   sizeof types);
    if (result != ERROR_SUCCESS) Fail("registering the event source failed", static_cast<DWORD>(result));
}

}  // namespace

AdapterError::AdapterError(const std::string& what, DWORD code)
    : std::runtime_error(what + " (error " + std::to_string(code) + ")"), code_(code) {}

const std::vector<Model>& Models() {
    static const std::vector<Model> models = {
        {L"FennlinkU3",
         L"Fennlink U3",
         ADAPTER_FENLU3_HARDWARE_ID,
         ADAPTER_FENLU3_CONTROL,
         L"fenlu3",
         {0x042C8EDC, 0xC410, 0x4FDB, {0xA9, 0x06, 0xD3, 0xBD, 0xBD, 0x84, 0xFD, 0xF4}}},
        {L"NX4120",
         L"NX4120",
         ADAPTER_NX4120_HARDWARE_ID,
         ADAPTER_NX4120_CONTROL,
         L"nx4120",
         {0xAD4DCAAF, 0xA25B, 0x41BB, {0x80, 0x36, 0x04, 0x60, 0xA9, 0x89, 0xAF, 0xE1}}},
    };
    return models;
}

const Model* FindModel(const std::wstring& name) {
    const auto found = std::ranges::find_if(Models(), [&name](const Model& model) {
        return ::_wcsicmp(model.name, name.c_str()) == 0 ||
               ::_wcsicmp(model.displayedName, name.c_str()) == 0;
    });
    return found != Models().end() ? &*found : nullptr;
}

bool IsInstalled(const Model& model) {
    int withDriver = 0;
    ForEachDevice(model, [&withDriver](HDEVINFO set, SP_DEVINFO_DATA& device) {
        // Written when the driver is assigned: an installation that was interrupted before has not done that.
        wchar_t service[64] = {};
        if (::SetupDiGetDeviceRegistryPropertyW(set, &device, SPDRP_SERVICE, nullptr,
                                                reinterpret_cast<BYTE*>(service), sizeof service, nullptr))
            ++withDriver;
    });
    return withDriver == ADAPTER_PORTS;
}

bool Install(const Model& model, const std::wstring& infPath) {
    if (IsInstalled(model)) return false;
    Uninstall(model);  // what an interrupted installation may have left
    for (int port = 0; port < ADAPTER_PORTS; ++port)
        RegisterDevice(model);
    RegisterEventSource(model);
    const DWORD error = InstallDriver(model, infPath);
    if (error != ERROR_SUCCESS) {
        Uninstall(model);  // nothing half-installed stays
        Fail("installing the driver failed", error);
    }
    return true;
}

bool Uninstall(const Model& model) {
    const int removed = ForEachDevice(model, [](HDEVINFO set, SP_DEVINFO_DATA& device) {
        if (!::SetupDiCallClassInstaller(DIF_REMOVE, set, &device)) Fail("removing the device failed");
    });
    DeleteService(model);
    ::DeleteFileW(DriverPath(model).c_str());
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, (kSystemLogKey + model.serviceName).c_str());
    return removed > 0;
}

void Plug(const Model& model, DWORD port) {
    Send(model, IOCTL_ADAPTER_PLUG, &port, sizeof port, "plugging in failed");
}

void Unplug(const Model& model, DWORD port) {
    Send(model, IOCTL_ADAPTER_UNPLUG, &port, sizeof port, "unplugging failed");
}

void Report(const Model& model, DWORD severity, const std::wstring& text) {
    ADAPTER_REPORT report = {};
    report.severity = severity;
    text.copy(report.text, ADAPTER_REPORT_TEXT - 1);
    Send(model, IOCTL_ADAPTER_REPORT, &report, sizeof report, "reporting failed");
}

std::vector<std::wstring> DevicePaths(const Model& model) {
    const HDEVINFO set = ::SetupDiGetClassDevsW(&model.interfaceClass, nullptr, nullptr,
                                                DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    if (set == INVALID_HANDLE_VALUE) Fail("listing the device interfaces failed");
    const auto owner = Owned<&::SetupDiDestroyDeviceInfoList>(set);
    std::vector<std::wstring> paths;
    SP_DEVICE_INTERFACE_DATA data = {};
    data.cbSize = sizeof data;
    for (DWORD index = 0; ::SetupDiEnumDeviceInterfaces(set, nullptr, &model.interfaceClass, index, &data);
         ++index) {
        if ((data.Flags & SPINT_ACTIVE) == 0) continue;
        BYTE buffer[2048] = {};
        auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(buffer);
        detail->cbSize = sizeof *detail;
        if (::SetupDiGetDeviceInterfaceDetailW(set, &data, detail, sizeof buffer, nullptr, nullptr))
            paths.emplace_back(detail->DevicePath);
    }
    return paths;
}

}  // namespace adapter_control
