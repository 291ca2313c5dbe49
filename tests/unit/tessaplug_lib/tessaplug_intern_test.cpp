#include "tessaplug_intern.h"

#include <windows.h>
#include <dbt.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "module_hooks.h"
#include "process_census.h"
#include "unique_handle.h"

using tessaplug::kFennlinkU3InterfaceGuid;
using tessaplug::kNx4120InterfaceGuid;
using tessaplug::Service;
using test_support::ModuleHooks;
using test_support::SysLogEntry;

namespace {

const auto kStatusHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(0x51);
constexpr SysLogEntry kStarted{1, 0x100};
constexpr SysLogEntry kStartFailed{3, 0xC0000101};
constexpr SysLogEntry kNotRunning{2, 0x80000104};

/// Settings with an instance lock of its own for each test.
class TestSettings : public tessaplug::ServiceDb {
  public:
    const std::wstring& GlobalInstanceLockName() const override { return name_; }

  private:
    std::wstring name_ =
        L"TESSAPLUG_TEST_LOCK_" + std::to_wstring(::GetCurrentProcessId()) + L"_" + std::to_wstring(++count_);
    static inline int count_ = 0;
};

/// A notifier that records; events wait for the test if it says so.
class FakeNotifier : public tessaplug::DeviceNotifier {
  public:
    void Initialize(SERVICE_STATUS_HANDLE handle) override {
        if (failInitialize) throw std::runtime_error("no notifications");
        initializedWith = handle;
    }
    void Cleanup() override {
        ++cleanups;
        if (throwInCleanup) throw 42;
    }
    void Register(const tessaplug::ModelRecord& model) override {
        registered.push_back(model->DisplayedDeviceName());
    }
    void OnDeviceArrival(const GUID& guid, DWORD) override {
        lastGuid = guid;
        ::SetEvent(arrived.get());
        if (keepsTheWorker) ::Sleep(INFINITE);
    }

