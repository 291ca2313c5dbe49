#include <windows.h>
#include <dbt.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "module_hooks.h"
#include "tessaplug_pnp.h"
#include "trace_recorder.h"
#include "unique_handle.h"
#include "windows_api_excp.h"

using tessaplug::DeviceMonitor;
using tessaplug::kFennlinkU3InterfaceGuid;
using tessaplug::kNx4120InterfaceGuid;
using tessaplug::Request;
using tessaplug::RequestQueue;
using test_support::ModuleHooks;

namespace {

constexpr auto kTimeOut = std::chrono::seconds(10);

/// Records what the worker hands it; a test can make it do more.
class RecordingNotifier : public tessaplug::DeviceNotifier {
  public:
    void OnDeviceArrival(const GUID& guid, DWORD eventType) override { Record("arrival", guid, eventType); }
    void OnDeviceRemoval(const GUID& guid, DWORD eventType) override { Record("removal", guid, eventType); }

    /// Called on the worker's thread after an event was recorded, with all events up to it.
    std::function<void(const std::vector<std::string>&)> onEvent;

    std::vector<std::string> WaitForEvents(std::size_t count) {
        std::unique_lock guard(lock_);
        changed_.wait_for(guard, kTimeOut, [&] { return events_.size() >= count; });
        return events_;
    }

  private:
    void Record(const std::string& name, const GUID& guid, DWORD eventType) {
        const std::string model = IsEqualGUID(guid, kNx4120InterfaceGuid) ? "NX4120" : "other";
        std::vector<std::string> events;
        {
            const std::lock_guard guard(lock_);
            events_.push_back(name + " " + model + " " + std::to_string(eventType));
            events = events_;
        }
        changed_.notify_all();
        if (onEvent) onEvent(events);
    }

    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
};

const std::string kU3Arrival = "arrival other " + std::to_string(DBT_DEVICEARRIVAL);
const std::string kU3Removal = "removal other " + std::to_string(DBT_DEVICEREMOVECOMPLETE);
const std::string kNxArrival = "arrival NX4120 " + std::to_string(DBT_DEVICEARRIVAL);

/// A gate that a thread waits at until it is opened.
class Gate {
  public:
    void Open() {
        {
            const std::lock_guard guard(lock_);
            open_ = true;
        }
        changed_.notify_all();
    }
    void Wait() {
        std::unique_lock guard(lock_);
        EXPECT_TRUE(changed_.wait_for(guard, kTimeOut, [&] { return open_; }));
    }

  private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool open_ = false;
};

std::unique_ptr<Request> RequestFor(const std::shared_ptr<tessaplug::DeviceNotifier>& notifier,
                                    const GUID& guid, DWORD eventType) {
    return std::make_unique<Request>(Request{eventType, guid, notifier});
}

std::unique_ptr<Request> RequestOfType(DWORD eventType) {
    return RequestFor(nullptr, kFennlinkU3InterfaceGuid, eventType);
}

/// Has the plug-in's own files trace what they handle, for as long as it lives.
class TracedWorker {
  public:
    TracedWorker() {
        test_support::EnableTracing(test_support::kModuleGuid, trace::kInformation, trace::kMessage, 1);
    }

    /// The event types that the worker has said it handles.
    static std::vector<std::string> Handled() {
        constexpr USHORT kHandling = 32;
        std::vector<std::string> names;
        for (const test_support::TraceRecord& record : test_support::TakeTraceRecords())
            if (record.number == kHandling) names.push_back(record.Text(0));
        return names;
    }

  private:
    const test_support::Tracing tracing_;
};

/// Fails one system call on demand.
class FailingKernel32 : public windows_api::CKernel32 {
  public:
    bool failCreateEvent = false;
    bool failWait = false;
    bool failSetEvent = false;
    int swallowedSignals = 0;  // taken by somebody else who waits for the event
    int waits = 0;
    Gate* opensWhenWaiting = nullptr;
    Gate* opensWhenSet = nullptr;
    Gate* gateBeforeFirstWaitReturns = nullptr;
    int closed = 0;

