#include <windows.h>
#include <dbt.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "process_census.h"
#include "service_test.h"
#include "structured_exception.h"
#include "windows_api_excp.h"

// How the service starts and stops.

using namespace service_test;
using tessaplug::kNx4120InterfaceGuid;
using tessaplug::Service;

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
    EXPECT_EQ(Init(), 0u);

    EXPECT_EQ(host_.reports.size(), 5u) << "no step of a start was begun";
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
    monitor_->faster = 1;  // its real times
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
    notifier_->onArrival = [] { ::Sleep(INFINITE); };
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
    notifier_->onCleanup = [] { throw 42; };
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

TEST_F(ServiceTest, InitAfterARefusedOneStarts) {
    EXPECT_EQ(service_->init(0x00010000, kStatusHandle, &Host::Callback, &host_, 0), 0u);
    EXPECT_EQ(service_->init(0x00010001, kStatusHandle, &Host::Callback, &host_, 7), 0u);
    EXPECT_EQ(Init(), 1u);
    service_->cleanup();
}

TEST_F(ServiceTest, InitAfterAFailedOneIsRefused) {
    notifier_->failInitialize = true;
    EXPECT_EQ(Init(), 0u);
    const std::size_t reports = host_.reports.size();
    notifier_->failInitialize = false;
    settings_ = std::make_shared<TestSettings>();  // not for want of the instance lock
    EXPECT_EQ(Init(), 0u);
    EXPECT_EQ(host_.reports.size(), reports);
}

TEST_F(ServiceTest, OfTwoStartsAtOnceOnePasses) {
    constexpr int kRounds = 20;
    for (int round = 0; round < kRounds; ++round) {
        notifier_ = std::make_shared<FakeNotifier>();
        monitor_ = std::make_shared<FakeMonitor>();
        settings_ = std::make_shared<TestSettings>();
        service_ = std::make_unique<Service>(Collaborators());
        std::atomic<int> inside = 0;
        // Both have come as far as the version when the first goes on.
        settings_->onApiVersion = [&inside] {
            ++inside;
            while (inside < 2)
                ::SwitchToThread();
        };
        DWORD ofTheOther = 7;
        std::thread other([&] { ofTheOther = Init(); });
        const DWORD ofThis = Init();
        other.join();
        ASSERT_EQ(ofThis + ofTheOther, 1u);
        service_->cleanup();
    }
}

class CleanupInTheCallback : public ServiceTest, public testing::WithParamInterface<std::size_t> {
  protected:
    /// Does it at the report of the test's number.
    template <typename Call>
    void AtTheReport(Call call) {
        host_.onReport = [this, call] {
            if (host_.reports.size() == GetParam()) call();
        };
    }
    void ExpectNothingRuns() {
        EXPECT_FALSE(Exists(kNx4120Mutex));
        EXPECT_EQ(monitor_->runs, 0) << "the monitor's thread";
        auto data = EventDataOf(kNx4120InterfaceGuid);
        service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr);
        EXPECT_EQ(hooks_.SysLogEntries(), (std::vector<SysLogEntry>{kStartFailed, kNotRunning}));
    }
};

INSTANTIATE_TEST_SUITE_P(Reports, CleanupInTheCallback, testing::Values(1, 2, 3, 4, 5));

TEST_P(CleanupInTheCallback, RollsTheStartBack) {
    AtTheReport([this] { service_->cleanup(); });

    EXPECT_EQ(Init(), 0u);

    EXPECT_EQ(notifier_->cleanups, 1) << "the roll-back's alone";
    EXPECT_EQ(notifier_->initializedWith, GetParam() <= 2 ? nullptr : kStatusHandle);
    ExpectNothingRuns();
}

TEST_P(CleanupInTheCallback, HasThePlugInForgetTheHostsContext) {
    AtTheReport([this] { service_->cleanup(); });
    EXPECT_EQ(Init(), 0u);

    // The roll-back reports once, and once more where the monitor runs already; no further step does.
    ASSERT_EQ(host_.contexts.size(), GetParam() + (GetParam() == 5 ? 2 : 1));
    for (std::size_t i = 0; i < host_.contexts.size(); ++i)
        EXPECT_EQ(host_.contexts[i], i < GetParam() ? &host_ : nullptr) << "report " << i + 1;
}

TEST_P(CleanupInTheCallback, MayComeFromAnotherThreadThatTheCallbackWaitsFor) {
    bool returned = false;
    AtTheReport([this, &returned] {
        const UniqueKernelHandle done(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        std::thread other([this, &done] {
            service_->cleanup();
            ::SetEvent(done.get());
        });
        // A lock that is held while the callback runs would keep it waiting.
        returned = ::WaitForSingleObject(done.get(), 5000) == WAIT_OBJECT_0;
        other.detach();
    });
    EXPECT_EQ(Init(), 0u);
    EXPECT_TRUE(returned);
    ExpectNothingRuns();
}

TEST_F(ServiceTest, CleanupAtTheVeryEndOfTheStartLeavesNothingRunning) {
    std::thread other;
    host_.onReport = [this, &other] {
        if (host_.reports.size() != 5) return;
        other = std::thread([this] {
            while (!UniqueKernelHandle(::OpenEventW(SYNCHRONIZE, FALSE, L"PnPEvent")))
                ::SwitchToThread();
            service_->cleanup();
        });
    };
    Init();  // it may win or lose
    other.join();
    auto data = EventDataOf(kNx4120InterfaceGuid);
    service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr);
    EXPECT_EQ(hooks_.SysLogEntries().back(), kNotRunning);
    EXPECT_FALSE(Exists(kNx4120Mutex));
}

