#include "running_station.h"

#include <algorithm>
#include <cstdio>
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

bool AllAre(const wchar_t* hidden) {
    const configuration_library::LogDeviceStore store;
    return std::ranges::all_of(kKinds, [&](const wchar_t* kind) {
        std::wstring value;
        store.GetValue(std::wstring(L"NX4120.") + kind + L".1", L"hidden", value);
        return value == hidden;
    });
}

/// Until all access points are so.
void WaitUntilAllAre(const wchar_t* hidden, const char* station) {
    const ULONGLONG end = ::GetTickCount64() + kTimeOutMs;
    while (!AllAre(hidden)) {
        if (::GetTickCount64() > end)
            throw std::runtime_error("the access points do not change, with the " + std::string(station));
        ::Sleep(0);
    }
}

}  // namespace

RunningService::RunningService()
    : manager_(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)),
      service_(
          ::OpenServiceW(manager_.get(), L"tessahost", SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS)) {
    ::StartServiceW(service_.get(), 0, nullptr);
    if (!Becomes(SERVICE_RUNNING)) throw std::runtime_error("the service does not start");
}

RunningService::~RunningService() {
    SERVICE_STATUS status = {};
    ::ControlService(service_.get(), SERVICE_CONTROL_STOP, &status);
    if (!Becomes(SERVICE_STOPPED)) std::fputs("tessabench: the service does not stop\n", stderr);
}

DWORD RunningService::ProcessId() const {
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    ::QueryServiceStatusEx(service_.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                           sizeof status, &needed);
    return status.dwProcessId;
}

bool RunningService::Becomes(DWORD state) const {
    SERVICE_STATUS status = {};
    const ULONGLONG end = ::GetTickCount64() + kTimeOutMs;
    while (::QueryServiceStatus(service_.get(), &status) && status.dwCurrentState != state) {
        if (::GetTickCount64() > end) break;
        ::Sleep(10);
    }
    return status.dwCurrentState == state;
}

RunningBareProcess::RunningBareProcess(const wchar_t* subject)
    : ready_(::CreateEventW(nullptr, FALSE, FALSE, kBareProcessIsReady)),
      stop_(::CreateEventW(nullptr, TRUE, FALSE, kBareProcessShallStop)) {
    wchar_t program[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring commandLine = L"\"" + std::wstring(program) + L"\" " + subject;
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
    times.visible = MillisecondsOf([&] {
        adapter_control::Plug(*nx4120);
        WaitUntilAllAre(L"false", station);
    });
    prepare();
    times.hidden = MillisecondsOf([&] {
        adapter_control::Unplug(*nx4120);
        WaitUntilAllAre(L"true", station);
    });
    return times;
}

void WaitUntilItListens() {
    ::Sleep(1000);
}

}  // namespace bench