    HANDLE CreateEventW(SECURITY_ATTRIBUTES* security, BOOL manualReset, BOOL initialState,
                        const wchar_t* name) override {
        eventNames.push_back(name != nullptr ? name : L"");
        eventIsManualReset = manualReset != 0;
        return failCreateEvent ? nullptr : CKernel32::CreateEventW(security, manualReset, initialState, name);
    }
    DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) override {
        ++waits;
        if (failWait) return WAIT_FAILED;
        if (opensWhenWaiting != nullptr) opensWhenWaiting->Open();
        const DWORD result = CKernel32::WaitForSingleObject(handle, milliseconds);
        if (Gate* gate = std::exchange(gateBeforeFirstWaitReturns, nullptr)) gate->Wait();
        return result;
    }
    BOOL SetEvent(HANDLE event) override {
        if (opensWhenSet != nullptr) opensWhenSet->Open();
        if (swallowedSignals > 0) return --swallowedSignals, TRUE;
        return failSetEvent ? FALSE : CKernel32::SetEvent(event);
    }
    BOOL CloseHandle(HANDLE handle) override {
        ++closed;
        return CKernel32::CloseHandle(handle);
    }

    std::vector<std::wstring> eventNames;
    bool eventIsManualReset = true;
};

}  // namespace

TEST(RequestQueue, SecondRequestIsAppendedAndThirdReplacesIt) {
    RequestQueue queue;
    const auto ofTheFirst = std::make_shared<RecordingNotifier>();

    EXPECT_EQ(queue.Push(RequestFor(ofTheFirst, kFennlinkU3InterfaceGuid, 1)), nullptr);
    EXPECT_EQ(queue.Push(RequestOfType(2)), nullptr);
    const auto replaced = queue.Push(RequestOfType(3));

    ASSERT_NE(replaced, nullptr);
    EXPECT_EQ(replaced->eventType, 2u);
    EXPECT_EQ(ofTheFirst.use_count(), 2) << "the first is still queued";
    EXPECT_EQ(queue.Take()->eventType, 3u);  // the first is stale
    EXPECT_TRUE(queue.empty());
}

TEST(RequestQueue, SingleRequestIsTaken) {
    RequestQueue queue;
    queue.Push(RequestOfType(1));

    EXPECT_EQ(queue.Take()->eventType, 1u);
    EXPECT_EQ(queue.Take(), nullptr);
}

TEST(RequestWorker, HandlesArrivalAndRemoval) {
    const auto notifier = std::make_shared<RecordingNotifier>();
    const DeviceMonitor monitor;

    EXPECT_TRUE(DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL)));
    EXPECT_EQ(notifier->WaitForEvents(1), (std::vector<std::string>{kU3Arrival}));
    EXPECT_TRUE(
        DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEREMOVECOMPLETE)));
    EXPECT_EQ(notifier->WaitForEvents(2), (std::vector<std::string>{kU3Arrival, kU3Removal}));
}

/// What is handled when two events of a model come while its first is handled.
std::vector<std::string> EventsOfABurst(DWORD first, DWORD second, DWORD third) {
    const auto notifier = std::make_shared<RecordingNotifier>();
    Gate queued;
    notifier->onEvent = [&](const std::vector<std::string>& events) {
        if (events.size() == 1) queued.Wait();
    };
    {
        const DeviceMonitor monitor;
        DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, first));
        EXPECT_EQ(notifier->WaitForEvents(1).size(), 1u);
        DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, second));
        DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, third));
        queued.Open();
        notifier->WaitForEvents(2);
    }
    return notifier->WaitForEvents(2);
}