    bool failInitialize = false;
    bool keepsTheWorker = false;
    bool throwInCleanup = false;
    SERVICE_STATUS_HANDLE initializedWith = nullptr;
    int cleanups = 0;
    std::vector<std::wstring> registered;
    GUID lastGuid = {};
    UniqueKernelHandle arrived{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

/// A log that waits until it is cancelled.
class QuietLog : public operating_system::EventLog {
  public:
    QuietLog() : EventLog(L"System") {}
    void Open() override {}
    void Close() override {}
    std::vector<std::byte> BlockingRead() override {
        ::WaitForSingleObject(cancelled_.get(), INFINITE);
        return {};
    }
    void CancelRead() override { ::SetEvent(cancelled_.get()); }

  private:
    UniqueKernelHandle cancelled_{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

/// A monitor that can be told not to report its changes of state, and to hang.
class FakeMonitor : public tessaplug::EventLogMonitor {
  public:
    FakeMonitor() : EventLogMonitor(Quiet()) {}
    DWORD Run() override {
        const DWORD result = EventLogMonitor::Run();
        while (hang)
            ::Sleep(10);
        return result;
    }
    void Stop(bool stopFlag) override {
        stops.push_back(stopFlag);
        EventLogMonitor::Stop(stopFlag);
    }
    bool WaitBlockingForStateChange(DWORD timeout) override {
        timeouts.push_back(timeout);
        const bool changed = EventLogMonitor::WaitBlockingForStateChange(10000);
        return changed && !silent;
    }

    std::atomic<bool> hang = false;
    bool silent = false;
    std::vector<bool> stops;
    std::vector<DWORD> timeouts;

  private:
    static tessaplug::EventLogMonitorCollaborators Quiet() {
        tessaplug::EventLogMonitorCollaborators collaborators;
        collaborators.eventLog = std::make_unique<QuietLog>();
        return collaborators;
    }
};

/// What the host was told.
struct Host {
    std::vector<SERVICE_STATUS> reports;
    static void WINAPI Callback(void* context, SERVICE_STATUS* status) {
        static_cast<Host*>(context)->reports.push_back(*status);
    }
};

class ServiceTest : public testing::Test {
  protected:
    tessaplug::ServiceCollaborators Collaborators() {
        tessaplug::ServiceCollaborators collaborators;
        collaborators.settings = settings_;
        collaborators.deviceNotifier = notifier_;
        collaborators.eventLogMonitor = monitor_;
        collaborators.sleep = [this](DWORD milliseconds) {
            sleeps_.push_back(milliseconds);
            ::Sleep(50);  // enough for what does not hang
        };
        return collaborators;
    }
    DWORD Init() { return service_->init(0x00010001, kStatusHandle, &Host::Callback, &host_, 0); }
    bool Arrived() { return ::WaitForSingleObject(notifier_->arrived.get(), 10000) == WAIT_OBJECT_0; }

    ModuleHooks hooks_;
    Host host_;
    std::shared_ptr<TestSettings> settings_ = std::make_shared<TestSettings>();
    std::shared_ptr<FakeNotifier> notifier_ = std::make_shared<FakeNotifier>();
    std::shared_ptr<FakeMonitor> monitor_ = std::make_shared<FakeMonitor>();
    std::vector<DWORD> sleeps_;
    std::unique_ptr<Service> service_ = std::make_unique<Service>(Collaborators());
};

DEV_BROADCAST_DEVICEINTERFACE_W EventDataOf(const GUID& guid) {
    DEV_BROADCAST_DEVICEINTERFACE_W data = {};
    data.dbcc_size = sizeof data;
    data.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    data.dbcc_classguid = guid;
    return data;
}

bool Exists(const wchar_t* mutexName) {
    return UniqueKernelHandle(::OpenMutexW(SYNCHRONIZE, FALSE, mutexName)) ? true : false;
}

constexpr wchar_t kNx4120Mutex[] = L"Global\\NX4120_MTX__{16FBF2EA-4B2A-4A48-98A0-0E4C66BD1459}";

}  // namespace

TEST_F(ServiceTest, BadArgumentsAreRefusedAndStartNothing) {
    EXPECT_EQ(service_->init(0x00010001, kStatusHandle, nullptr, &host_, 0), 0u);
    EXPECT_EQ(service_->init(0x00010001, nullptr, &Host::Callback, &host_, 0), 0u);
    EXPECT_EQ(service_->init(0x00010000, kStatusHandle, &Host::Callback, &host_, 0), 0u);
    EXPECT_EQ(service_->init(0x00010001, kStatusHandle, &Host::Callback, &host_, 1), 0u);

    EXPECT_EQ(hooks_.SysLogEntries(), (std::vector<SysLogEntry>(4, kStartFailed)));
    EXPECT_TRUE(host_.reports.empty());
    EXPECT_EQ(notifier_->initializedWith, nullptr);
    EXPECT_FALSE(Exists(kNx4120Mutex));
}

TEST_F(ServiceTest, StartReportsProgressBeforeEveryStep) {
    ASSERT_EQ(Init(), 1u);

    ASSERT_EQ(host_.reports.size(), 5u);
    for (std::size_t i = 0; i < host_.reports.size(); ++i) {
        EXPECT_EQ(host_.reports[i].dwCurrentState, static_cast<DWORD>(SERVICE_START_PENDING));
        EXPECT_EQ(host_.reports[i].dwCheckPoint, 2 + i);
        EXPECT_EQ(host_.reports[i].dwWaitHint, 3000u);
        EXPECT_EQ(host_.reports[i].dwControlsAccepted, 0u);
        EXPECT_EQ(host_.reports[i].dwServiceType, 0u);
    }
    EXPECT_EQ(hooks_.SysLogEntries(), (std::vector<SysLogEntry>{kStarted}));
    service_->cleanup();
}

TEST_F(ServiceTest, StartRegistersTheModelsAndCreatesTheirObjects) {
    ASSERT_EQ(Init(), 1u);
    EXPECT_EQ(notifier_->initializedWith, kStatusHandle);
    EXPECT_EQ(notifier_->registered, (std::vector<std::wstring>{L"Fennlink U3", L"NX4120"}));
    EXPECT_TRUE(Exists(kNx4120Mutex));

    service_->cleanup();

    EXPECT_FALSE(Exists(kNx4120Mutex));
    EXPECT_EQ(notifier_->cleanups, 1);
}

TEST_F(ServiceTest, SecondInitIsRefusedAndLeavesThePlugInRunning) {
    ASSERT_EQ(Init(), 1u);
    Host other;
    EXPECT_EQ(service_->init(0x00010001, kStatusHandle, &Host::Callback, &other, 0), 0u);

    EXPECT_EQ(host_.reports.size(), 5u) << "no step of a start was begun";
    EXPECT_TRUE(other.reports.empty());
    EXPECT_EQ(hooks_.SysLogEntries(), (std::vector<SysLogEntry>{kStarted, kStartFailed}));
    EXPECT_EQ(notifier_->cleanups, 0);
    auto data = EventDataOf(kNx4120InterfaceGuid);
    EXPECT_EQ(service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr),
              0u);
    EXPECT_TRUE(Arrived());
    service_->cleanup();
}

TEST_F(ServiceTest, InitAfterCleanupIsRefused) {
    ASSERT_EQ(Init(), 1u);
    service_->cleanup();
    EXPECT_EQ(Init(), 0u);
    EXPECT_EQ(host_.reports.size(), 5u) << "refused as started before, not by the instance lock";
}

TEST_F(ServiceTest, CleanupWithoutInitReturnsQuietly) {
    service_->cleanup();
    EXPECT_TRUE(hooks_.SysLogEntries().empty());
    EXPECT_EQ(notifier_->cleanups, 1);
}

TEST_F(ServiceTest, InstanceLockHeldElsewhereRefusesTheStart) {
    const UniqueKernelHandle held(
        ::CreateMutexW(nullptr, TRUE, (L"Global\\" + settings_->GlobalInstanceLockName()).c_str()));

    EXPECT_EQ(Init(), 0u);

    EXPECT_EQ(host_.reports.size(), 1u);
    EXPECT_EQ(notifier_->initializedWith, nullptr);
    EXPECT_EQ(notifier_->cleanups, 0) << "nothing to undo";
    EXPECT_EQ(hooks_.SysLogEntries(), (std::vector<SysLogEntry>{kStartFailed}));
}

TEST_F(ServiceTest, InstanceLockIsHeldAfterCleanup) {
    ASSERT_EQ(Init(), 1u);
    service_->cleanup();
    EXPECT_TRUE(Exists((L"Global\\" + settings_->GlobalInstanceLockName()).c_str()));
}

TEST_F(ServiceTest, FailedStepIsRolledBackWithAReport) {
    // An event under the mutex's name: the mutex can neither be created nor opened.
    const UniqueKernelHandle inTheWay(::CreateEventW(nullptr, FALSE, FALSE, kNx4120Mutex));

    EXPECT_EQ(Init(), 0u);

    ASSERT_EQ(host_.reports.size(), 4u);
    EXPECT_EQ(host_.reports.back().dwCheckPoint, 5u);
    EXPECT_EQ(notifier_->cleanups, 1);
    EXPECT_FALSE(Exists(L"Global\\FENLU3_MTX__{CE039657-5639-44FE-B95D-710A5C050FBB}"));
    EXPECT_EQ(hooks_.SysLogEntries(), (std::vector<SysLogEntry>{kStartFailed}));
}

TEST_F(ServiceTest, FailedFirstStepIsRolledBack) {
    notifier_->failInitialize = true;
    EXPECT_EQ(Init(), 0u);
    EXPECT_EQ(host_.reports.size(), 3u);
    EXPECT_EQ(notifier_->cleanups, 1);
}

TEST_F(ServiceTest, MonitorIsStartedAndStopped) {
    ASSERT_EQ(Init(), 1u);
    EXPECT_EQ(monitor_->timeouts, (std::vector<DWORD>{2500}));
    service_->cleanup();
    EXPECT_EQ(monitor_->timeouts, (std::vector<DWORD>{2500, 1000}));
    EXPECT_EQ(monitor_->stops, (std::vector<bool>{false}));
    EXPECT_EQ(sleeps_, (std::vector<DWORD>{2000}));
    EXPECT_FALSE(tessaplug::monitorReleased);
    EXPECT_EQ(host_.reports.size(), 5u) << "a normal stop reports nothing";
}

TEST_F(ServiceTest, MonitorThatDoesNotReportItsStartRollsTheStartBack) {
    monitor_->silent = true;

    EXPECT_EQ(Init(), 0u);

    ASSERT_EQ(host_.reports.size(), 6u) << "four steps, the roll-back, and the monitor's stop";
    EXPECT_EQ(host_.reports.back().dwCheckPoint, 7u);
    EXPECT_EQ(hooks_.SysLogEntries(), (std::vector<SysLogEntry>{kStartFailed}));
    EXPECT_FALSE(Exists(kNx4120Mutex));
    EXPECT_TRUE(tessaplug::monitorReleased) << "its stop was not reported in time";
    EXPECT_EQ(sleeps_, (std::vector<DWORD>{2000}));
}

TEST_F(ServiceTest, MonitorThatHangsIsAskedAgainAndLeft) {
    ASSERT_EQ(Init(), 1u);
    monitor_->hang = true;
    service_->cleanup();
    EXPECT_EQ(monitor_->stops, (std::vector<bool>{false, true}));
    monitor_->hang = false;
    service_->cleanup();
    EXPECT_EQ(monitor_->stops, (std::vector<bool>{false, true, false})) << "the next clean-up finds it ended";
    service_->cleanup();
    EXPECT_EQ(monitor_->stops.size(), 3u);
}

TEST_F(ServiceTest, FailSafeReleasesTheMonitorAndDoesNotJoinIt) {
    const auto destroyWithoutCleanup = [this] {
        const bool started = Init() == 1;
        service_.reset();
        const bool asExpected = monitor_->stops == std::vector<bool>{true, true} &&
                                tessaplug::monitorReleased && sleeps_.front() == 2000;
        std::_Exit(started && asExpected ? 0 : 1);
    };
    EXPECT_EXIT(destroyWithoutCleanup(), testing::ExitedWithCode(0), "");
}

// In a process of its own, like the one before.
TEST_F(ServiceTest, FailSafeLeavesAMonitorAloneThatHasEnded) {
    const auto destroyWithoutCleanup = [this] {
        const bool started = Init() == 1;
        monitor_->Stop(false);  // it ends by itself, as after a failure
        service_.reset();
        const bool asExpected =
            monitor_->stops == std::vector<bool>{false, true} && !tessaplug::monitorReleased;
        std::_Exit(started && asExpected ? 0 : 1);
    };
    EXPECT_EXIT(destroyWithoutCleanup(), testing::ExitedWithCode(0), "");
}

TEST_F(ServiceTest, MissingModelsAreAsserted) {
    auto collaborators = Collaborators();
    collaborators.models.clear();
    service_ = std::make_unique<Service>(std::move(collaborators));

    EXPECT_EQ(Init(), 1u);

    ASSERT_EQ(hooks_.Assertions().size(), 1u);
    EXPECT_EQ(hooks_.Assertions()[0].expression, L"!cps_.empty()");
    EXPECT_EQ(hooks_.Assertions()[0].line, 517u);
    EXPECT_EQ(hooks_.Assertions()[0].sourcePath, L"tessaplug_lib\\src\\tessaplug_intern");
    service_->cleanup();
}

// In a process of its own, as the worker is left running: at library unload the process is what ends it.
TEST_F(ServiceTest, DestructionWithoutCleanupNeverWaitsForTheWorker) {
    notifier_->keepsTheWorker = true;
    const auto destroyWithoutCleanup = [this] {
        auto data = EventDataOf(kNx4120InterfaceGuid);
        const bool started = Init() == 1 &&
                             service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL,
                                                            &data, nullptr) == 0 &&
                             Arrived();
        service_.reset();
        std::_Exit(started && notifier_->cleanups == 1 && !Exists(kNx4120Mutex) ? 0 : 1);
    };
    EXPECT_EXIT(destroyWithoutCleanup(), testing::ExitedWithCode(0), "");
}

TEST_F(ServiceTest, ExceptionInTheFailSafeCleanupIsAsserted) {
    notifier_->throwInCleanup = true;
    service_.reset();
    EXPECT_EQ(hooks_.AssertedExpressions(), (std::vector<std::wstring>{L"!\"EXCEPTION in DTOR!\""}));
}

TEST_F(ServiceTest, WholeCyclesLeaveNothingButTheirInstanceLocks) {
    const auto cycle = [this] {
        tessaplug::ServiceCollaborators collaborators;  // all real, but for the time to leave
        collaborators.sleep = [](DWORD) { ::Sleep(50); };
        collaborators.settings = std::make_shared<TestSettings>();
        Service service(std::move(collaborators));
        ASSERT_EQ(service.init(0x00010001, kStatusHandle, &Host::Callback, &host_, 0), 1u);
        auto data = EventDataOf(kNx4120InterfaceGuid);
        service.service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr);
        service.cleanup();
    };
    cycle();
    const std::size_t handles = test_support::HandleCount();
    const std::size_t threads = test_support::ThreadCount();
    const std::size_t modules = test_support::LoadedModules().size();

