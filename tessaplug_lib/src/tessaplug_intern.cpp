#include "tessaplug_intern.h"

#include <windows.h>
#include <dbt.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "structured_exception.h"
#include "toolbox.h"
#include "trace_point.h"
#include "windows_api_excp.h"

TRACE_SOURCE("tessaplug_lib\\src\\tessaplug_intern", "8b5d2e70-6a9c-4f14-9d3b-1c7e4f8a2d14", trace::kModule);

namespace tessaplug {
namespace {

/// Holds the service's lock for one scope. A thread may take it once more.
class Guard {
  public:
    explicit Guard(CRITICAL_SECTION& lock) : lock_(lock) { ::EnterCriticalSection(&lock_); }
    ~Guard() { ::LeaveCriticalSection(&lock_); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

  private:
    CRITICAL_SECTION& lock_;
};

const char* PowerEventName(DWORD eventType) {
    FUNCTION_TRACE();
    switch (eventType) {
        case PBT_APMQUERYSUSPEND:
            return "PBT_APMQUERYSUSPEND";
        case PBT_APMQUERYSUSPENDFAILED:
            return "PBT_APMQUERYSUSPENDFAILED";
        case PBT_APMSUSPEND:
            return "PBT_APMSUSPEND";
        case PBT_APMRESUMECRITICAL:
            return "PBT_APMRESUMECRITICAL";
        case PBT_APMRESUMESUSPEND:
            return "PBT_APMRESUMESUSPEND";
        case PBT_APMBATTERYLOW:
            return "PBT_APMBATTERYLOW";
        case PBT_APMPOWERSTATUSCHANGE:
            return "PBT_APMPOWERSTATUSCHANGE";
        case PBT_APMOEMEVENT:
            return "PBT_APMOEMEVENT";
        case PBT_APMRESUMEAUTOMATIC:
            return "PBT_APMRESUMEAUTOMATIC";
        default:
            return "UNKONW: PBT_APM!";  // spelled so: engineers search old traces for it
    }
}

const char* PowerSettingName(const GUID& setting) {
    FUNCTION_TRACE();
    static constexpr struct {
        const GUID& guid;
        const char* name;
    } kNames[] = {
        {GUID_ACDC_POWER_SOURCE, "GUID_ACDC_POWER_SOURCE"},
        {GUID_BATTERY_PERCENTAGE_REMAINING, "GUID_BATTERY_PERCENTAGE_REMAINING"},
        {GUID_IDLE_BACKGROUND_TASK, "GUID_IDLE_BACKGROUND_TASK"},
        {GUID_MONITOR_POWER_ON, "GUID_MONITOR_POWER_ON"},
        {GUID_POWERSCHEME_PERSONALITY, "GUID_POWERSCHEME_PERSONALITY"},
        {GUID_SYSTEM_AWAYMODE, "GUID_SYSTEM_AWAYMODE"},
    };
    for (const auto& known : kNames)
        if (IsEqualGUID(known.guid, setting)) return known.name;
    return "UNKNOWN! PWR SETTING GUID!";
}

/// A copy of what a device event carries, as far as its type goes.
struct DeviceEventData {
    DEV_BROADCAST_HDR header;
    GUID interfaceClass;
    wchar_t name[MAX_PATH];  ///< for the trace; cut off where it is longer
};

/// Reads the host's memory, which may not be there: nothing is held meanwhile.
/// @throws operating_system::ForeignException if it cannot be read
DeviceEventData ReadDeviceEventData(const void* lpEventData) {
    FUNCTION_TRACE();
    DeviceEventData data = {};
    operating_system::CallForeign([&] {
        data.header = *static_cast<const DEV_BROADCAST_HDR*>(lpEventData);
        if (data.header.dbch_devicetype != DBT_DEVTYP_DEVICEINTERFACE) return;
        const auto* deviceInterface = static_cast<const DEV_BROADCAST_DEVICEINTERFACE_W*>(lpEventData);
        data.interfaceClass = deviceInterface->dbcc_classguid;
        // dbch_size covers the name, whose terminating zero need not be there.
        constexpr std::size_t kNameOffset = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name);
        if (data.header.dbch_size <= kNameOffset) return;
        const std::size_t length =
            std::min((data.header.dbch_size - kNameOffset) / sizeof(wchar_t), std::size(data.name) - 1);
        for (std::size_t i = 0; i < length && deviceInterface->dbcc_name[i] != L'\0'; ++i)
            data.name[i] = deviceInterface->dbcc_name[i];
    });
    return data;
}

/// The host frees the library after the clean-up: a thread that is still in it, as while a message box of its
/// is open, would come back to code that is gone.
void KeepModuleLoaded() {
    FUNCTION_TRACE();
    HMODULE module = nullptr;
    if (!::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                              reinterpret_cast<const wchar_t*>(&KeepModuleLoaded), &module))
        TRACE_ERROR(37, "GetModuleHandleExW() failed, LE(%u)", ::GetLastError());
}

}  // namespace

