#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "command.h"
#include "event_record.h"
#include "exception_history.h"
#include "message_calls.h"
#include "module_hooks.h"
#include "tessaplug_eventlog_monitor.h"
#include "text_of.h"
#include "windows_api_excp.h"

using operating_system::EventLog;
using operating_system::SystemMessageBox;
using tessaplug::EventLogMonitor;
using tessaplug::EventLogMonitorCollaborators;
using tessaplug::monitorReleased;
using test_support::EventRecord;
using test_support::Eventually;
using test_support::Joined;
using test_support::MessageCalls;
using test_support::ModuleHooks;
using test_support::SysLogEntry;
using test_support::TextOf;

namespace {

/// A log that delivers what the test appends and otherwise waits to be cancelled.
class FakeLog : public EventLog {
  public:
    FakeLog() : EventLog(L"System") {}
    ~FakeLog() override { ::CloseHandle(wake_); }

    void Open() override {
        if (failOpen) throw std::runtime_error("no log");
        if (onOpen) onOpen();
        ++opened;
    }
    void Close() override { ++closed; }
    bool Reopen() override {
        ++reopened;
        if (refusals == 0) return true;
        --refusals;
        ++failed_;
        return false;
    }
    DWORD FailedReads() const override { return failed_; }
    std::vector<std::byte> BlockingRead() override {
        ++reads;
        if (onRead) onRead();
        if (failures > 0) {
            --failures;
            ++failed_;
            return {};
        }
        failed_ = 0;
        if (returnNothing) return {};
        ::WaitForSingleObject(wake_, INFINITE);
        const std::lock_guard guard(lock_);
        if (buffers_.empty()) return {};
        auto buffer = std::move(buffers_.front());
        buffers_.pop_front();
        return buffer;
    }
    void CancelRead() override {
        if (!ignoreCancel) ::SetEvent(wake_);
    }
    void Append(std::vector<std::byte> buffer) {
        {
            const std::lock_guard guard(lock_);
            buffers_.push_back(std::move(buffer));
        }
        ::SetEvent(wake_);
    }
    void Wake() { ::SetEvent(wake_); }

    std::function<void()> onOpen;
    std::function<void()> onRead;
    std::atomic<int> failures = 0;  // of the next reads
    std::atomic<int> refusals = 0;  // of the next openings
    std::atomic<int> reopened = 0;
    std::atomic<bool> failOpen = false;
    std::atomic<bool> returnNothing = false;
    std::atomic<bool> ignoreCancel = false;
    std::atomic<int> opened = 0;
    std::atomic<int> closed = 0;
    std::atomic<int> reads = 0;

  private:
    std::atomic<DWORD> failed_ = 0;
    HANDLE wake_ = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::mutex lock_;
    std::deque<std::vector<std::byte>> buffers_;
};

class FakeBox : public SystemMessageBox {
  public:
    DWORD Show(const wchar_t* title, const wchar_t* message, DWORD style) override {
        if (fail) throw std::runtime_error("No Session is WTSActive");
        if (onShow) onShow();
        EXPECT_EQ(style, 64u);
        const std::lock_guard guard(lock_);
        shown_.push_back(std::wstring(title) + L": " + message);
        return IDOK;
    }
    std::vector<std::wstring> Shown() {
        const std::lock_guard guard(lock_);
        return shown_;
    }
    std::atomic<bool> fail = false;
    std::function<void()> onShow;

