#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "adapter_control.h"
#include "bare_library.h"
#include "bare_station.h"
#include "component_store.h"
#include "log_device_store.h"
#include "measure.h"
#include "station_manager.h"
#include "subjects.h"
#include "unique_handle.h"

namespace bench {
namespace {

constexpr DWORD kTimeOutMs = 30000;

using UniqueServiceHandle = UniqueHandle<SC_HANDLE, [](SC_HANDLE handle) { ::CloseServiceHandle(handle); }>;

/// The service runs for as long as this lives.
class RunningService {
  public:
    static constexpr char kName[] = "service";

    RunningService()
        : manager_(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)),
          service_(::OpenServiceW(manager_.get(), L"tessahost",
                                  SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS)) {
        ::StartServiceW(service_.get(), 0, nullptr);
        WaitFor(SERVICE_RUNNING);
    }
    ~RunningService() {
        SERVICE_STATUS status = {};
        ::ControlService(service_.get(), SERVICE_CONTROL_STOP, &status);
        WaitFor(SERVICE_STOPPED);
    }
    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;

  private:
    void WaitFor(DWORD state) const {
        SERVICE_STATUS status = {};
        const ULONGLONG end = ::GetTickCount64() + kTimeOutMs;
        while (::QueryServiceStatus(service_.get(), &status) && status.dwCurrentState != state) {
            if (::GetTickCount64() > end) break;
            ::Sleep(10);
        }
        if (status.dwCurrentState != state) {
            std::fputs("tessabench: the service does not start or stop\n", stderr);
            ::ExitProcess(1);
        }
    }

    const UniqueServiceHandle manager_;
    const UniqueServiceHandle service_;
};

/// The bare station runs for as long as this lives.
class RunningBareStation {
  public:
    static constexpr char kName[] = "bare station";

    RunningBareStation()
        : ready_(::CreateEventW(nullptr, FALSE, FALSE, kBareStationIsReady)),
          stop_(::CreateEventW(nullptr, TRUE, FALSE, kBareStationShallStop)) {
        wchar_t program[MAX_PATH] = {};
        ::GetModuleFileNameW(nullptr, program, MAX_PATH);
        std::wstring commandLine = L"\"" + std::wstring(program) + L"\" bare-station";
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION process = {};
        if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                              &startup, &process))
            throw std::runtime_error("the bare station cannot be started");
        ::CloseHandle(process.hThread);
        process_ = UniqueKernelHandle(process.hProcess);
        if (::WaitForSingleObject(ready_.get(), kTimeOutMs) != WAIT_OBJECT_0)
            throw std::runtime_error("the bare station does not start");
    }
    ~RunningBareStation() {
        ::SetEvent(stop_.get());
        ::WaitForSingleObject(process_.get(), kTimeOutMs);
    }
    RunningBareStation(const RunningBareStation&) = delete;
    RunningBareStation& operator=(const RunningBareStation&) = delete;

  private:
    const UniqueKernelHandle ready_;
    const UniqueKernelHandle stop_;
    UniqueKernelHandle process_;
};

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

struct PlugTimes {
    double visible = 0;
    double hidden = 0;
};

/// One plug and one unplug, with what makes the station manager's components run again before.
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

/// The medians of a few, behind one that warms up.
template <typename Station>
PlugTimes TimesWith(const std::function<void()>& prepare, int count) {
    const Station station;
    ::Sleep(1000);  // Wine registers for notifications on a thread of its own; what comes before that is lost
    PlugAndUnplug(prepare, Station::kName);
    std::vector<double> visible;
    std::vector<double> hidden;
    for (int i = 0; i < count; ++i) {
        const PlugTimes times = PlugAndUnplug(prepare, Station::kName);
        visible.push_back(times.visible);
        hidden.push_back(times.hidden);
    }
    return {Median(visible), Median(hidden)};
}

/// The station manager runs for as long as this lives.
class KeptStationManager {
  public:
    KeptStationManager() {
        ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        if (FAILED(::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_LOCAL_SERVER, __uuidof(IUnknown),
                                      reinterpret_cast<void**>(&kept_))))
            throw std::runtime_error("no station manager");
    }
    ~KeptStationManager() {
        kept_->Release();
        ::CoUninitialize();
    }
    KeptStationManager(const KeptStationManager&) = delete;
    KeptStationManager& operator=(const KeptStationManager&) = delete;

  private:
    IUnknown* kept_ = nullptr;
};

void LetComponentsRun() {
    const station_manager::ComponentStore components;
    for (const LONG virtualDevice : {2, 3})
        components.SetStatus(virtualDevice, station_manager::kRunning);
}

/// Service and bare station take turns: both at once would get in each other's way.
/// @param visible, hidden what was measured is added
void Compare(Comparison& visible, Comparison& hidden, const std::function<void()>& prepare, int rounds,
             int count) {
    for (int round = 0; round < rounds; ++round) {
        const PlugTimes service = TimesWith<RunningService>(prepare, count);
        const PlugTimes bare = TimesWith<RunningBareStation>(prepare, count);
        visible.Add(service.visible, bare.visible);
        hidden.Add(service.hidden, bare.hidden);
    }
}

}  // namespace

void MeasurePlugEvents() {
    adapter_control::Unplug(*adapter_control::FindModel(L"NX4120"));
    Comparison visible;
    Comparison hidden;
    {
        const KeptStationManager kept;
        Compare(visible, hidden, &LetComponentsRun, kRounds, 3);
    }
    Print("plug to visible, by the bare station", "plug to visible", "ms", visible);
    Print("unplug to hidden, by the bare station", "unplug to hidden, station manager running", "ms", hidden);
    constexpr int kSlowRounds = 11;
    Comparison started;
    Compare(
        visible, started,
        [] {
            LetComponentsRun();
            ::Sleep(200);  // until the station manager used last has ended
        },
        kSlowRounds, 1);
    Print("unplug to hidden, by the bare station", "unplug to hidden, station manager started by COM", "ms",
          started);
}

}  // namespace bench