Service::Service(ServiceCollaborators collaborators)
    : cps_(std::move(collaborators.models)),
      settings_(std::move(collaborators.settings)),
      instanceLock_(std::move(collaborators.instanceLock)),
      deviceNotifier_(std::move(collaborators.deviceNotifier)),
      eventLogMonitor_(std::move(collaborators.eventLogMonitor)),
      sleep_(std::move(collaborators.sleep)) {
    FUNCTION_TRACE();
    ::InitializeCriticalSection(&lock_);
    status_.dwCheckPoint = 1;
}

Service::~Service() {
    FUNCTION_TRACE();
    try {
        ForgetHost();
        InternalCleanup(true, false);
    } catch (...) {
        MODUL_FAIL("EXCEPTION in DTOR!");
    }
    // A thread that is still there cannot be joined, nor may its object be destroyed as it is.
    if (evMonTh_ != nullptr && evMonTh_->joinable()) evMonTh_->detach();
    ::DeleteCriticalSection(&lock_);
}

class Service::Turn {
  public:
    explicit Turn(Service& service) : service_(&service) {}
    ~Turn() {
        if (service_ == nullptr) return;
        const Guard guard(service_->lock_);
        service_->busy_ = false;
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    /// Ends the turn of a start, unless a clean-up was asked for meanwhile: one that comes later runs itself.
    bool EndUnlessCleanedUp() {
        const Guard guard(service_->lock_);
        if (service_->statusHandle_ == nullptr) return false;
        service_->busy_ = false;
        service_ = nullptr;
        return true;
    }

  private:
    Service* service_;
};

DWORD Service::init(DWORD apiVersion, SERVICE_STATUS_HANDLE statusHandle, TESSAPLUG_STATUS_CALLBACK callback,
                    void* hostContext, ULONG_PTR reserved) {
    FUNCTION_TRACE();
    const DWORD started = InitInTurn(apiVersion, statusHandle, callback, hostContext, reserved);
    if (started != 0)
        _ModulSysLog_00(1, TESSAPLUG_EVENT_STARTED);
    else
        _ModulSysLog_00(3, TESSAPLUG_EVENT_START_FAILED);
    return started;
}

DWORD Service::InitInTurn(DWORD apiVersion, SERVICE_STATUS_HANDLE statusHandle,
                          TESSAPLUG_STATUS_CALLBACK callback, void* hostContext, ULONG_PTR reserved) {
    FUNCTION_TRACE();
    if (!CheckArguments(apiVersion, statusHandle, callback)) return 0;
    if (!TakeHost(statusHandle, callback, hostContext, reserved)) return 0;
    Turn turn(*this);
    return Start(turn);
}

bool Service::CheckArguments(DWORD apiVersion, SERVICE_STATUS_HANDLE statusHandle,
                             TESSAPLUG_STATUS_CALLBACK callback) const {
    FUNCTION_TRACE();
    if (callback == nullptr) {
        TRACE_ERROR(10, "init refused: no status callback");
        return false;
    }
    if (statusHandle == nullptr) {
        TRACE_ERROR(11, "init refused: no service status handle");
        return false;
    }
    if (apiVersion != settings_->ApiVersion()) {
        TRACE_ERROR(12, "init refused: API version 0x%x, 0x%x is supported", apiVersion,
                    settings_->ApiVersion());
        return false;
    }
    return true;
}

/// The last checks and the keeping of what was checked: under one lock, as two starts at once must not both
/// pass.
bool Service::TakeHost(SERVICE_STATUS_HANDLE statusHandle, TESSAPLUG_STATUS_CALLBACK callback,
                       void* hostContext, ULONG_PTR reserved) {
    FUNCTION_TRACE();
    const Guard guard(lock_);
    if (cbf_ != nullptr) {
        TRACE_ERROR(13, "init refused: initialised before in this process");
        return false;
    }
    if (reserved != 0) {
        TRACE_ERROR(14, "init refused: the reserved value is not zero");
        return false;
    }
    statusHandle_ = statusHandle;
    cbf_ = callback;
    hostContext_ = hostContext;
    busy_ = true;
    return true;
}

DWORD Service::Start(Turn& turn) {
    FUNCTION_TRACE();
    try {
        if (!CheckSingleInstanceAndRegisterDeviceNotification()) return 0;
        CreateSharedMemoryAndMutexForCpIpc();
        StartEventLogMonitor();
        StartPnpThreadPool();
        if (!turn.EndUnlessCleanedUp())
            MODUL_THROW(std::runtime_error("tessaplug_cleanup was called during the start"));
        return 1;
    } catch (const std::exception& error) {
        TRACE_ERROR(15, "init failed: %s", error.what());
        RollBackInitialization();
        return 0;
    }
}

/// What each start step begins with. The host may have called tessaplug_cleanup, from the callback or on
/// another thread: going on would start what nobody stops any more.
void Service::BeginStep() {
    FUNCTION_TRACE();
    ReportStatus();
    if (StatusHandle() == nullptr)
        MODUL_THROW(std::runtime_error("tessaplug_cleanup was called during the start"));
}

SERVICE_STATUS_HANDLE Service::StatusHandle() {
    FUNCTION_TRACE();
    const Guard guard(lock_);
    return statusHandle_;
}

bool Service::CheckSingleInstanceAndRegisterDeviceNotification() {
    FUNCTION_TRACE();
    BeginStep();
    // The handle is only tested: the lock is held until the process ends, also after a clean-up.
    if (instanceLock_->CheckSingleInstanceAndLock(settings_->GlobalInstanceLockName()) == nullptr) {
        TRACE_ERROR(16, "Another process holds the instance lock");
        return false;
    }
    BeginStep();
    deviceNotifier_->Initialize(StatusHandle());
    MODUL_ASSERT_AT(517, !cps_.empty());
    // The second model needs the libraries that the first one has loaded.
    const DeviceNotifier::KeepLibraries keep(*deviceNotifier_);
    for (const ModelRecord& model : cps_) {
        TRACE_INFO(17, "Registering %s", toolbox::GuidToString(&model->DeviceInterfaceGuid()));
        deviceNotifier_->Register(model);
    }
    return true;
}

void Service::CreateSharedMemoryAndMutexForCpIpc() {
    FUNCTION_TRACE();
    MODUL_ASSERT_AT(584, cpEnv_ == nullptr);
    BeginStep();
    cpEnv_ = std::make_unique<CpEnvironment>();
}

void Service::StartEventLogMonitor() {
    FUNCTION_TRACE();
    constexpr DWORD kStartTimeOutMs = 2500;
    MODUL_ASSERT_AT(547, evMonTh_ == nullptr);
    BeginStep();
    evMonTh_ = std::make_unique<std::thread>([monitor = eventLogMonitor_, ended = evMonEnded_] {
        monitor->Run();
        *ended = true;
    });
    if (!eventLogMonitor_->WaitBlockingForStateChange(kStartTimeOutMs))
        MODUL_THROW(std::runtime_error("Starting EventLogMonitor Thread failed!"));
}

void Service::StartPnpThreadPool() {
    FUNCTION_TRACE();
    MODUL_ASSERT_AT(569, pnpExec_ == nullptr);
    BeginStep();
    pnpExec_ = std::make_unique<DeviceMonitor>().release();
}

void Service::ReportStatus() {
    FUNCTION_TRACE();
    TESSAPLUG_STATUS_CALLBACK callback = nullptr;
    void* hostContext = nullptr;
    {
        const Guard guard(lock_);
        status_.dwCurrentState = SERVICE_START_PENDING;
        status_.dwControlsAccepted = 0;
        status_.dwWin32ExitCode = NO_ERROR;
        status_.dwWaitHint = 3000;
        ++status_.dwCheckPoint;
        callback = cbf_;
        hostContext = hostContext_;
    }
    if (callback == nullptr) {
        _ModulAssert(L"cbf_ != nullptr", kWideSourcePath, 93);
        return;
    }
    ++chkVal;
    MODUL_ASSERT_AT(121, chkVal > 0);
    try {
        operating_system::CallForeign([&] { callback(hostContext, &status_); });
    } catch (...) {
        --chkVal;
        throw;
    }
    --chkVal;
    MODUL_ASSERT_AT(124, chkVal >= 0);
}

void Service::RollBackInitialization() {
    FUNCTION_TRACE();
    ReportStatus();
    TRACE_WARNING(18, "Rolling the start back");
    InternalCleanup(false, true);
}

void Service::cleanup() {
    FUNCTION_TRACE();
    TRACE_INFO(19, "Normal clean-up");
    if (!ForgetHostAndTakeTurn()) {
        TRACE_WARNING(38, "Left to the start or clean-up that runs");
        return;
    }
    const Turn turn(*this);
    InternalCleanup(false, false);
    TRACE_INFO(20, "Clean-up done");
}

bool Service::ForgetHostAndTakeTurn() {
    FUNCTION_TRACE();
    const Guard guard(lock_);
    ForgetHost();
    if (busy_) return false;
    busy_ = true;
    return true;
}

void Service::ForgetHost() {
    FUNCTION_TRACE();
    // cbf_ stays set: a second init in the same process is refused.
    const Guard guard(lock_);
    statusHandle_ = nullptr;
    hostContext_ = nullptr;
}

void Service::InternalCleanup(bool failSafe, bool rollBack) {
    FUNCTION_TRACE();
    if (failSafe && rollBack) MODUL_FAIL("Invalid state: Cannot roleback in failsafe mode!");
    try {
        StopPnpThreadPool(failSafe);
        cpEnv_.reset();
        deviceNotifier_->Cleanup();
        if (evMonTh_ == nullptr) return;
        StopEventLogMonitor(failSafe, rollBack);
        DeleteMonitorThread(failSafe);
        CloseHandleSlot();
    } catch (const modul_exception::CWindowsApiExcp& error) {
        TRACE_ERROR(21, "Clean-up ends: %s", error.what());
    } catch (const std::runtime_error& error) {
        TRACE_ERROR(22, "Clean-up ends: %s", error.what());
    }
}

void Service::StopPnpThreadPool(bool failSafe) {
    FUNCTION_TRACE();
    if (failSafe) {
        // A thread cannot be joined while the library is being unloaded: the worker is left alone.
        TRACE_WARNING(23, "Fail-safe clean-up: the request worker is not stopped");
        return;
    }
    const std::unique_ptr<DeviceMonitor> stopped(pnpExec_.exchange(nullptr));
}

void Service::StopEventLogMonitor(bool failSafe, bool rollBack) {
    FUNCTION_TRACE();
    constexpr DWORD kStopTimeOutMs = 1000;
    constexpr DWORD kTimeToLeaveMs = 2000;
    eventLogMonitor_->Stop(failSafe);
    if (!eventLogMonitor_->WaitBlockingForStateChange(kStopTimeOutMs)) {
        TRACE_ERROR(35, "The event-log monitor did not stop in %u ms", kStopTimeOutMs);
        monitorReleased = true;
    }
    if (rollBack && !failSafe) ReportStatus();
    sleep_(kTimeToLeaveMs);
}

void Service::DeleteMonitorThread(bool failSafe) {
    FUNCTION_TRACE();
    constexpr DWORD kStepMs = 50;
    constexpr int kMostSteps = 10;
    if (!*evMonEnded_) {
        TRACE_WARNING(36, "The event-log monitor's thread is still there");
        eventLogMonitor_->Stop(true);
        // Given up: it ends at its next check, and gets some time to do so. A monitor that begins late, or
        // only now, has missed the stop.
        eventLogMonitor_->Abandon();
        for (int i = 0; i < kMostSteps && !*evMonEnded_; ++i)
            sleep_(kStepMs);
        if (failSafe) sleep_(kStepMs);  // for the last steps behind the body
    }
    if (!*evMonEnded_) {
        if (!failSafe) KeepModuleLoaded();
        return;
    }
    // In the fail-safe form the thread's very end waits for the loader's lock, which is held here.
    if (failSafe)
        evMonTh_->detach();
    else
        evMonTh_->join();
    evMonTh_.reset();
}

void Service::CloseHandleSlot() {
    FUNCTION_TRACE();
    if (handleSlot_ == nullptr) return;
    if (!::CloseHandle(handleSlot_)) TRACE_ERROR(24, "CloseHandle() failed, LE(%u)", ::GetLastError());
    handleSlot_ = nullptr;
}

DWORD Service::service_ctrl_handler(DWORD control, DWORD eventType, void* lpEventData, void* context) {
    FUNCTION_TRACE();
    TRACE_INFO(25, "Control %u, event type 0x%x, data %p, context %p", control, eventType, lpEventData,
               context);
    try {
        if (control == SERVICE_CONTROL_DEVICEEVENT)
            operating_system::CallForeign([&] { HandleDeviceEvent(eventType, lpEventData); });
        else if (control == SERVICE_CONTROL_POWEREVENT)
            operating_system::CallForeign([&] { HandlePowerEvent(eventType, lpEventData); });
    } catch (...) {
        MODUL_FAIL("Unexpected Exception!");
    }
    TRACE_INFO(26, "Control %u done", control);
    return NO_ERROR;
}

void Service::HandleDeviceEvent(DWORD eventType, const void* lpEventData) {
    FUNCTION_TRACE();
    bool queued = false;
    if (pnpExec_ != nullptr) {
        auto request = std::make_unique<Request>();
        request->eventType = eventType;
        request->notifier = deviceNotifier_;
        GetGuidFrom(lpEventData, request->interfaceClass);
        TRACE_INFO(27, "Request %s for %s", DeviceEventName(eventType),
                   toolbox::GuidToString(&request->interfaceClass));
        queued = DeviceMonitor::Enqueue(std::move(request));
    }
    if (!queued) {
        TRACE_WARNING(28, "Device event dropped: the request worker does not run");
        _ModulSysLog_00(2, TESSAPLUG_EVENT_NOT_RUNNING);
    }
}

void Service::GetGuidFrom(const void* lpEventData, GUID& guid) {
    FUNCTION_TRACE();
    if (lpEventData == nullptr) {
        TRACE_WARNING(29, "Device event without data");
        return;
    }
    const DeviceEventData data = ReadDeviceEventData(lpEventData);
    TRACE_VERBOSE(30, "Event data: %u bytes, device type %u", data.header.dbch_size,
                  data.header.dbch_devicetype);
    if (data.header.dbch_devicetype != DBT_DEVTYP_DEVICEINTERFACE) {
        TRACE_WARNING(31, "Device event for device type %u", data.header.dbch_devicetype);
        return;
    }
    TRACE_INFO(32, "Device %S", data.name);
    guid = data.interfaceClass;
}

void Service::HandlePowerEvent(DWORD eventType, const void* lpEventData) {
    FUNCTION_TRACE();
    if (eventType != PBT_POWERSETTINGCHANGE) {
        TRACE_INFO(33, "Power event %s (%u)", PowerEventName(eventType), eventType);
        return;
    }
    MODUL_ASSERT_AT(657, lpEventData != nullptr);
    if (lpEventData == nullptr) return;
    const GUID setting = operating_system::CallForeign(
        [&] { return static_cast<const POWERBROADCAST_SETTING*>(lpEventData)->PowerSetting; });
    TRACE_INFO(34, "Power setting %s", PowerSettingName(setting));
}

}  // namespace tessaplug
