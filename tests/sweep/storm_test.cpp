#include <windows.h>
#include <dbt.h>

#include <atomic>
#include <cstdio>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "component_store.h"
#include "hosted_plug_in.h"
#include "process_census.h"
#include "process_list.h"
#include "scripted_station.h"
#include "station.h"
#include "station_of_its_own.h"

// More events than anybody can handle, and more lives than anybody needs. The regular run is short;
// TESSA_SWEEP=all runs all of it.
namespace {

using sweep::HostedPlugIn;
using test_support::Eventually;
using test_support::RunCommand;

void WINAPI Silent(void*, SERVICE_STATUS*) {}

/// What a process holds at one moment.
struct Census {
    explicit Census(DWORD process = ::GetCurrentProcessId())
        : threads(test_support::ThreadCount(process)),
          handles(test_support::HandleCount(process)),
          kilobytes(test_support::CommittedMemory(process) / 1024) {}
    std::size_t threads;
    std::size_t handles;
    std::size_t kilobytes;
};

void Print(const char* what, const Census& before, const Census& after) {
    std::printf("%s: threads %zu -> %zu, handles %zu -> %zu, committed %zu -> %zu KB\n", what, before.threads,
                after.threads, before.handles, after.handles, before.kilobytes, after.kilobytes);
}

/// @param moreHandles,moreKilobytes that are not the plug-in's
void ExpectSame(const Census& before, const Census& after, std::size_t moreHandles = 0,
                std::size_t moreKilobytes = 0) {
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_LE(after.handles, before.handles + moreHandles);
    ASSERT_GT(before.kilobytes, 0u);
    EXPECT_LE(after.kilobytes, before.kilobytes + before.kilobytes / 100 + moreKilobytes)
        << "KB committed, 1 % more at most";
}

/// A host's thread that sends random arrivals and removals of one class and knows the last one.
class Sender {
  public:
    Sender(HostedPlugIn& plugIn, const GUID& interfaceClass, unsigned seed)
        : plugIn_(plugIn), data_(sweep::EventData(interfaceClass)), random_(seed) {}

    void Send(int events) {
        for (int i = 0; i < events; ++i) {
            last_ = random_() % 2 == 0 ? DBT_DEVICEARRIVAL : DBT_DEVICEREMOVECOMPLETE;
            if (plugIn_.handler(SERVICE_CONTROL_DEVICEEVENT, last_, &data_, nullptr) != NO_ERROR) ++refused_;
        }
    }
    bool IsHiddenAtLast() const { return last_ == DBT_DEVICEREMOVECOMPLETE; }
    int Refused() const { return refused_; }

  private:
    HostedPlugIn& plugIn_;
    DEV_BROADCAST_DEVICEINTERFACE_W data_;
    std::mt19937 random_;
    DWORD last_ = 0;
    int refused_ = 0;
};

class Storm : public testing::Test {
  protected:
    /// One burst on four threads, and the state after it.
    /// @return false if a model's last state is lost
    bool Burst(int eventsOfEach) {
        std::vector<std::thread> threads;
        for (Sender& sender : senders_)
            threads.emplace_back([&sender, eventsOfEach] { sender.Send(eventsOfEach); });
        for (auto& thread : threads)
            thread.join();
        return Eventually([this] {
            return station_.AllAre(L"NX4120", senders_[0].IsHiddenAtLast()) &&
                   station_.AllAre(L"Fennlink U3", senders_[1].IsHiddenAtLast());
        });
    }

    const sweep::StationOfItsOwn station_;
    /// Without one Wine keeps two handles for each attempt to reach it.
    const test_support::ScriptedStation stationManager_;
    HostedPlugIn plugIn_;
    static constexpr GUID kForeign = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
    std::vector<Sender> senders_ = {{plugIn_, sweep::kNx4120, 1},
                                    {plugIn_, sweep::kFennlinkU3, 2},
                                    {plugIn_, kForeign, 3},
                                    {plugIn_, GUID{}, 4}};
};

}  // namespace

TEST_F(Storm, LosesNoLastStateAndLeavesNothing) {
    constexpr int kEventsOfEach = 125;
    const int bursts = sweep::WantsAll() ? 60 : 6;
    ASSERT_EQ(plugIn_.Init(&Silent), 1u);
    ASSERT_TRUE(Burst(kEventsOfEach)) << "before anything is measured";

    const Census before;
    const ULONGLONG start = ::GetTickCount64();
    int lost = 0;
    for (int i = 0; i < bursts; ++i)
        if (!Burst(kEventsOfEach)) ++lost;
    const ULONGLONG time = ::GetTickCount64() - start;
    const Census after;

    std::printf("%d events in %d bursts and %llu ms, %d last states lost\n",
                bursts * kEventsOfEach * static_cast<int>(senders_.size()), bursts, time, lost);
    Print("storm", before, after);
    EXPECT_EQ(lost, 0);
    // The run time makes an event for each of its locks when two threads want it for the first time.
    constexpr std::size_t kLocks = 8;
    for (const Sender& sender : senders_)
        EXPECT_EQ(sender.Refused(), 0);
    ExpectSame(before, after, kLocks);
    plugIn_.Cleanup();
    EXPECT_EQ(HostedPlugIn::BoxesWith(L"Fatal Error"), 0);
    EXPECT_EQ(plugIn_.Exceptions(), std::vector<std::string>{});
}

