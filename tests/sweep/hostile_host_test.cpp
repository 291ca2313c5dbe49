#include <windows.h>
#include <dbt.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "command.h"
#include "hosted_plug_in.h"
#include "station_of_its_own.h"

// Hosts that misbehave: the built plug-in survives them, tells of them, and the next call of every export
// works.
namespace {

using sweep::HostedPlugIn;
using sweep::kNx4120;
using test_support::Eventually;

constexpr wchar_t kModelMutex[] = L"Global\\NX4120_MTX__{16FBF2EA-4B2A-4A48-98A0-0E4C66BD1459}";
constexpr DWORD kForeignCppException = 0xE06D7363;

void WINAPI Silent(void*, SERVICE_STATUS*) {}

/// A host whose callback does something at one of its reports. Its context is made known to the callback.
struct Host {
    int actsAt = 1;
    std::function<void()> act = [] {};
    std::atomic<int> reports = 0;

    static void WINAPI OnStatus(void* context, SERVICE_STATUS*) {
        static std::atomic<Host*> known = nullptr;
        if (context != nullptr) known = static_cast<Host*>(context);
        Host& host = *known;
        if (++host.reports == host.actsAt) host.act();
    }
};

bool Exists(const wchar_t* mutex) {
    const HANDLE handle = ::OpenMutexW(SYNCHRONIZE, FALSE, mutex);
    if (handle != nullptr) ::CloseHandle(handle);
    return handle != nullptr;
}

/// Two pages of which the second cannot be touched.
class GuardedPage {
  public:
    GuardedPage()
        : pages_(static_cast<BYTE*>(::VirtualAlloc(nullptr, 2 * kPage, MEM_RESERVE, PAGE_NOACCESS))) {
        ::VirtualAlloc(pages_, kPage, MEM_COMMIT, PAGE_READWRITE);
    }
    ~GuardedPage() { ::VirtualFree(pages_, 0, MEM_RELEASE); }
    GuardedPage(const GuardedPage&) = delete;
    GuardedPage& operator=(const GuardedPage&) = delete;

    /// The last bytes before the guarded page.
    void* Last(std::size_t size) const { return pages_ + kPage - size; }

  private:
    static constexpr std::size_t kPage = 0x1000;
    BYTE* pages_;
};

class HostileHost : public testing::Test {
  protected:
    ~HostileHost() override {
        EXPECT_EQ(plugIn_.Exceptions(), std::vector<std::string>{}) << "nothing leaves the exports";
    }
    /// The next call of each export comes back with what is documented for it.
    void ExpectEveryExportWorks() {
        EXPECT_EQ(plugIn_.Init(&Silent), 0u) << "started before in this process";
        EXPECT_EQ(plugIn_.Control(SERVICE_CONTROL_INTERROGATE, 0, nullptr), DWORD{NO_ERROR});
        EXPECT_EQ(plugIn_.DeviceEvent(DBT_DEVICEARRIVAL, kNx4120), DWORD{NO_ERROR});
        plugIn_.Cleanup();
    }
    void ExpectNothingIsLeft() {
        EXPECT_FALSE(Exists(kModelMutex));
        EXPECT_TRUE(plugIn_.Unload());
        EXPECT_EQ(HostedPlugIn::RunningThreads(), 0);
    }
    void ExpectNextAdapterIsHandled() {
        plugIn_.DeviceEvent(DBT_DEVICEREMOVECOMPLETE, kNx4120);
        EXPECT_TRUE(Eventually([this] { return station_.AllAre(L"NX4120", true); }));
        plugIn_.DeviceEvent(DBT_DEVICEARRIVAL, kNx4120);
        EXPECT_TRUE(Eventually([this] { return station_.AllAre(L"NX4120", false); }));
    }
    int Assertions() const { return HostedPlugIn::BoxesWith(L"Fatal Error: tessaplug.dll !!!"); }