  private:
    std::mutex lock_;
    std::vector<std::wstring> shown_;
};

class FakeKernel32 : public windows_api::CKernel32 {
  public:
    HANDLE CreateEventW(SECURITY_ATTRIBUTES* security, BOOL manualReset, BOOL initialState,
                        const wchar_t* name) override {
        EXPECT_EQ(security, nullptr);
        EXPECT_FALSE(manualReset);
        EXPECT_FALSE(initialState);
        EXPECT_EQ(name, nullptr);
        if (!refuseEvent) return CKernel32::CreateEventW(security, manualReset, initialState, name);
        ::SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    DWORD WaitForSingleObject(HANDLE handle, DWORD timeout) override {
        if (waitResult == 0) return CKernel32::WaitForSingleObject(handle, timeout);
        ::SetLastError(ERROR_INVALID_HANDLE);
        return waitResult;
    }
    BOOL SetEvent(HANDLE event) override {
        if (onSet) onSet();
        if (!refuseSet) return CKernel32::SetEvent(event);
        ::SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    BOOL CloseHandle(HANDLE handle) override {
        ++closed;
        return CKernel32::CloseHandle(handle);
    }
    int closed = 0;
    bool refuseEvent = false;
    std::atomic<bool> refuseSet = false;
    std::function<void()> onSet;
    DWORD waitResult = 0;
};

/// Sleeps that are over at once.
struct Sleeps {
    void Add(DWORD milliseconds) {
        const std::lock_guard guard(lock);
        longest = std::max(longest, milliseconds);
        sum += milliseconds;
    }
    DWORD TakeSum() {
        const std::lock_guard guard(lock);
        return std::exchange(sum, 0);
    }
    std::mutex lock;
    DWORD sum = 0;
    DWORD longest = 0;
};

constexpr DWORD kCppExceptionOfAnotherRunTime = 0xE06D7363;

void RaiseForeignException() {
    ::RaiseException(kCppExceptionOfAnotherRunTime, 0, 0, nullptr);
}

[[gnu::noinline]] void ReadFromNull() {
    static_cast<void>(*static_cast<volatile int*>(nullptr));  // NOLINT: the fault is what is tested
}

const SysLogEntry kMonitorEnded = {2, 0x80000105};

class Monitor : public testing::Test {
  protected:
    Monitor() { Create(); }
    void Create() {
        EventLogMonitorCollaborators collaborators;
        auto log = std::make_unique<FakeLog>();
        auto box = std::make_unique<FakeBox>();
        log_ = log.get();
        box_ = box.get();
        collaborators.eventLog = std::move(log);
        collaborators.messageBox = std::move(box);
        collaborators.kernel32 = kernel32_;
        collaborators.sleep = [this](DWORD milliseconds) {
            sleeps_.Add(milliseconds);
            if (!sleepsAreOverAtOnce_) ::Sleep(milliseconds);
        };
        monitor_ = std::make_unique<EventLogMonitor>(std::move(collaborators));
    }
    ~Monitor() override {
        monitorReleased = true;
        log_->Wake();
        if (thread_.joinable()) thread_.join();
    }
    void Start() {
        thread_ = std::thread([this] { result_ = monitor_->Run(); });
        ASSERT_TRUE(monitor_->WaitBlockingForStateChange(10000));
    }
    /// Waits for an end that was not asked for.
    void JoinEnded() {
        EXPECT_TRUE(Eventually([&] { return result_ == 0; }));
        thread_.join();
        EXPECT_FALSE(monitor_->WaitBlockingForStateChange(0)) << "it does not signal";
    }
    static std::string NewestException() {
        using modul_exception::exceptionHistory;
        return exceptionHistory.records[(exceptionHistory.writeIndex + 4) % 5].what;
    }
    void StopAndJoin() {
        monitor_->Stop(false);
        EXPECT_TRUE(monitor_->WaitBlockingForStateChange(10000));
        thread_.join();
    }
    static std::vector<std::byte> Record(WORD type, const std::wstring& source = L"fenlu3") {
        EventRecord record;
        record.source = source;
        record.type = type;
        record.id = 0xC0040999;  // which has no text
        return record.Bytes();
    }

    FakeLog* log_ = nullptr;
    FakeBox* box_ = nullptr;
    std::shared_ptr<FakeKernel32> kernel32_ = std::make_shared<FakeKernel32>();
    Sleeps sleeps_;
    std::atomic<bool> sleepsAreOverAtOnce_ = false;
    std::unique_ptr<EventLogMonitor> monitor_;
    std::thread thread_;
    std::thread second_;
    std::atomic<DWORD> result_ = 99;
};

/// The monitor reads texts from the driver's file in the system folder.
class MonitorWithDriver : public Monitor {
  protected:
    MonitorWithDriver() {
        ::CreateDirectoryW(L"C:\\windows\\system32\\drivers", nullptr);
        placed_ = ::CopyFileW((test_support::ProgramFolder() + L"fenlu3.sys").c_str(), kFile, TRUE);
    }
    ~MonitorWithDriver() override {
        if (placed_) ::DeleteFileW(kFile);
    }
    static constexpr wchar_t kFile[] = L"C:\\windows\\system32\\drivers\\fenlu3.sys";

  private:
    BOOL placed_ = FALSE;  // not if the driver is installed
};

}  // namespace

TEST_F(Monitor, StopEndsTheWaitAtOnceAndShowsNothing) {
    Start();
    const ULONGLONG start = ::GetTickCount64();
    StopAndJoin();
    EXPECT_LT(::GetTickCount64() - start, 500u);
    EXPECT_TRUE(box_->Shown().empty());
    EXPECT_EQ(log_->closed, 1);
    EXPECT_EQ(result_, 0u);
}

TEST_F(Monitor, CanRunAgainAfterAStop) {
    for (int i = 1; i <= 2; ++i) {
        Start();
        StopAndJoin();
        EXPECT_EQ(log_->opened, i);
    }
}

TEST_F(Monitor, StopWithoutARunOnlyTraces) {
    monitor_->Stop(false);
    EXPECT_FALSE(monitor_->WaitBlockingForStateChange(0));
}

TEST_F(Monitor, AbandonedBeforeItBeginsNeverBegins) {
    monitor_->Abandon();
    EXPECT_EQ(monitor_->Run(), 0u);
    EXPECT_EQ(log_->opened, 0);
    EXPECT_FALSE(monitor_->WaitBlockingForStateChange(0));
}

TEST_F(Monitor, AbandonedWhileItWaitsEndsWithoutAStop) {
    Start();
    ASSERT_TRUE(Eventually([this] { return log_->reads == 1; }));
    monitor_->Abandon();
    EXPECT_TRUE(monitor_->WaitBlockingForStateChange(10000));
}

TEST_F(Monitor, AbandonedWhileTheLogIsBeingOpenedEndsUnasked) {
    log_->onOpen = [this] { monitor_->Abandon(); };
    EXPECT_EQ(monitor_->Run(), 0u);
    EXPECT_EQ(log_->reads, 0);
    EXPECT_EQ(log_->closed, 1);
}

TEST_F(Monitor, SecondRunReturnsAtOnce) {
    Start();
    EXPECT_EQ(monitor_->Run(), 0u);
    EXPECT_EQ(log_->opened, 1);
    StopAndJoin();
}

TEST_F(MonitorWithDriver, EachErrorIsShownOnceAndNothingElseIs) {
    Start();
    log_->Append(Joined({Record(EVENTLOG_INFORMATION_TYPE), Record(EVENTLOG_WARNING_TYPE),
                         Record(EVENTLOG_ERROR_TYPE, L"other"), Record(EVENTLOG_AUDIT_FAILURE),
                         Record(EVENTLOG_ERROR_TYPE), Record(EVENTLOG_ERROR_TYPE)}));
    const std::wstring text = L"fenlu3: ERROR: NO STRING FOR EVENT ID";
    EXPECT_TRUE(Eventually([&] { return box_->Shown().size() >= 2; }));
    StopAndJoin();
    EXPECT_EQ(box_->Shown(), (std::vector<std::wstring>{text, text}));
}

TEST_F(Monitor, MalformedRecordsAreSurvived) {
    Start();
    std::vector<std::byte> damaged = Record(EVENTLOG_ERROR_TYPE);
    damaged.resize(damaged.size() - 3);
    log_->Append(damaged);
    EXPECT_TRUE(Eventually([&] { return log_->reads >= 2; })) << "it reads on";
    StopAndJoin();
}

TEST_F(Monitor, FailedReadsAreRepeatedWithAPause) {
    log_->returnNothing = true;
    Start();
    ::Sleep(500);
    EXPECT_LE(log_->reads, 2);
    EXPECT_TRUE(Eventually([&] { return log_->reads >= 3; })) << "it tries again";
    const ULONGLONG start = ::GetTickCount64();
    StopAndJoin();
    EXPECT_LT(::GetTickCount64() - start, 500u) << "a pause does not hold up the stop";
}

TEST_F(Monitor, LogThatCannotBeReadIsOpenedAgainAtIntervalsThatGrowToAMinute) {
    std::vector<DWORD> pauses;
    log_->onRead = [&] { pauses.push_back(sleeps_.TakeSum()); };
    sleepsAreOverAtOnce_ = true;
    log_->failures = 9;
    Start();
    EXPECT_TRUE(Eventually([&] { return log_->reads == 10; }));
    StopAndJoin();
    EXPECT_EQ(pauses, (std::vector<DWORD>{0, 1000, 2000, 4000, 8000, 16000, 32000, 60000, 60000, 60000}));
    EXPECT_EQ(log_->reopened, 9);
    EXPECT_LE(sleeps_.longest, 100u) << "so that a stop does not wait";
}

TEST_F(Monitor, LogThatCannotBeOpenedAgainIsNotReadUntilItCan) {
    sleepsAreOverAtOnce_ = true;
    log_->failures = 1;
    log_->refusals = 3;
    Start();
    EXPECT_TRUE(Eventually([&] { return log_->reads == 2; }));
    StopAndJoin();
    EXPECT_EQ(log_->reopened, 4);
    EXPECT_EQ(sleeps_.TakeSum(), 1000u + 2000 + 4000 + 8000);
}

TEST_F(MonitorWithDriver, ErrorIsShownAfterReadsThatFailed) {
    sleepsAreOverAtOnce_ = true;
    log_->failures = 3;
    Start();
    log_->Append(Record(EVENTLOG_ERROR_TYPE));
    EXPECT_TRUE(Eventually([&] { return box_->Shown().size() == 1; }));
    StopAndJoin();
}

TEST_F(Monitor, StopInAPauseIsTakenAtOnceAndTheLogNotOpenedAgain) {
    log_->failures = 1;
    Start();
    EXPECT_TRUE(Eventually([&] { return log_->reads == 1 && log_->failures == 0; }));
    const ULONGLONG start = ::GetTickCount64();
    StopAndJoin();
    EXPECT_LT(::GetTickCount64() - start, 500u);
    EXPECT_EQ(log_->reopened, 0);
    EXPECT_EQ(log_->closed, 1);
}

TEST_F(Monitor, ReleaseEndsAPauseToo) {
    log_->failures = 1;
    Start();
    EXPECT_TRUE(Eventually([&] { return log_->failures == 0; }));
    const ULONGLONG start = ::GetTickCount64();
    monitorReleased = true;
    EXPECT_TRUE(monitor_->WaitBlockingForStateChange(10000));
    EXPECT_LT(::GetTickCount64() - start, 500u);
    EXPECT_EQ(log_->reads, 1);
}

TEST_F(MonitorWithDriver, EndThatNobodyAskedForIsReportedOnce) {
    const ModuleHooks hooks;
    Start();
    box_->fail = true;
    log_->Append(Record(EVENTLOG_ERROR_TYPE));
    JoinEnded();
    EXPECT_EQ(hooks.SysLogEntries(), (std::vector<SysLogEntry>{kMonitorEnded}));
    EXPECT_EQ(monitor_->Run(), 0u) << "refused until it is stopped";
    monitor_->Stop(false);
    EXPECT_EQ(hooks.SysLogEntries().size(), 1u);
}

TEST_F(Monitor, StopsAndRefusedRunsAreNotReported) {
    const ModuleHooks hooks;
    Start();
    EXPECT_EQ(monitor_->Run(), 0u);
    StopAndJoin();
    Start();
    log_->ignoreCancel = true;
    monitor_->Stop(true);
    monitorReleased = true;
    log_->Wake();
    thread_.join();
    EXPECT_TRUE(hooks.SysLogEntries().empty());
}

TEST_F(Monitor, StartThatFailsIsLeftToTheOneWhoStarts) {
    const ModuleHooks hooks;
    log_->failOpen = true;
    EXPECT_EQ(monitor_->Run(), 0u);
    log_->failOpen = false;
    kernel32_->refuseSet = true;
    EXPECT_EQ(monitor_->Run(), 0u);
    EXPECT_TRUE(hooks.SysLogEntries().empty());
}

TEST_F(MonitorWithDriver, FailureAfterAStopIsNotReported) {
    const ModuleHooks hooks;
    box_->onShow = [this] {
        monitor_->Stop(false);
        throw std::runtime_error("the user has logged off");
    };
    Start();
    log_->Append(Record(EVENTLOG_ERROR_TYPE));
    JoinEnded();
    EXPECT_TRUE(hooks.SysLogEntries().empty());
}

TEST_F(MonitorWithDriver, FailureAfterTheReleaseIsNotReported) {
    const ModuleHooks hooks;
    box_->onShow = [] {
        monitorReleased = true;
        throw std::runtime_error("the user has logged off");
    };
    Start();
    log_->Append(Record(EVENTLOG_ERROR_TYPE));
    JoinEnded();
    EXPECT_TRUE(hooks.SysLogEntries().empty());
}

TEST_F(MonitorWithDriver, ReportThatThrowsStaysInside) {
    ModuleHooks hooks;
    hooks.throwFromSysLog = true;
    Start();
    box_->fail = true;
    log_->Append(Record(EVENTLOG_ERROR_TYPE));
    JoinEnded();
}

TEST_F(MonitorWithDriver, WhatABoxRaisesEndsTheMonitorLikeAnyOtherException) {
    for (const auto& raise : {std::function<void()>(RaiseForeignException),
                              std::function<void()>(ReadFromNull), std::function<void()>([] { throw 42; })}) {
        result_ = 99;
        Create();
        const ModuleHooks hooks;
        box_->onShow = raise;
        Start();
        log_->Append(Record(EVENTLOG_ERROR_TYPE));
        JoinEnded();
        EXPECT_EQ(hooks.SysLogEntries(), (std::vector<SysLogEntry>{kMonitorEnded}));
        EXPECT_TRUE(hooks.Assertions().empty());
        monitor_->Stop(false);
    }
    Create();
    Start();
    log_->Append(Record(EVENTLOG_ERROR_TYPE));
    EXPECT_TRUE(Eventually([&] { return box_->Shown().size() == 1; })) << "the next one works";
    StopAndJoin();
}

TEST_F(Monitor, WhatAReadOrAnOpeningRaisesEndsItToo) {
    const ModuleHooks hooks;
    log_->onRead = ReadFromNull;
    Start();
    JoinEnded();
    EXPECT_EQ(hooks.SysLogEntries(), (std::vector<SysLogEntry>{kMonitorEnded}));
    Create();
    log_->onOpen = RaiseForeignException;
    EXPECT_EQ(monitor_->Run(), 0u);
    EXPECT_EQ(hooks.SysLogEntries().size(), 1u);
}

TEST_F(Monitor, StateThatCannotBeToldNamesItsDirection) {
    kernel32_->refuseSet = true;
    EXPECT_EQ(monitor_->Run(), 0u);
    EXPECT_TRUE(NewestException().starts_with("FAILED! SetEvent(threadState_)! LE(6): "))
        << NewestException();
    EXPECT_TRUE(NewestException().ends_with(" Hint: UP\n")) << NewestException();
    kernel32_->refuseSet = false;
    Create();
    Start();
    kernel32_->refuseSet = true;
    monitor_->Stop(false);
    JoinEnded();
    EXPECT_TRUE(NewestException().starts_with("FAILED! SetEvent(threadState_)! LE(6): "))
        << NewestException();
    EXPECT_TRUE(NewestException().ends_with(" Hint: DOWN\n")) << NewestException();
}

TEST_F(Monitor, LogIsOpenBeforeTheStartIsToldAndClosedBeforeTheStopIs) {
    std::vector<std::pair<int, int>> openedAndClosed;
    kernel32_->onSet = [&] { openedAndClosed.emplace_back(log_->opened, log_->closed); };
    Start();
    StopAndJoin();
    EXPECT_EQ(openedAndClosed, (std::vector<std::pair<int, int>>{{1, 0}, {1, 1}}));
}

TEST_F(Monitor, TwoRunsThatBeginTogetherAreAsserted) {
    const ModuleHooks hooks;
    sleepsAreOverAtOnce_ = true;
    // The second begins while the first opens the log.
    std::atomic<bool> isFirst = true;
    log_->onOpen = [&] {
        if (!isFirst.exchange(false)) return;
        second_ = std::thread([this] { monitor_->Run(); });
        EXPECT_TRUE(Eventually([&] { return log_->reads == 1; }));
    };
    thread_ = std::thread([this] { result_ = monitor_->Run(); });
    EXPECT_TRUE(Eventually([&] { return log_->reads == 2; }));
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"\"Incremented RunningInstance\" && (val == 1)"}));
    monitor_->Stop(false);
    monitor_->Stop(false);
    EXPECT_TRUE(Eventually([&] {
        log_->Wake();
        return log_->closed == 2;
    }));
    second_.join();
    thread_.join();
    ASSERT_EQ(hooks.Assertions().size(), 2u);
    EXPECT_EQ(hooks.Assertions()[1].expression, L"\"Decremented RunningInstance\" && (val == 0)");
    EXPECT_EQ(hooks.Assertions()[1].sourcePath, L"tessaplug_lib\\src\\tessaplug_eventlog_monitor");
}