TEST(RequestWorker, BurstWhileHandlingCollapsesToTheNewestEvent) {
    EXPECT_EQ(EventsOfABurst(DBT_DEVICEARRIVAL, DBT_DEVICEREMOVECOMPLETE, DBT_DEVICEARRIVAL),
              (std::vector<std::string>{kU3Arrival, kU3Arrival}));
    EXPECT_EQ(EventsOfABurst(DBT_DEVICEREMOVECOMPLETE, DBT_DEVICEARRIVAL, DBT_DEVICEREMOVECOMPLETE),
              (std::vector<std::string>{kU3Removal, kU3Removal}));
}

TEST(RequestWorker, ServesBothQueuesAlternately) {
    const auto notifier = std::make_shared<RecordingNotifier>();
    const auto kernel32 = std::make_shared<FailingKernel32>();
    Gate bothQueued;
    kernel32->gateBeforeFirstWaitReturns = &bothQueued;
    notifier->onEvent = [&](const std::vector<std::string>& events) {
        // One more of the same model while the first of it is handled.
        if (events.size() == 1)
            DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL));
        if (events.size() == 2)
            DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL));
    };

    const DeviceMonitor monitor(kernel32);
    DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL));
    DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL));
    bothQueued.Open();

    EXPECT_EQ(notifier->WaitForEvents(4),
              (std::vector<std::string>{kNxArrival, kU3Arrival, kNxArrival, kU3Arrival}));
}

TEST(RequestWorker, ModelsNeverDisplaceEachOther) {
    const auto notifier = std::make_shared<RecordingNotifier>();
    Gate queued;
    notifier->onEvent = [&](const std::vector<std::string>& events) {
        if (events.size() == 1) queued.Wait();
    };
    const DeviceMonitor monitor;
    DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEREMOVECOMPLETE));
    ASSERT_EQ(notifier->WaitForEvents(1).size(), 1u);
    DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL));
    for (int i = 0; i < 5; ++i)
        DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL));
    queued.Open();
    EXPECT_EQ(notifier->WaitForEvents(3), (std::vector<std::string>{kU3Removal, kNxArrival, kU3Arrival}));
}

TEST(RequestWorker, UnknownEventTypeIsTracedAndDiscarded) {
    const TracedWorker worker;
    const auto notifier = std::make_shared<RecordingNotifier>();
    const DeviceMonitor monitor;

    DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEQUERYREMOVE));
    DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL));

    EXPECT_EQ(notifier->WaitForEvents(1), (std::vector<std::string>{kU3Arrival}));
    const std::vector<std::string> handled = TracedWorker::Handled();
    ASSERT_FALSE(handled.empty());
    EXPECT_EQ(handled[0], "DBT_DEVICEQUERYREMOVE");
}

TEST(RequestWorker, StopWhileWaitingHandlesNothing) {
    const TracedWorker worker;
    const auto kernel32 = std::make_shared<FailingKernel32>();
    Gate waiting;
    kernel32->opensWhenWaiting = &waiting;
    {
        const DeviceMonitor monitor(kernel32);
        waiting.Wait();
    }
    EXPECT_TRUE(TracedWorker::Handled().empty());
}

TEST(RequestWorker, StopDuringAPassLetsItFinishAndFreesWhatIsStillQueued) {
    const auto notifier = std::make_shared<RecordingNotifier>();
    const auto kernel32 = std::make_shared<FailingKernel32>();
    Gate stopping;
    notifier->onEvent = [&](const std::vector<std::string>& events) {
        if (events.size() == 1) stopping.Wait();
        if (events.size() == 2)
            DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL));
    };
    auto monitor = std::make_unique<DeviceMonitor>(kernel32);
    DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL));
    ASSERT_EQ(notifier->WaitForEvents(1).size(), 1u);
    DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL));
    DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL));
    kernel32->opensWhenSet = &stopping;  // by the stop, which wakes the worker once it has set the flag
    std::thread([&] { monitor.reset(); }).join();

    // The pass went on to the other queue; what waited for the next pass was freed, and no worker finds it.
    EXPECT_EQ(notifier->WaitForEvents(2), (std::vector<std::string>{kNxArrival, kU3Arrival}));
    EXPECT_EQ(notifier.use_count(), 1);
    const auto nextKernel32 = std::make_shared<FailingKernel32>();
    Gate waiting;
    nextKernel32->opensWhenWaiting = &waiting;
    {
        const DeviceMonitor next(nextKernel32);
        waiting.Wait();
    }
    EXPECT_EQ(notifier->WaitForEvents(2).size(), 2u);
}

