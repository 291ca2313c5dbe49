#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "component_store.h"
#include "process_list.h"
#include "station.h"

// What happens around the access points: the station manager lets go of the card before they are hidden, the
// interface-setup panel makes those that are missing. Both are processes of their own, and may fail.
namespace {

using adapter_control::Plug;
using adapter_control::Unplug;
using station_manager::Component;
using station_manager::ComponentStore;
using station_manager::Diagnostic;
using station_manager::kRunning;
using station_manager::kStopped;
using station_manager::MakeComponent;
using system_tests::kKinds;
using test_support::Eventually;
using test_support::ProcessRuns;
using test_support::ProgramEnds;
using test_support::ProgramFolder;
using test_support::RunCommand;

/// A station with the interface-setup panel in its place.
class StationWithPanel : public system_tests::Station {
  protected:
    StationWithPanel() {
        Behave(L"normal");
        EXPECT_TRUE(::CopyFileW((ProgramFolder() + L"q5panels.exe").c_str(), kPanelPath, FALSE));
    }
    ~StationWithPanel() override {
        RunCommand(L"q5panels.exe --go-on");
        EXPECT_TRUE(Eventually([] { return !ProcessRuns(L"q5panels.exe"); }));
        EXPECT_TRUE(Eventually([] { return ::DeleteFileW(kPanelPath) != 0 || !Installed(); }));
        Behave(L"normal");
    }

    static bool Installed() { return ::GetFileAttributesW(kPanelPath) != INVALID_FILE_ATTRIBUTES; }

    static void Behave(const std::wstring& behaviour) {
        EXPECT_EQ(RunCommand(L"q5panels.exe --behave " + behaviour).exitCode, 0u);
    }
    /// The next event is handled as if nothing had happened.
    void ExpectTheWorkerGoesOn() {
        Unplug(nx4120_);
        for (const auto& kind : kKinds)
            if (State(L"NX4120." + kind + L".1") != L"missing")
                EXPECT_TRUE(Eventually([&] { return State(L"NX4120." + kind + L".1") == L"hidden"; }));
        Plug(fennlinkU3_);
        EXPECT_TRUE(AllBecome(L"Fennlink U3", L"visible"));
    }

    static constexpr wchar_t kPanelPath[] = L"C:\\windows\\syswow64\\q5panels.exe";
};

/// A station whose station manager knows two components of an NX4120.
class StationWithManager : public system_tests::Station {
  protected:
    StationWithManager() {
        components_.Wipe();
        components_.SetComponents({MakeComponent(1, "PC Station", "Station"),
                                   MakeComponent(2, "NX4120", "Line 1"), MakeComponent(3, "OTHER", "Other"),
                                   MakeComponent(4, "NX4120", "Line 2")});
        EXPECT_EQ(RunCommand(L"stationmgr.exe register").exitCode, 0u);
        Plug(nx4120_);
        StartService();
        EXPECT_TRUE(AllAre(L"NX4120", L"visible"));
    }
    ~StationWithManager() override {
        EXPECT_TRUE(ProgramEnds(L"stationmgr.exe")) << "nobody uses it any more";
        RunCommand(L"stationmgr.exe unregister");
        components_.Wipe();
    }

    ULONG StatusOf(LONG virtualDevice) const {
        for (const Component& component : components_.Components())
            if (component.virtualDevice == virtualDevice) return component.status;
        return 0;
    }
    void ExpectUnpluggingHidesAndTheWorkerGoesOn() {
        Unplug(nx4120_);
        EXPECT_TRUE(AllBecome(L"NX4120", L"hidden"));
        Plug(nx4120_);
        EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
    }

    ComponentStore components_;
};

}  // namespace

TEST_F(StationWithPanel, MissingLogDeviceIsMadeOnArrival) {
    store_.Delete(L"NX4120.XLI.1");
    StartService();
    EXPECT_EQ(State(L"NX4120.XLI.1"), L"missing") << "not at the start";

    Plug(nx4120_);

    EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
}

TEST_F(StationWithPanel, NothingIsMadeOnRemoval) {
    store_.Delete(L"NX4120.XLI.1");
    Plug(nx4120_);
    StartService();

    Unplug(nx4120_);

    EXPECT_TRUE(Eventually([&] { return State(L"NX4120.FWL_FAST_LOAD.1") == L"hidden"; }));
    EXPECT_EQ(State(L"NX4120.XLI.1"), L"missing");
}

TEST_F(StationWithPanel, MissingPanelEndsTheArrivalOnly) {
    ::DeleteFileW(kPanelPath);
    store_.Delete(L"NX4120.XLI.1");
    StartService();

    Plug(nx4120_);

    EXPECT_TRUE(Eventually([&] { return State(L"NX4120.AUTO.1") == L"visible"; }));
    ExpectTheWorkerGoesOn();
}