TEST_F(Monitor, FailureToOpenNeverSignals) {
    log_->failOpen = true;
    thread_ = std::thread([this] { result_ = monitor_->Run(); });
    EXPECT_FALSE(monitor_->WaitBlockingForStateChange(200));
    EXPECT_TRUE(Eventually([&] { return result_ == 0; }));
}

TEST_F(MonitorWithDriver, FailingBoxEndsTheMonitorWithoutASignal) {
    Start();
    box_->fail = true;
    log_->Append(Record(EVENTLOG_ERROR_TYPE));
    EXPECT_TRUE(Eventually([&] { return result_ == 0; }));
    monitor_->Stop(false);
    EXPECT_FALSE(monitor_->WaitBlockingForStateChange(200));
    EXPECT_EQ(log_->closed, 0);
}

TEST_F(MonitorWithDriver, ReleasedMonitorDropsWhatItRead) {
    const MessageCalls calls;
    Start();
    log_->ignoreCancel = true;
    monitor_->Stop(false);
    EXPECT_FALSE(monitor_->WaitBlockingForStateChange(100)) << "as the service finds one that hangs";
    monitorReleased = true;
    log_->Append(Record(EVENTLOG_ERROR_TYPE));
    EXPECT_TRUE(monitor_->WaitBlockingForStateChange(10000));
    EXPECT_TRUE(calls.loaded.empty()) << "it is not even looked at";
    EXPECT_TRUE(box_->Shown().empty());
}