TEST(RequestWorker, LooksAtBothQueuesInEveryPassEvenIfOneIsRefilled) {
    const auto notifier = std::make_shared<RecordingNotifier>();
    notifier->onEvent = [&](const std::vector<std::string>& events) {
        if (events.size() == 1)
            DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL));
        if (events.size() < 6)
            DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL));
    };
    const DeviceMonitor monitor;
    DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL));
    const std::vector<std::string> events = notifier->WaitForEvents(6);
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(events[1], kNxArrival);
}

TEST(RequestWorker, EventsThatItWouldOnlyTraceNeitherDisplaceNorOutdateOthers) {
    const auto notifier = std::make_shared<RecordingNotifier>();
    const auto bystander = std::make_shared<RecordingNotifier>();
    const GUID foreign = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
    Gate queued;
    notifier->onEvent = [&](const std::vector<std::string>& events) {
        if (events.size() == 1) queued.Wait();
    };
    const DeviceMonitor monitor;
    DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL));
    ASSERT_EQ(notifier->WaitForEvents(1).size(), 1u);
    DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEREMOVECOMPLETE));
    DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL));
    for (const auto& [guid, type] :
         std::initializer_list<std::pair<GUID, DWORD>>{{foreign, DBT_DEVICEARRIVAL},
                                                       {GUID{}, DBT_DEVICEARRIVAL},
                                                       {kFennlinkU3InterfaceGuid, DBT_DEVICEQUERYREMOVE},
                                                       {kNx4120InterfaceGuid, DBT_DEVICEREMOVEPENDING},
                                                       {kFennlinkU3InterfaceGuid, DBT_CUSTOMEVENT}})
        EXPECT_TRUE(DeviceMonitor::Enqueue(RequestFor(bystander, guid, type))) << "dropped, not refused";
    EXPECT_EQ(bystander.use_count(), 1);
    queued.Open();
    EXPECT_EQ(notifier->WaitForEvents(3), (std::vector<std::string>{kU3Arrival, kNxArrival, kU3Removal}));
}

TEST(RequestWorker, EnqueueWithoutMonitorIsRefused) {
    const auto notifier = std::make_shared<RecordingNotifier>();
    EXPECT_FALSE(DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL)));
    {
        const DeviceMonitor monitor;
    }
    EXPECT_FALSE(DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL)));
}

TEST(RequestWorker, WakeUpEventIsNamedAndAutoReset) {
    const auto kernel32 = std::make_shared<FailingKernel32>();
    {
        const DeviceMonitor monitor(kernel32);
    }
    EXPECT_EQ(kernel32->eventNames, (std::vector<std::wstring>{L"PnPEvent"}));
    EXPECT_FALSE(kernel32->eventIsManualReset);
    EXPECT_EQ(kernel32->closed, 1);
}

/// What somebody else has under the worker's public name.
class PnPEventOfSomebodyElse : public testing::TestWithParam<HANDLE (*)()> {};

INSTANTIATE_TEST_SUITE_P(Kinds, PnPEventOfSomebodyElse,
                         testing::Values([] { return ::CreateEventW(nullptr, TRUE, TRUE, L"PnPEvent"); },
                                         [] { return ::CreateMutexW(nullptr, FALSE, L"PnPEvent"); }));