TEST_F(StationWithPanel, FailingAndCrashingPanelsAreSurvived) {
    store_.Delete(L"NX4120.XLI.1");
    StartService();
    for (const auto* behaviour : {L"fail", L"crash"}) {
        Behave(behaviour);
        Plug(nx4120_);
        EXPECT_TRUE(Eventually([&] { return State(L"NX4120.FWL_FAST_LOAD.1") == L"visible"; })) << behaviour;
        EXPECT_EQ(State(L"NX4120.XLI.1"), L"missing");
        ExpectTheWorkerGoesOn();
        Unplug(fennlinkU3_);
        EXPECT_TRUE(AllBecome(L"Fennlink U3", L"hidden"));
    }
}

TEST_F(StationWithPanel, HangingPanelEndsTheArrivalAfterTenSeconds) {
    store_.Delete(L"NX4120.XLI.1");
    Behave(L"hang");
    StartService();

    Plug(nx4120_);
    EXPECT_TRUE(Eventually([] { return ProcessRuns(L"q5panels.exe"); }));
    const ULONGLONG start = ::GetTickCount64();
    Plug(fennlinkU3_);
    EXPECT_TRUE(Eventually([&] { return ::GetTickCount64() - start > 9000; }));
    EXPECT_TRUE(AllAre(L"Fennlink U3", L"hidden")) << "its turn comes when the waiting ends";

    EXPECT_TRUE(AllBecome(L"Fennlink U3", L"visible"));
    EXPECT_TRUE(ProcessRuns(L"q5panels.exe")) << "it is not stopped";
    EXPECT_EQ(State(L"NX4120.PROFIBUS.1"), L"hidden") << "names after the missing one are not handled";
}

TEST_F(StationWithManager, UnpluggingStopsTheComponentsFirst) {
    Unplug(nx4120_);

    EXPECT_TRUE(Eventually([&] { return State(L"NX4120.AUTO.1") == L"hidden"; }));
    EXPECT_EQ(StatusOf(2), static_cast<ULONG>(kStopped));
    EXPECT_EQ(StatusOf(4), static_cast<ULONG>(kStopped));
    EXPECT_EQ(StatusOf(1), static_cast<ULONG>(kRunning));
    EXPECT_EQ(StatusOf(3), static_cast<ULONG>(kRunning));
    const std::vector<Diagnostic> entries = components_.Diagnostics();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].area, 165);
    EXPECT_EQ(entries[0].code, 0xA523);
    EXPECT_EQ(entries[0].value, 1);
    EXPECT_EQ(entries[0].detail, 0x02000000u);
    EXPECT_EQ(entries[1].detail, 0x04000000u);
    EXPECT_TRUE(AllBecome(L"NX4120", L"hidden"));
}

TEST_F(StationWithManager, FennlinkU3IsNotItsBusiness) {
    components_.Add(MakeComponent(5, "Fennlink U3", "Stick"));
    Plug(fennlinkU3_);
    EXPECT_TRUE(AllBecome(L"Fennlink U3", L"visible"));
    Unplug(fennlinkU3_);
    EXPECT_TRUE(AllBecome(L"Fennlink U3", L"hidden"));
    EXPECT_EQ(StatusOf(5), static_cast<ULONG>(kRunning));
    EXPECT_TRUE(components_.Diagnostics().empty());
}

TEST_F(StationWithManager, ComponentThatRefusesDoesNotKeepTheNextRunning) {
    components_.SetFault(L"refuse-2");
    ExpectUnpluggingHidesAndTheWorkerGoesOn();
    EXPECT_EQ(StatusOf(2), static_cast<ULONG>(kRunning));
    EXPECT_EQ(StatusOf(4), static_cast<ULONG>(kStopped));
    EXPECT_EQ(components_.Diagnostics().size(), 2u);
}

TEST_F(StationWithManager, DataThatIsCutOffIsUsedAsFarAsItGoes) {
    components_.SetFault(L"odd-length");
    ExpectUnpluggingHidesAndTheWorkerGoesOn();
    EXPECT_EQ(StatusOf(4), static_cast<ULONG>(kStopped));
}

TEST_F(StationWithManager, ServerThatDiesAtItsStartIsSurvived) {
    components_.SetFault(L"exit-at-start");
    ExpectUnpluggingHidesAndTheWorkerGoesOn();
    EXPECT_EQ(StatusOf(2), static_cast<ULONG>(kRunning));
}

TEST_F(StationWithManager, ServerThatDiesInACallIsSurvivedAndUsedAgain) {
    for (const auto* fault : {L"exit-in-getdata", L"exit-in-stop"}) {
        components_.SetFault(fault);
        ExpectUnpluggingHidesAndTheWorkerGoesOn();
        EXPECT_EQ(StatusOf(2), static_cast<ULONG>(kRunning)) << fault;
    }
    components_.SetFault(L"");
    ExpectUnpluggingHidesAndTheWorkerGoesOn();
    EXPECT_EQ(StatusOf(2), static_cast<ULONG>(kStopped));
}