TEST_F(MonitorWithDriver, MessagesThatAreMadeWhenTheReleaseComesAreDropped) {
    MessageCalls calls;
    calls.onFormat = [] { monitorReleased = true; };
    Start();
    log_->Append(Record(EVENTLOG_ERROR_TYPE));
    EXPECT_TRUE(monitor_->WaitBlockingForStateChange(10000));
    EXPECT_TRUE(box_->Shown().empty());
    EXPECT_EQ(log_->reads, 1);
}

TEST_F(Monitor, MessageFileThatCannotBeReadEndsIt) {
    const ModuleHooks hooks;
    MessageCalls calls;
    calls.onLoad = ReadFromNull;
    Start();
    log_->Append(Record(EVENTLOG_ERROR_TYPE));
    JoinEnded();
    EXPECT_EQ(hooks.SysLogEntries(), (std::vector<SysLogEntry>{kMonitorEnded}));
    EXPECT_EQ(log_->reads, 1);
}

TEST_F(Monitor, AnotherOneRunsAfterOneThatHasEnded) {
    const ModuleHooks hooks;
    log_->onRead = RaiseForeignException;
    Start();
    JoinEnded();
    monitor_->Stop(false);
    Create();
    log_->onRead = nullptr;
    Start();
    StopAndJoin();
    EXPECT_EQ(hooks.SysLogEntries().size(), 1u) << "of the first only";
}

