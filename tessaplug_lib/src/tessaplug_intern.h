#pragma once

#include <windows.h>
#include <winsvc.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "tessaplug.h"
#include "tessaplug_cp_environ.h"
#include "tessaplug_database.h"
#include "tessaplug_eventlog_monitor.h"
#include "tessaplug_pnp.h"
#include "win_interprocess.h"

namespace tessaplug {

/// What a Service is built on.
struct ServiceCollaborators {
    std::vector<ModelRecord> models = CommunicationProcessorDbIf::create_database();
    std::shared_ptr<ServiceDbIf> settings = ServiceDbIf::create_database();
    std::shared_ptr<interprocess::CSystemMutex> instanceLock = std::make_shared<interprocess::CSystemMutex>();
    std::shared_ptr<DeviceNotifier> deviceNotifier = std::make_shared<DeviceNotifier>();
    std::shared_ptr<EventLogMonitor> eventLogMonitor = std::make_shared<EventLogMonitor>();
    std::function<void(DWORD)> sleep = [](DWORD milliseconds) { ::Sleep(milliseconds); };
};

/// The plug-in behind its exports. One for each process: its start is refused when it was started before,
/// also after a clean-up.
class Service {
  public:
    explicit Service(ServiceCollaborators collaborators = {});
    /// The fail-safe clean-up of library unload: no thread is joined. The request worker is left alone, the
    /// event-log monitor is asked to leave.
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Starts the plug-in; see tessaplug_init. The outcome is written to the event log.
    DWORD init(DWORD apiVersion, SERVICE_STATUS_HANDLE statusHandle, TESSAPLUG_STATUS_CALLBACK callback,
               void* hostContext, ULONG_PTR reserved);
    /// Stops the plug-in; see tessaplug_cleanup.
    void cleanup();
    /// Handles one service control; always returns 0.
    DWORD service_ctrl_handler(DWORD control, DWORD eventType, void* lpEventData, void* context);

  private:
    /// The start or clean-up that runs; a clean-up that comes meanwhile is left to it.
    class Turn;

    DWORD InitInTurn(DWORD apiVersion, SERVICE_STATUS_HANDLE statusHandle, TESSAPLUG_STATUS_CALLBACK callback,
                     void* hostContext, ULONG_PTR reserved);
    bool CheckArguments(DWORD apiVersion, SERVICE_STATUS_HANDLE statusHandle,
                        TESSAPLUG_STATUS_CALLBACK callback) const;
    bool TakeHost(SERVICE_STATUS_HANDLE statusHandle, TESSAPLUG_STATUS_CALLBACK callback, void* hostContext,
                  ULONG_PTR reserved);
    DWORD Start(Turn& turn);
    void BeginStep();
    SERVICE_STATUS_HANDLE StatusHandle();
    bool CheckSingleInstanceAndRegisterDeviceNotification();
    void CreateSharedMemoryAndMutexForCpIpc();
    void StartEventLogMonitor();
    void StartPnpThreadPool();
    void ReportStatus();
    void RollBackInitialization();
    void InternalCleanup(bool failSafe, bool rollBack);
    void StopPnpThreadPool(bool failSafe);
    void StopEventLogMonitor(bool failSafe, bool rollBack);
    void DeleteMonitorThread(bool failSafe);
    void CloseHandleSlot();
    void ForgetHost();
    bool ForgetHostAndTakeTurn();

    void HandleDeviceEvent(DWORD eventType, const void* lpEventData);
    static void GetGuidFrom(const void* lpEventData, GUID& guid);
    static void HandlePowerEvent(DWORD eventType, const void* lpEventData);

    // Released last by the clean-up. No start step fills it; it is kept for one that will.
    HANDLE handleSlot_ = nullptr;
    TESSAPLUG_STATUS_CALLBACK cbf_ = nullptr;       // set means initialised; never cleared
    CRITICAL_SECTION lock_;                         // guards cbf_ and the four below
    SERVICE_STATUS_HANDLE statusHandle_ = nullptr;  // null before the start and once a clean-up was asked for
    SERVICE_STATUS status_ = {};
    void* hostContext_ = nullptr;
    bool busy_ = false;           // a start or a clean-up runs
    std::atomic<int> chkVal = 0;  // status callbacks in progress
    std::vector<ModelRecord> cps_;
    std::shared_ptr<ServiceDbIf> settings_;
    std::shared_ptr<interprocess::CSystemMutex> instanceLock_;
    std::shared_ptr<DeviceNotifier> deviceNotifier_;
    std::shared_ptr<EventLogMonitor> eventLogMonitor_;
    std::function<void(DWORD)> sleep_;
    std::unique_ptr<std::thread> evMonTh_;
    // Whether the body of evMonTh_ has returned; shared with it.
    std::shared_ptr<std::atomic<bool>> evMonEnded_ = std::make_shared<std::atomic<bool>>(false);
    std::unique_ptr<CpEnvironment> cpEnv_;
    // Owned. Atomic, as the host's control handler looks at it while init or cleanup runs.
    std::atomic<DeviceMonitor*> pnpExec_ = nullptr;
};

}  // namespace tessaplug
