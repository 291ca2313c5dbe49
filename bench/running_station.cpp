#include "running_station.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <stdexcept>
#include <string>

#include "adapter_control.h"
#include "bare_library.h"
#include "bare_process.h"
#include "component_store.h"
#include "log_device_store.h"
#include "measure.h"
#include "station_manager.h"

namespace bench {
namespace {

constexpr DWORD kTimeOutMs = 30000;

/// What makes this program a bare counterpart.
std::wstring CommandLine(const wchar_t* subject) {
    wchar_t program[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, program, MAX_PATH);
    return L"\"" + std::wstring(program) + L"\" " + subject;
}

/// Of the NX4120's log devices the one that a station changes last.
const std::wstring kLastLogDevice = std::wstring(L"NX4120.") + *std::rbegin(kKinds) + L".1";

/// Where the configuration library's stand-in keeps that one: whoever asks for all of them again and again
/// gets in the way of the station that is measured.
class LastLogDevicesChanges {
  public:
    LastLogDevicesChanges() {
        HKEY key = nullptr;
        const std::wstring path =
            configuration_library::LogDeviceStore::DefaultRoot() + L"\\LogDevices\\" + kLastLogDevice;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_NOTIFY, &key) != ERROR_SUCCESS)
            throw std::runtime_error("there is no log device of the NX4120");
        key_.reset(key);
        Listen();
    }

    /// Waits for the next one since the object was made or since the last call.
    /// @return false if there is none in that time
    bool Wait(DWORD milliseconds) const {
        if (::WaitForSingleObject(changed_.get(), milliseconds) != WAIT_OBJECT_0) return false;
        Listen();
        return true;
    }

  private:
    void Listen() const {
        if (::RegNotifyChangeKeyValue(key_.get(), FALSE, REG_NOTIFY_CHANGE_LAST_SET, changed_.get(), TRUE) !=
            ERROR_SUCCESS)
            throw std::runtime_error("changes of the log device cannot be waited for");
    }

    UniqueRegistryKey key_;
    const UniqueKernelHandle changed_{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

bool AllAre(const wchar_t* hidden) {
    const configuration_library::LogDeviceStore store;
    return std::ranges::all_of(kKinds, [&](const wchar_t* kind) {
        std::wstring value;
        store.GetValue(std::wstring(L"NX4120.") + kind + L".1", L"hidden", value);
        return value == hidden;
    });
}

/// Milliseconds from the change of the device until all access points are so.
double TimeUntilAllAre(const wchar_t* hidden, const char* station, const std::function<void()>& change) {
    const LastLogDevicesChanges changes;
    return MillisecondsOf([&] {
        change();
        do {
            if (!changes.Wait(kTimeOutMs))
                throw std::runtime_error("the access points do not change, with the " + std::string(station));
        } while (!AllAre(hidden));
    });
}

}  // namespace

RunningServiceProcess::RunningServiceProcess(const wchar_t* name)
    : manager_(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)),
      service_(::OpenServiceW(manager_.get(), name, SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS)) {
    // Wine answers ERROR_INTERNAL_ERROR for a process that died before it came to its own code, which was
    // seen in one of some hundred starts.
    for (int tries = 3; !::StartServiceW(service_.get(), 0, nullptr); --tries) {
        const DWORD error = ::GetLastError();
        if (tries == 0 || error != ERROR_INTERNAL_ERROR)
            throw std::runtime_error("the service does not start, LE(" + std::to_string(error) + ")");
    }
    if (!Becomes(SERVICE_RUNNING)) throw std::runtime_error("the service does not come up");
}

RunningServiceProcess::~RunningServiceProcess() {
    SERVICE_STATUS status = {};
    ::ControlService(service_.get(), SERVICE_CONTROL_STOP, &status);
    if (!Becomes(SERVICE_STOPPED)) std::fputs("tessabench: the service does not stop\n", stderr);
}

DWORD RunningServiceProcess::ProcessId() const {
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    ::QueryServiceStatusEx(service_.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                           sizeof status, &needed);
    return status.dwProcessId;
}

bool RunningServiceProcess::Becomes(DWORD state) const {
    SERVICE_STATUS status = {};
    const ULONGLONG end = ::GetTickCount64() + kTimeOutMs;
    while (::QueryServiceStatus(service_.get(), &status) && status.dwCurrentState != state) {
        if (::GetTickCount64() > end) break;
        ::Sleep(10);
    }
    return status.dwCurrentState == state;
}

const wchar_t* RunningBareStation::Installed() {
    const UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE));
    const UniqueServiceHandle created(
        ::CreateServiceW(manager.get(), kBareStationService, kBareStationService, SERVICE_ALL_ACCESS,
                         SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                         CommandLine(L"bare-station").c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
    if (!created && ::GetLastError() != ERROR_SERVICE_EXISTS)
        throw std::runtime_error("the bare station cannot be installed");
    return kBareStationService;
}

RunningBareProcess::RunningBareProcess(const wchar_t* subject)
    : ready_(::CreateEventW(nullptr, FALSE, FALSE, kBareProcessIsReady)),
      stop_(::CreateEventW(nullptr, TRUE, FALSE, kBareProcessShallStop)) {
    std::wstring commandLine = CommandLine(subject);
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                          &process))
        throw std::runtime_error("the bare counterpart cannot be started");
    ::CloseHandle(process.hThread);
    process_ = UniqueKernelHandle(process.hProcess);
    if (::WaitForSingleObject(ready_.get(), kTimeOutMs) != WAIT_OBJECT_0)
        throw std::runtime_error("the bare counterpart does not start");
}

RunningBareProcess::~RunningBareProcess() {
    ::SetEvent(stop_.get());
    ::WaitForSingleObject(process_.get(), kTimeOutMs);
}

KeptStationManager::KeptStationManager() {
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_LOCAL_SERVER, __uuidof(IUnknown),
                                  reinterpret_cast<void**>(&kept_))))
        throw std::runtime_error("no station manager");
}

KeptStationManager::~KeptStationManager() {
    kept_->Release();
    ::CoUninitialize();
}

void LetComponentsRun() {
    const station_manager::ComponentStore components;
    for (const LONG virtualDevice : {2, 3})
        components.SetStatus(virtualDevice, station_manager::kRunning);
}

PlugTimes PlugAndUnplug(const std::function<void()>& prepare, const char* station) {
    const auto* nx4120 = adapter_control::FindModel(L"NX4120");
    PlugTimes times;
    times.visible = TimeUntilAllAre(L"false", station, [&] { adapter_control::Plug(*nx4120); });
    prepare();
    times.hidden = TimeUntilAllAre(L"true", station, [&] { adapter_control::Unplug(*nx4120); });
    return times;
}

void WaitUntilItListens() {
    ::Sleep(1000);
}

}  // namespace bench