namespace {

class DriverStorm : public system_tests::Station {
  protected:
    DriverStorm() {
        components_.Wipe();
        components_.SetComponents({station_manager::MakeComponent(1, "PC Station", "Station"),
                                   station_manager::MakeComponent(2, "NX4120", "Line 1")});
        EXPECT_EQ(RunCommand(L"stationmgr.exe register").exitCode, 0u);
    }
    ~DriverStorm() override {
        RunCommand(L"tessahost.exe stop");
        EXPECT_TRUE(test_support::ProgramEnds(L"stationmgr.exe"));
        RunCommand(L"stationmgr.exe unregister");
        components_.Wipe();
    }
    static DWORD ServiceProcess() {
        const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        const SC_HANDLE service = ::OpenServiceW(manager, L"tessahost", SERVICE_QUERY_STATUS);
        SERVICE_STATUS_PROCESS status = {};
        DWORD needed = 0;
        ::QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                               sizeof status, &needed);
        ::CloseServiceHandle(service);
        ::CloseServiceHandle(manager);
        return status.dwProcessId;
    }

    /// Threads of the system's own, as of remote calls, end by themselves when they were idle for a while.
    static void AwaitThreads(std::size_t count) {
        constexpr DWORD kStepMs = 500;
        constexpr int kMostSteps = 120;
        const DWORD service = ServiceProcess();
        for (int i = 0; i < kMostSteps && test_support::ThreadCount(service) > count; ++i)
            ::Sleep(kStepMs);
    }

    /// Plugs and unplugs both adapters at random.
    /// @return false if a model's last state is lost
    bool Burst(int events) {
        for (int i = 0; i < events; ++i) {
            const bool second = random_() % 2 == 0;
            bool& isPlugged = plugged_[second ? 1 : 0];
            isPlugged = !isPlugged;
            (isPlugged ? system_tests::Plug : system_tests::Unplug)(second ? fennlinkU3_ : nx4120_, 0);
        }
        return AllBecome(L"NX4120", plugged_[0] ? L"visible" : L"hidden") &&
               AllBecome(L"Fennlink U3", plugged_[1] ? L"visible" : L"hidden");
    }

    const station_manager::ComponentStore components_;
    std::mt19937 random_{5};
    bool plugged_[2] = {};
};

}  // namespace

TEST_F(DriverStorm, LosesNoLastStateAndLeavesNothing) {
    constexpr int kEvents = 20;
    const int bursts = sweep::WantsAll() ? 50 : 3;
    StartService();
    const std::size_t idle = test_support::ThreadCount(ServiceProcess());
    ASSERT_TRUE(Burst(kEvents)) << "before anything is measured";

    AwaitThreads(idle);
    const Census before(ServiceProcess());
    int lost = 0;
    for (int i = 0; i < bursts; ++i)
        if (!Burst(kEvents)) ++lost;
    AwaitThreads(idle);
    const Census after(ServiceProcess());

    std::printf("%d events of the drivers, %d last states lost\n", bursts * kEvents, lost);
    Print("service", before, after);
    EXPECT_EQ(lost, 0);
    // What Wine keeps of activations until it collects it, some twenty handles after a few, and of two of its
    // threads of remote calls, a stack each, does not grow with the events: a handle of each would be a
    // thousand in the long form. The memory's growth is seen by the test of the service's memory.
    constexpr std::size_t kHandles = 64;
    constexpr std::size_t kKilobytes = 4800;
    ExpectSame(before, after, kHandles, kKilobytes);
}

TEST(ManyLives, LoadAndUnloadLeavesNothing) {
    const int rounds = sweep::WantsAll() ? 200 : 40;
    const auto round = [] {
        HostedPlugIn plugIn;
        plugIn.Control(SERVICE_CONTROL_INTERROGATE, 0, nullptr);
        plugIn.Init(nullptr);
        plugIn.Cleanup();
        EXPECT_TRUE(plugIn.Unload());
    };
    for (int i = 0; i < 5; ++i)
        round();  // what the system loads once stays out of the comparison
    const Census before;
    for (int i = 0; i < rounds; ++i)
        round();
    const Census after;
    std::printf("%d rounds of load and unload\n", rounds);
    Print("rounds", before, after);
    ExpectSame(before, after);
}

TEST(ManyLives, WholeLivesInProcessesOfTheirOwnAreAllAlike) {
    const int rounds = sweep::WantsAll() ? 200 : 10;
    const sweep::StationOfItsOwn station;
    station.Store().Delete(L"Fennlink U3.xli.1");
    for (int i = 0; i < rounds; ++i) {
        const test_support::CommandResult life = RunCommand(L"one_life.exe");
        EXPECT_EQ(life.exitCode, 0u) << life.output;
    }
    std::printf("%d whole lives\n", rounds);
}