TEST_F(Monitor, StopWithTheFlagWaitsToBeReleased) {
    Start();
    monitor_->Stop(true);
    EXPECT_TRUE(monitor_->WaitBlockingForStateChange(10000)) << "the log is closed and the stop is told";
    EXPECT_EQ(log_->closed, 1);
    ::Sleep(300);
    EXPECT_EQ(result_, 99u) << "it is still there";
    EXPECT_EQ(sleeps_.longest, 100u);
    monitorReleased = true;
    EXPECT_TRUE(Eventually([&] { return result_ == 0; }));
}

TEST_F(Monitor, StartClearsTheRelease) {
    monitorReleased = true;
    Start();
    EXPECT_FALSE(monitorReleased);
    StopAndJoin();
}

TEST_F(Monitor, FailedWaitsAreTold) {
    kernel32_->waitResult = WAIT_ABANDONED;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { monitor_->WaitBlockingForStateChange(1); }),
              "WaitForSingleObject(EventLogMonitor) --> WAIT_ABANDONED");
    kernel32_->waitResult = WAIT_FAILED;
    EXPECT_TRUE(TextOf<modul_exception::CWindowsApiExcp>([&] {
                    monitor_->WaitBlockingForStateChange(1);
                }).starts_with("FAILED! WaitForSingleObject(EventLogMonitor)! LE(6): "));
    kernel32_->waitResult = WAIT_TIMEOUT;
    EXPECT_FALSE(monitor_->WaitBlockingForStateChange(1));
}

TEST_F(Monitor, RefusedEventIsTold) {
    EventLogMonitorCollaborators collaborators;
    collaborators.kernel32 = kernel32_;
    kernel32_->refuseEvent = true;
    const std::string text = TextOf<modul_exception::CWindowsApiExcp>(
        [&] { const EventLogMonitor monitor(std::move(collaborators)); });
    EXPECT_TRUE(text.starts_with("FAILED! CreateEventW()! LE(5): ")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: Insufficient rights?\n")) << text;
}

TEST_F(Monitor, EventOfItsStateIsClosedWithIt) {
    EventLogMonitorCollaborators collaborators;
    collaborators.kernel32 = kernel32_;
    {
        const EventLogMonitor monitor(std::move(collaborators));
    }
    EXPECT_EQ(kernel32_->closed, 1);
}