    const sweep::StationOfItsOwn station_;
    HostedPlugIn plugIn_;
};

void RaiseAccessViolation() {
    static volatile int* volatile nowhere = nullptr;
    *nowhere = 0;
}
void RaiseForeignCppException() {
    ::RaiseException(kForeignCppException, EXCEPTION_NONCONTINUABLE, 0, nullptr);
}
void RaiseOwnCppException() {
    throw 42;
}
void RaiseBreakpoint() {
    ::DebugBreak();
}
void RaiseSoftwareException() {
    ::RaiseException(0xE0000001, 0, 0, nullptr);
}

struct Raise {
    const char* name;
    void (*function)();
};

class RaisingCallback : public HostileHost, public testing::WithParamInterface<std::tuple<Raise, int>> {};

}  // namespace

TEST_P(RaisingCallback, MakesTheStartFailWithAnAssertion) {
    const auto& [raise, report] = GetParam();
    Host host;
    host.actsAt = report;
    host.act = raise.function;

    EXPECT_EQ(plugIn_.Init(&Host::OnStatus, &host), 0u);

    EXPECT_EQ(host.reports, report) << "no further report";
    EXPECT_EQ(
        HostedPlugIn::BoxesWith(L"File: tessaplug_lib\\src\\tessaplug\nLine: 67\n\n!\"SEH during Init()\""),
        1);
    EXPECT_EQ(Assertions(), 1);
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

INSTANTIATE_TEST_SUITE_P(
    HostileHosts, RaisingCallback,
    testing::Combine(testing::Values(Raise{"AccessViolation", &RaiseAccessViolation},
                                     Raise{"ForeignCppException", &RaiseForeignCppException},
                                     Raise{"OwnCppException", &RaiseOwnCppException},
                                     Raise{"Breakpoint", &RaiseBreakpoint},
                                     Raise{"SoftwareException", &RaiseSoftwareException}),
                     testing::Range(1, 6)),
    [](const auto& info) {
        return std::string(std::get<0>(info.param).name) + "AtReport" +
               std::to_string(std::get<1>(info.param));
    });

TEST_F(HostileHost, StandardExceptionOfTheCallbackRollsBack) {
    Host host;
    host.actsAt = 4;
    host.act = [] { throw std::runtime_error("of the host"); };
    EXPECT_EQ(plugIn_.Init(&Host::OnStatus, &host), 0u);
    EXPECT_EQ(Assertions(), 0);
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

TEST_F(HostileHost, EventDataThatPointsNowhereIsAnAssertion) {
    ASSERT_EQ(plugIn_.Init(&Silent), 1u);
    for (const ULONG_PTR nowhere : {ULONG_PTR{0x10}, ULONG_PTR{0x7FFFFFFF0000}, ~ULONG_PTR{0xF}}) {
        const int before = HostedPlugIn::BoxesWith(L"!\"Unexpected Exception!\"");
        EXPECT_EQ(
            plugIn_.Control(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, reinterpret_cast<void*>(nowhere)),
            DWORD{NO_ERROR});
        EXPECT_EQ(HostedPlugIn::BoxesWith(L"!\"Unexpected Exception!\""), before + 1);
    }
    ExpectNextAdapterIsHandled();
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

TEST_F(HostileHost, PowerSettingThatPointsNowhereIsHarmless) {
    ASSERT_EQ(plugIn_.Init(&Silent), 1u);
    EXPECT_EQ(
        plugIn_.Control(SERVICE_CONTROL_POWEREVENT, PBT_POWERSETTINGCHANGE, reinterpret_cast<void*>(0x10)),
        DWORD{NO_ERROR});
    EXPECT_EQ(plugIn_.Control(SERVICE_CONTROL_POWEREVENT, PBT_POWERSETTINGCHANGE, nullptr), DWORD{NO_ERROR});
    EXPECT_EQ(HostedPlugIn::BoxesWith(L"Line: 657\n\nlpEventData != nullptr"), 1);
    ExpectNextAdapterIsHandled();
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

TEST_F(HostileHost, EventDataShorterThanItsTypeIsHarmless) {
    ASSERT_EQ(plugIn_.Init(&Silent), 1u);
    const GuardedPage page;
    for (const DWORD size : {DWORD{4}, DWORD{sizeof(DEV_BROADCAST_HDR)}, DWORD{16}, DWORD{27}}) {
        // As much as it says; type and size are there in any case but the first.
        DEV_BROADCAST_DEVICEINTERFACE_W data = sweep::EventData(kNx4120);
        data.dbcc_size = size;
        void* last = std::memcpy(page.Last(size), &data, size);
        EXPECT_EQ(plugIn_.Control(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, last), DWORD{NO_ERROR});
    }
    EXPECT_TRUE(station_.AllAre(L"NX4120", true)) << "nothing has arrived";
    ExpectNextAdapterIsHandled();
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

TEST_F(HostileHost, DeviceNameWithoutEndIsHarmlessAlsoWhileItIsTraced) {
    ASSERT_EQ(
        test_support::RunCommand(L"tessactl.exe trace start --file C:\\windows\\temp\\hostile.etl").exitCode,
        0u);
    EXPECT_EQ(plugIn_.Init(&Silent), 1u);
    const GuardedPage page;
    constexpr std::size_t kHead = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name);
    constexpr std::size_t kName = 10 * sizeof(wchar_t);
    auto head = sweep::EventData(kNx4120);
    head.dbcc_size = static_cast<DWORD>(kHead + kName);
    auto* data = static_cast<BYTE*>(page.Last(kHead + kName));
    std::memcpy(data, &head, kHead);
    std::memset(data + kHead, 'x', kName);
    EXPECT_EQ(plugIn_.Control(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, data), DWORD{NO_ERROR});
    ExpectNextAdapterIsHandled();
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
    EXPECT_EQ(test_support::RunCommand(L"tessactl.exe trace stop").exitCode, 0u);
}

TEST_F(HostileHost, NullEverywhereIsRefused) {
    EXPECT_EQ(plugIn_.Init(nullptr, nullptr, 0, nullptr), 0u);
    for (const DWORD control : {0u, 1u, 11u, 13u, 0xFFFFFFFFu})
        EXPECT_EQ(plugIn_.Control(control, 0, nullptr), DWORD{NO_ERROR}) << control;
    plugIn_.Cleanup();
    EXPECT_EQ(Assertions(), 0);
    EXPECT_EQ(plugIn_.Init(&Silent), 1u) << "a refusal is no start";
    ExpectNextAdapterIsHandled();
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

class CleanupInTheCallback : public HostileHost, public testing::WithParamInterface<int> {};

TEST_P(CleanupInTheCallback, MakesTheStartFail) {
    Host host;
    host.actsAt = GetParam();
    host.act = [this] { plugIn_.cleanup(); };
    EXPECT_EQ(plugIn_.Init(&Host::OnStatus, &host), 0u) << "half started is not started";
    EXPECT_EQ(Assertions(), 0) << "the host is free to do it";
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

INSTANTIATE_TEST_SUITE_P(HostileHosts, CleanupInTheCallback, testing::Range(1, 6),
                         [](const auto& info) { return "AtReport" + std::to_string(info.param); });

TEST_F(HostileHost, InitInTheCallbackIsRefusedAndTheStartGoesOn) {
    Host host;
    DWORD inner = 2;
    host.act = [&] {
        inner = plugIn_.init(TESSAPLUG_API_VERSION, sweep::kStatusHandle, &Silent, nullptr, 0);
    };
    EXPECT_EQ(plugIn_.Init(&Host::OnStatus, &host), 1u);
    EXPECT_EQ(inner, 0u);
    EXPECT_EQ(host.reports, 5);
    ExpectNextAdapterIsHandled();
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

TEST_F(HostileHost, DeviceEventInTheCallbackIsDropped) {
    Host host;
    DWORD result = 2;
    auto data = sweep::EventData(kNx4120);
    host.actsAt = 5;
    host.act = [&] {
        result = plugIn_.handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr);
    };
    EXPECT_EQ(plugIn_.Init(&Host::OnStatus, &host), 1u);
    EXPECT_EQ(result, DWORD{NO_ERROR});
    EXPECT_EQ(Assertions(), 0);
    ExpectNextAdapterIsHandled();
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

TEST_F(HostileHost, OfManyStartsAtOnceOneSucceeds) {
    constexpr int kThreads = 8;
    const HANDLE go = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<int> started = 0;
    std::atomic<int> refused = 0;
    std::vector<std::thread> hosts;
    for (int i = 0; i < kThreads; ++i)
        hosts.emplace_back([&] {
            ::WaitForSingleObject(go, INFINITE);
            const DWORD result =
                plugIn_.init(TESSAPLUG_API_VERSION, sweep::kStatusHandle, &Silent, nullptr, 0);
            ++(result == 1 ? started : refused);
        });
    ::SetEvent(go);
    sweep::InTime([&] {
        for (auto& host : hosts)
            host.join();
    });
    ::CloseHandle(go);
    EXPECT_EQ(started, 1);
    EXPECT_EQ(refused, kThreads - 1);
    ExpectNextAdapterIsHandled();
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

TEST_F(HostileHost, CleanupInAStormOfEventsComesBack) {
    ASSERT_EQ(plugIn_.Init(&Silent), 1u);
    std::atomic<bool> over = false;
    std::atomic<int> events = 0;
    std::atomic<int> wrong = 0;
    std::vector<std::thread> storm;
    for (int i = 0; i < 4; ++i)
        storm.emplace_back([&, i] {
            auto data = sweep::EventData(i % 2 == 0 ? kNx4120 : sweep::kFennlinkU3);
            for (DWORD type = DBT_DEVICEARRIVAL; !over;
                 type ^= DBT_DEVICEARRIVAL ^ DBT_DEVICEREMOVECOMPLETE) {
                if (plugIn_.handler(SERVICE_CONTROL_DEVICEEVENT, type, &data, nullptr) != NO_ERROR) ++wrong;
                ++events;
            }
        });
    EXPECT_TRUE(Eventually([&] { return events > 200; }));
    plugIn_.Cleanup();
    const int duringCleanup = events;
    EXPECT_TRUE(Eventually([&] { return events > duringCleanup + 200; })) << "dropped, and not blocked";
    over = true;
    sweep::InTime([&] {
        for (auto& thread : storm)
            thread.join();
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(Assertions(), 0);
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

TEST_F(HostileHost, CleanupOnManyThreadsAtOnceComesBack) {
    ASSERT_EQ(plugIn_.Init(&Silent), 1u);
    std::vector<std::thread> hosts;
    for (int i = 0; i < 4; ++i)
        hosts.emplace_back([this] { plugIn_.cleanup(); });
    sweep::InTime([&] {
        for (auto& host : hosts)
            host.join();
    });
    EXPECT_EQ(Assertions(), 0);
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

TEST_F(HostileHost, SecondCleanupReturnsQuietly) {
    ASSERT_EQ(plugIn_.Init(&Silent), 1u);
    plugIn_.Cleanup();
    plugIn_.Cleanup();
    EXPECT_EQ(plugIn_.Init(&Silent), 0u);
    EXPECT_EQ(Assertions(), 0);
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

TEST_F(HostileHost, StartAfterAFailedStartIsRefused) {
    Host host;
    host.actsAt = 3;
    host.act = [] { throw std::runtime_error("of the host"); };
    EXPECT_EQ(plugIn_.Init(&Host::OnStatus, &host), 0u);
    EXPECT_EQ(plugIn_.Init(&Silent), 0u);
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

TEST_F(HostileHost, ManualResetEventOfTheWorkersNameDoesNotKeepTheWorkerBusy) {
    const HANDLE foreign = ::CreateEventW(nullptr, TRUE, TRUE, L"PnPEvent");
    ASSERT_NE(foreign, nullptr);
    ASSERT_EQ(plugIn_.Init(&Silent), 1u);
    ExpectNextAdapterIsHandled();
    const unsigned before = HostedPlugIn::Waits();
    ::Sleep(500);  // the time in which they are counted
    EXPECT_LT(HostedPlugIn::Waits() - before, 10u) << "the worker is at rest";
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
    ::CloseHandle(foreign);
}

TEST_F(HostileHost, MutexOfTheWorkersNameDoesNotKeepItFromStarting) {
    const HANDLE foreign = ::CreateMutexW(nullptr, FALSE, L"PnPEvent");
    ASSERT_NE(foreign, nullptr);
    EXPECT_EQ(plugIn_.Init(&Silent), 1u);
    ExpectNextAdapterIsHandled();
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
    ::CloseHandle(foreign);
}

TEST_F(HostileHost, ForeignWaiterThatTakesTheWorkersSignalsDoesNotHoldTheCleanUp) {
    ASSERT_EQ(plugIn_.Init(&Silent), 1u);
    const HANDLE event = ::OpenEventW(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, L"PnPEvent");
    ASSERT_NE(event, nullptr);
    constexpr int kWaiters = 16;
    std::atomic<bool> over = false;
    std::atomic<int> ended = 0;
    std::atomic<int> served = 0;
    std::vector<std::thread> waiters;
    std::atomic<int> begun = 0;
    const auto startWaiters = [&] {
        for (int i = 0; i < kWaiters; ++i)
            waiters.emplace_back([&] {
                ++begun;
                ::WaitForSingleObject(event, INFINITE);
                ++served;
                while (!over)
                    ::WaitForSingleObject(event, INFINITE);
                ++ended;
            });
    };
    startWaiters();
    // Who waits is served in turn: when each has had a signal, the worker is hardly the next one.
    EXPECT_TRUE(Eventually([&] {
        plugIn_.DeviceEvent(DBT_DEVICEARRIVAL, kNx4120);
        return served >= kWaiters;
    }));
    // Nor is it at work, from where it would see without a signal that it is to end.
    EXPECT_TRUE(Eventually([] {
        const unsigned waits = HostedPlugIn::Waits();
        ::Sleep(300);
        return HostedPlugIn::Waits() == waits;
    }));
    // Should the last one be served first: there are some who come after it.
    startWaiters();
    EXPECT_TRUE(Eventually([&] { return begun == 2 * kWaiters; }));
    ::Sleep(50);  // until they wait; too little makes the test easier only
    plugIn_.Cleanup();
    over = true;
    EXPECT_TRUE(Eventually([&] { return ::SetEvent(event) != 0 && ended == 2 * kWaiters; }));
    for (auto& waiter : waiters)
        waiter.join();
    ::CloseHandle(event);
    ExpectEveryExportWorks();
    ExpectNothingIsLeft();
}

// In a process of its own, as the worker is left running in the unloaded library.
TEST_F(HostileHost, UnloadWithoutCleanupInAStormOfEventsEndsNothing) {
    const auto unload = [this] {
        bool sound = plugIn_.Init(&Silent) == 1;
        for (int i = 0; i < 20; ++i)
            sound = sound && plugIn_.DeviceEvent(i % 2 == 0 ? DBT_DEVICEARRIVAL : DBT_DEVICEREMOVECOMPLETE,
                                                 kNx4120) == NO_ERROR;
        // The worker is at rest: what it does in a library that is gone is nobody's to answer for.
        sound = sound && Eventually([this] { return station_.AllAre(L"NX4120", true); });
        ::Sleep(200);
        sound = plugIn_.Unload() && !Exists(kModelMutex) && sound;
        std::_Exit(sound && plugIn_.Exceptions().empty() ? 0 : 1);
    };
    EXPECT_EXIT(unload(), testing::ExitedWithCode(0), "");
}