TEST_P(PnPEventOfSomebodyElse, HasTheWorkerUseAnEventWithoutAName) {
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kModuleGuid, trace::kWarning, trace::kMessage, 1);
    const UniqueKernelHandle theirs(GetParam()());
    const auto kernel32 = std::make_shared<FailingKernel32>();
    const auto notifier = std::make_shared<RecordingNotifier>();
    {
        const DeviceMonitor monitor(kernel32);
        DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL));
        EXPECT_EQ(notifier->WaitForEvents(1), (std::vector<std::string>{kNxArrival}));
    }
    EXPECT_EQ(kernel32->eventNames, (std::vector<std::wstring>{L"PnPEvent", L""}));
    EXPECT_LE(kernel32->waits, 4) << "a signalled manual-reset event would have it run in circles";
    constexpr USHORT kSomebodyElses = 38;
    EXPECT_EQ(std::ranges::count(test_support::TakeTraceRecords(), kSomebodyElses,
                                 &test_support::TraceRecord::number),
              1);
}

TEST(RequestWorker, StopGoesOnWakingAWorkerWhoseSignalSomebodyElseTook) {
    const auto kernel32 = std::make_shared<FailingKernel32>();
    Gate waiting;
    kernel32->opensWhenWaiting = &waiting;
    auto monitor = std::make_unique<DeviceMonitor>(kernel32);
    waiting.Wait();
    kernel32->swallowedSignals = 2;
    monitor.reset();
    EXPECT_EQ(kernel32->swallowedSignals, 0);
}

TEST(RequestWorker, MissingEventFailsTheConstruction) {
    const auto kernel32 = std::make_shared<FailingKernel32>();
    kernel32->failCreateEvent = true;
    try {
        const DeviceMonitor monitor(kernel32);
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "CreateEvent failed!");
    }
    EXPECT_EQ(kernel32->closed, 0);
}

TEST(RequestWorker, FailingWaitEndsTheWorkerWithoutAssertion) {
    const auto kernel32 = std::make_shared<FailingKernel32>();
    kernel32->failWait = true;
    {
        const DeviceMonitor monitor(kernel32);
    }
    EXPECT_EQ(kernel32->closed, 1);
}

TEST(RequestWorker, FailingSetEventLeavesTheRequestQueued) {
    const auto notifier = std::make_shared<RecordingNotifier>();
    const auto kernel32 = std::make_shared<FailingKernel32>();
    const DeviceMonitor monitor(kernel32);
    kernel32->failSetEvent = true;

    EXPECT_TRUE(DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL)));
    kernel32->failSetEvent = false;
    DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL));

    EXPECT_EQ(notifier->WaitForEvents(2), (std::vector<std::string>{kNxArrival, kU3Arrival}));
}

TEST(RequestWorker, WhatIsQueuedDuringAPassIsServedWithoutASignal) {
    const auto notifier = std::make_shared<RecordingNotifier>();
    const auto kernel32 = std::make_shared<FailingKernel32>();
    notifier->onEvent = [&](const std::vector<std::string>& events) {
        if (events.size() > 1) return;
        kernel32->swallowedSignals = 1;
        DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL));
    };
    const DeviceMonitor monitor(kernel32);
    DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL));

    EXPECT_EQ(notifier->WaitForEvents(2), (std::vector<std::string>{kU3Arrival, kNxArrival}));
}

TEST(RequestWorker, RuntimeErrorOfAHandlerEndsTheWorkerAndKeepsTheRequest) {
    const auto notifier = std::make_shared<RecordingNotifier>();
    notifier->onEvent = [](const std::vector<std::string>&) { throw std::runtime_error("handler"); };
    {
        const DeviceMonitor monitor;
        DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL));
        notifier->WaitForEvents(1);
    }
    EXPECT_EQ(notifier.use_count(), 2) << "the request that was being handled is kept for post-mortem";
}

/// What a handler raises that is no std::runtime_error.
class UnknownExceptionOfAHandler : public testing::TestWithParam<void (*)()> {};