    constexpr std::size_t kCycles = 20;
    for (std::size_t i = 0; i < kCycles; ++i)
        cycle();

    // The system opens a few things for itself, once, at a time of its own; a leak would show with every
    // cycle. Each cycle leaves its instance lock, which is held until the process ends.
    EXPECT_LT(test_support::HandleCount(), handles + kCycles + kCycles);
    EXPECT_LT(test_support::ThreadCount(), threads + kCycles);
    EXPECT_LT(test_support::LoadedModules().size(), modules + kCycles);
}

TEST_F(ServiceTest, DeviceEventReachesTheNotifier) {
    ASSERT_EQ(Init(), 1u);
    auto data = EventDataOf(kFennlinkU3InterfaceGuid);

    EXPECT_EQ(service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr),
              0u);

    ASSERT_TRUE(Arrived());
    EXPECT_TRUE(IsEqualGUID(notifier_->lastGuid, kFennlinkU3InterfaceGuid));
    service_->cleanup();
}

TEST_F(ServiceTest, DeviceEventWithoutInterfaceRecordCarriesAZeroGuid) {
    ASSERT_EQ(Init(), 1u);
    notifier_->lastGuid = kNx4120InterfaceGuid;
    auto data = EventDataOf(kNx4120InterfaceGuid);
    data.dbcc_devicetype = DBT_DEVTYP_PORT;

    service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr);
    ASSERT_TRUE(Arrived());
    EXPECT_TRUE(IsEqualGUID(notifier_->lastGuid, GUID{}));

    notifier_->lastGuid = kNx4120InterfaceGuid;
    service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, nullptr, nullptr);
    ASSERT_TRUE(Arrived());
    EXPECT_TRUE(IsEqualGUID(notifier_->lastGuid, GUID{}));
    service_->cleanup();
}

