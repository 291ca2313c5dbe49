#pragma once

#include <windows.h>

#include <functional>
#include <unknwn.h>

#include "unique_handle.h"

/// What reacts to the adapter: the service or its bare counterpart, and the station manager beside them.
namespace bench {

using UniqueServiceHandle = UniqueHandle<SC_HANDLE, [](SC_HANDLE handle) { ::CloseServiceHandle(handle); }>;

/// A service that runs for as long as this lives.
class RunningServiceProcess {
  public:
    /// @param name an installed service's
    /// @throws std::runtime_error if it does not start
    explicit RunningServiceProcess(const wchar_t* name);
    /// A service that does not stop is told of on the standard error output.
    ~RunningServiceProcess();
    RunningServiceProcess(const RunningServiceProcess&) = delete;
    RunningServiceProcess& operator=(const RunningServiceProcess&) = delete;

    DWORD ProcessId() const;

  private:
    bool Becomes(DWORD state) const;

    const UniqueServiceHandle manager_;
    const UniqueServiceHandle service_;
};

/// The plug-in's host.
class RunningService : public RunningServiceProcess {
  public:
    static constexpr char kName[] = "service";
    RunningService() : RunningServiceProcess(L"tessahost") {}
};

/// The bare counterpart of both, a service as well. It stays installed.
class RunningBareStation : public RunningServiceProcess {
  public:
    static constexpr char kName[] = "bare-station";
    RunningBareStation() : RunningServiceProcess(Installed()) {}

  private:
    static const wchar_t* Installed();
};

/// A bare counterpart, a process of its own (bare_process.h), runs for as long as this lives.
class RunningBareProcess {
  public:
    /// @param subject the argument that makes this program the counterpart
    /// @throws std::runtime_error if it does not start
    explicit RunningBareProcess(const wchar_t* subject);
    ~RunningBareProcess();
    RunningBareProcess(const RunningBareProcess&) = delete;
    RunningBareProcess& operator=(const RunningBareProcess&) = delete;

    DWORD ProcessId() const { return ::GetProcessId(process_.get()); }

  private:
    const UniqueKernelHandle ready_;
    const UniqueKernelHandle stop_;
    UniqueKernelHandle process_;
};

/// The station manager runs for as long as this lives.
class KeptStationManager {
  public:
    /// @throws std::runtime_error if there is none
    KeptStationManager();
    ~KeptStationManager();
    KeptStationManager(const KeptStationManager&) = delete;
    KeptStationManager& operator=(const KeptStationManager&) = delete;

  private:
    IUnknown* kept_ = nullptr;
};

/// Makes the station manager's two components of "stationmgr init" run again.
void LetComponentsRun();

struct PlugTimes {
    double visible = 0;  ///< milliseconds from the plug until all access points are visible
    double hidden = 0;   ///< from the unplug until they are hidden
};

/// One plug and one unplug of the NX4120.
/// @param prepare called between them, for what the unplug shall find
/// @param station who reacts, for the message
/// @throws std::runtime_error if nobody reacts
PlugTimes PlugAndUnplug(const std::function<void()>& prepare, const char* station);

/// Until a station that has just been started hears of the adapter: Wine registers for notifications on a
/// thread of its own, and what comes before that is lost.
void WaitUntilItListens();

}  // namespace bench