INSTANTIATE_TEST_SUITE_P(Kinds, UnknownExceptionOfAHandler,
                         testing::Values([] { throw 42; },
                                         [] { throw modul_exception::CWindowsApiExcp("Call()", ""); },
                                         [] { throw std::logic_error("no runtime error"); },
                                         [] { ::RaiseException(0xE06D7363, 0, 0, nullptr); },
                                         [] {
                                             *static_cast<volatile int*>(nullptr) = 0;
                                         }));  // NOLINT: the fault is what is tested

TEST_P(UnknownExceptionOfAHandler, IsAssertedAndEndsTheWorkerForGood) {
    const ModuleHooks hooks;
    const auto notifier = std::make_shared<RecordingNotifier>();
    notifier->onEvent = [](const std::vector<std::string>& events) {
        if (events.size() == 1) GetParam()();
    };
    {
        const DeviceMonitor monitor;
        DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL));
        ASSERT_EQ(notifier->WaitForEvents(1).size(), 1u);
        while (hooks.Assertions().empty())
            ::SwitchToThread();
        EXPECT_TRUE(
            DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL)));
    }
    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"!\"Unexpected Exception!\""}));
    EXPECT_EQ(hooks.Assertions()[0].sourcePath, L"tessaplug_lib\\src\\tessaplug_pnp");
    EXPECT_EQ(notifier->WaitForEvents(1).size(), 1u) << "the worker is not restarted";
}

TEST(RequestWorker, EndsForGoodAfterARuntimeError) {
    const auto notifier = std::make_shared<RecordingNotifier>();
    const auto kernel32 = std::make_shared<FailingKernel32>();
    notifier->onEvent = [](const std::vector<std::string>& events) {
        if (events.size() == 1) throw std::runtime_error("handler");
    };
    {
        const DeviceMonitor monitor(kernel32);
        DeviceMonitor::Enqueue(RequestFor(notifier, kNx4120InterfaceGuid, DBT_DEVICEARRIVAL));
        ASSERT_EQ(notifier->WaitForEvents(1).size(), 1u);
        DeviceMonitor::Enqueue(RequestFor(notifier, kFennlinkU3InterfaceGuid, DBT_DEVICEARRIVAL));
    }
    EXPECT_EQ(notifier->WaitForEvents(1).size(), 1u);
}

TEST(DeviceEventName, NamesTheStandardEvents) {
    EXPECT_STREQ(tessaplug::DeviceEventName(0x8000), "DBT_DEVICEARRIVAL");
    EXPECT_STREQ(tessaplug::DeviceEventName(0x8001), "DBT_DEVICEQUERYREMOVE");
    EXPECT_STREQ(tessaplug::DeviceEventName(0x8002), "DBT_DEVICEQUERYREMOVEFAILED");
    EXPECT_STREQ(tessaplug::DeviceEventName(0x8003), "DBT_DEVICEREMOVEPENDING");
    EXPECT_STREQ(tessaplug::DeviceEventName(0x8004), "DBT_DEVICEREMOVECOMPLETE");
    EXPECT_STREQ(tessaplug::DeviceEventName(0x8005), "DBT_DEVICETYPESPECIFIC");
    EXPECT_STREQ(tessaplug::DeviceEventName(0x8006), "DBT_CUSTOMEVENT");
    EXPECT_STREQ(tessaplug::DeviceEventName(0xFFFF), "DBT_USERDEFINED");
    EXPECT_STREQ(tessaplug::DeviceEventName(0x0007), "DBT_DEVNODES_CHANGED");
    EXPECT_STREQ(tessaplug::DeviceEventName(0x0017), "DBT_QUERYCHANGECONFIG");
    EXPECT_STREQ(tessaplug::DeviceEventName(0x0018), "DBT_CONFIGCHANGED");
    EXPECT_STREQ(tessaplug::DeviceEventName(0x0019), "DBT_CONFIGCHANGECANCELED");
    EXPECT_STREQ(tessaplug::DeviceEventName(0x1234), "DBT_UNKNOWN");
}