TEST_F(ServiceTest, DeviceEventBeforeInitAndAfterCleanupIsDroppedAndLogged) {
    auto data = EventDataOf(kNx4120InterfaceGuid);
    EXPECT_EQ(service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr),
              0u);
    ASSERT_EQ(Init(), 1u);
    service_->cleanup();
    EXPECT_EQ(service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr),
              0u);

    EXPECT_EQ(hooks_.SysLogEntries(), (std::vector<SysLogEntry>{kNotRunning, kStarted, kNotRunning}));
}

TEST_F(ServiceTest, ExceptionInsideTheHandlerIsAssertedAndStaysInside) {
    hooks_.throwFromSysLog = true;
    EXPECT_EQ(
        service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, nullptr, nullptr), 0u);
    ASSERT_EQ(hooks_.Assertions().size(), 1u);
    EXPECT_EQ(hooks_.Assertions()[0].expression, L"!\"Unexpected Exception!\"");
    EXPECT_EQ(hooks_.Assertions()[0].sourcePath, L"tessaplug_lib\\src\\tessaplug_intern");
}

TEST_F(ServiceTest, OtherControlsAreIgnored) {
    for (const DWORD control :
         std::initializer_list<DWORD>{SERVICE_CONTROL_STOP, SERVICE_CONTROL_SHUTDOWN,
                                      SERVICE_CONTROL_INTERROGATE, SERVICE_CONTROL_PAUSE, 200}) {
        EXPECT_EQ(service_->service_ctrl_handler(control, 0, nullptr, nullptr), 0u);
    }
    EXPECT_TRUE(hooks_.SysLogEntries().empty());
}

TEST_F(ServiceTest, PowerEventsChangeNothing) {
    POWERBROADCAST_SETTING setting = {};
    setting.PowerSetting = GUID_MONITOR_POWER_ON;
    EXPECT_EQ(service_->service_ctrl_handler(SERVICE_CONTROL_POWEREVENT, PBT_APMSUSPEND, nullptr, nullptr),
              0u);
    EXPECT_EQ(
        service_->service_ctrl_handler(SERVICE_CONTROL_POWEREVENT, PBT_POWERSETTINGCHANGE, &setting, nullptr),
        0u);
    EXPECT_TRUE(hooks_.Assertions().empty());
}

TEST_F(ServiceTest, PowerSettingChangeWithoutDataIsAsserted) {
    EXPECT_EQ(
        service_->service_ctrl_handler(SERVICE_CONTROL_POWEREVENT, PBT_POWERSETTINGCHANGE, nullptr, nullptr),
        0u);
    ASSERT_EQ(hooks_.Assertions().size(), 1u);
    EXPECT_EQ(hooks_.Assertions()[0].expression, L"lpEventData != nullptr");
    EXPECT_EQ(hooks_.Assertions()[0].line, 657u);
}