TEST_F(ServiceTest, CleanupStopsTheWorkerThenClosesTheObjectsThenTheNotifications) {
    ASSERT_EQ(Init(), 1u);
    auto data = EventDataOf(kNx4120InterfaceGuid);
    const auto workerIsAsked = [this, &data] {
        service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEREMOVECOMPLETE, &data, nullptr);
        return hooks_.SysLogEntries().back() == kNotRunning;
    };
    bool objectsWereThere = false;
    int cleanupsBefore = -1;
    notifier_->onArrival = [&] {
        while (!workerIsAsked())
            ::SwitchToThread();
        objectsWereThere = Exists(kNx4120Mutex);
        cleanupsBefore = notifier_->cleanups;
    };
    bool objectsWereThereAtTheNotifications = true;
    std::size_t monitorStops = 7;
    notifier_->onCleanup = [&] {
        objectsWereThereAtTheNotifications = Exists(kNx4120Mutex);
        monitorStops = monitor_->stops.size();
    };
    service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr);
    ASSERT_TRUE(Arrived());

    service_->cleanup();

    EXPECT_TRUE(objectsWereThere) << "while the worker still handled an event";
    EXPECT_EQ(cleanupsBefore, 0);
    EXPECT_FALSE(objectsWereThereAtTheNotifications);
    EXPECT_EQ(monitorStops, 0u);
}

TEST_F(ServiceTest, RuntimeErrorAndFailedSystemCallEndTheCleanupQuietly) {
    ASSERT_EQ(Init(), 1u);
    notifier_->onCleanup = [] { throw std::runtime_error("no"); };
    service_->cleanup();
    notifier_->onCleanup = [] { throw modul_exception::CWindowsApiExcp("Call()", ""); };
    service_->cleanup();
    EXPECT_TRUE(monitor_->stops.empty()) << "the remaining steps are skipped";

    notifier_->onCleanup = nullptr;
    service_->cleanup();
    EXPECT_EQ(monitor_->stops, (std::vector<bool>{false}));
    EXPECT_TRUE(hooks_.Assertions().empty());
}

TEST_F(ServiceTest, AnyOtherExceptionOfTheCleanupPassesAndTheNextOneRuns) {
    ASSERT_EQ(Init(), 1u);
    notifier_->onCleanup = [] { throw std::invalid_argument("no"); };
    EXPECT_THROW(service_->cleanup(), std::invalid_argument);
    notifier_->onCleanup = [] { throw 42; };
    EXPECT_THROW(service_->cleanup(), int);
    notifier_->onCleanup = nullptr;
    service_->cleanup();
    EXPECT_EQ(monitor_->stops, (std::vector<bool>{false}));
}

TEST_F(ServiceTest, StructuredExceptionOfTheCallbackLeavesNoLockTaken) {
    for (const DWORD code : {0xE06D7363ul, EXCEPTION_ACCESS_VIOLATION}) {
        notifier_ = std::make_shared<FakeNotifier>();
        monitor_ = std::make_shared<FakeMonitor>();
        settings_ = std::make_shared<TestSettings>();
        service_ = std::make_unique<Service>(Collaborators());
        const std::size_t before = host_.reports.size();
        host_.onReport = [this, before, code] {
            if (host_.reports.size() == before + 4) ::RaiseException(code, 0, 0, nullptr);
        };
        EXPECT_THROW(Init(), operating_system::ForeignException);
        host_.onReport = nullptr;
        // The lock would be held by this thread: another one has to get through.
        std::thread([this] {
            EXPECT_EQ(Init(), 0u);
            service_->cleanup();
        }).join();
        EXPECT_FALSE(Exists(kNx4120Mutex));
    }
}

// The times of a start and a stop, shortened to a quarter; the log opens so much later.
class LateMonitor : public ServiceTest, public testing::WithParamInterface<DWORD> {
  protected:
    static constexpr DWORD kFaster = 4;
};

INSTANTIATE_TEST_SUITE_P(Milliseconds, LateMonitor,
                         testing::Values(1000, 2000, 2600, 3000, 3400, 4000, 7000));

TEST_P(LateMonitor, IsNotLeftBehind) {
    monitor_->log().opensAfterMs = GetParam() / kFaster;
    monitor_->faster = kFaster;
    auto collaborators = Collaborators();
    collaborators.sleep = [](DWORD milliseconds) { ::Sleep(milliseconds / kFaster); };
    service_ = std::make_unique<Service>(std::move(collaborators));

    const DWORD started = Init();
    if (GetParam() == 1000) EXPECT_EQ(started, 1u);
    if (GetParam() >= 4000) EXPECT_EQ(started, 0u);
    if (started != 0) service_->cleanup();

    constexpr DWORD kTimeOutMs = 10000;
    const ULONGLONG begin = ::GetTickCount64();
    while (monitor_->runs != 0 && ::GetTickCount64() - begin < kTimeOutMs)
        ::Sleep(10);
    EXPECT_EQ(monitor_->runs, 0) << "the monitor's thread is still there";
    service_->cleanup();
}
