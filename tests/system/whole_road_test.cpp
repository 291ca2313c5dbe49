#include <gtest/gtest.h>
#include <regex>
#include <string>

#include "message_window.h"
#include "station.h"
#include "wine_gap_loader.h"

// From the adapter's socket to the access point: the drivers, the operating system's notification, the
// service host, the plug-in and the configuration library, all real.
using adapter_control::Plug;
using adapter_control::Unplug;
using system_tests::kKinds;
using system_tests::Station;
using test_support::CommandResult;
using test_support::ConfigurationLibraryLocation;
using test_support::Eventually;
using test_support::ProgramFolder;
using test_support::RunCommand;

TEST_F(Station, PluggingShowsAndUnpluggingHides) {
    StartService();
    EXPECT_TRUE(AllAre(L"NX4120", L"hidden"));

    Plug(nx4120_);
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
    EXPECT_TRUE(AllAre(L"Fennlink U3", L"hidden"));
    Plug(fennlinkU3_);
    EXPECT_TRUE(AllBecome(L"Fennlink U3", L"visible"));
    Unplug(nx4120_);
    EXPECT_TRUE(AllBecome(L"NX4120", L"hidden"));
    EXPECT_TRUE(AllAre(L"Fennlink U3", L"visible"));
    Unplug(fennlinkU3_);
    EXPECT_TRUE(AllBecome(L"Fennlink U3", L"hidden"));
}

TEST_F(Station, StartShowsWhatIsPluggedInAndHidesWhatIsNot) {
    for (const auto& kind : kKinds)
        store_.SetValue(L"Fennlink U3." + kind + L".1", L"hidden", L"false");
    Plug(nx4120_);

    StartService();

    EXPECT_TRUE(AllAre(L"NX4120", L"visible"));
    EXPECT_TRUE(AllAre(L"Fennlink U3", L"hidden"));
}

TEST_F(Station, LogDevicesThatAreNotInstalledAreLeftAlone) {
    std::erase(entries_, L"LDT-NX4120.fwl");
    store_.SetTemplateEntries(entries_);
    StartService();

    Plug(nx4120_);

    EXPECT_TRUE(Eventually([&] { return State(L"NX4120.FWL_FAST_LOAD.1") == L"visible"; }));
    EXPECT_EQ(State(L"NX4120.FWL.1"), L"hidden");
}

TEST_F(Station, StateIsRightAfterABurst) {
    StartService();
    for (int i = 0; i < 20; ++i) {
        Plug(nx4120_);
        Plug(fennlinkU3_);
        Unplug(nx4120_);
        Unplug(fennlinkU3_);
    }
    Plug(fennlinkU3_);
    EXPECT_TRUE(AllBecome(L"Fennlink U3", L"visible"));
    EXPECT_TRUE(AllBecome(L"NX4120", L"hidden"));
}

TEST_F(Station, ServiceReportsItsStatesInOrder) {
    StartService();
    EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);

    EXPECT_TRUE(std::regex_search(
        HostLog(),
        std::regex(
            "START_PENDING  check point 1,[^]*START_PENDING  check point 2, wait hint 3000 ms[^]*"
            "START_PENDING  check point 3,[^]*START_PENDING  check point 4,[^]*"
            "START_PENDING  check point 5,[^]*START_PENDING  check point 6,[^]*RUNNING  [^]*STOP_PENDING [^]*"
            "plug-in is unloaded[^]*STOPPED  ")))
        << HostLog();
}

TEST_F(Station, CanBeStoppedAndStartedAgain) {
    for (int i = 0; i < 2; ++i) {
        StartService();
        Plug(nx4120_);
        EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
        Unplug(nx4120_);
        EXPECT_TRUE(AllBecome(L"NX4120", L"hidden"));
        EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);
    }
    Plug(nx4120_);
    EXPECT_EQ(Count("Device event 0x8000"), 2u) << "a stopped service hears nothing";
}

TEST_F(Station, SecondInstanceIsRefusedAndTheFirstGoesOn) {
    StartService();
    EXPECT_EQ(RunCommand(L"tessahost.exe install --name tessahost2").exitCode, 0u);

    const CommandResult second = RunCommand(L"tessahost.exe start --name tessahost2");

    EXPECT_EQ(second.exitCode, 1u);
    EXPECT_NE(second.output.find("the service ended with error 1066 (its own code: 1)"), std::string::npos)
        << second.output;
    EXPECT_EQ(RunCommand(L"tessahost.exe uninstall --name tessahost2").exitCode, 0u);
    Plug(nx4120_);
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
}

TEST_F(Station, EveryAnswerToAMissingLibraryIsToGoOn) {
    ConfigurationLibraryLocation::Set(L"C:\\no such folder");
    StartService();
    Plug(nx4120_);
    EXPECT_TRUE(Eventually([&] { return Count("Device event 0x8000") == 1; }));
    Unplug(nx4120_);
    EXPECT_TRUE(Eventually([&] { return Count("Device event 0x8004") == 1; }));
    ConfigurationLibraryLocation::Set(ProgramFolder() + L"station");

    Plug(nx4120_);

    EXPECT_TRUE(AllBecome(L"NX4120", L"visible")) << "the worker survived";
}

TEST_F(Station, FaultInsideTheLibraryEndsOneEventOnly) {
    const test_support::User user(test_support::kFatalErrorTitle, IDIGNORE);
    for (const auto* variant : {L"faults", L"missing_export"}) {
        ConfigurationLibraryLocation::Set(test_support::FaultyLibrary(variant));
        StartService();
        Plug(nx4120_);
        EXPECT_TRUE(Eventually([&] { return Count("Device event 0x8000") >= 1; }));
        Unplug(nx4120_);
        ConfigurationLibraryLocation::Set(ProgramFolder() + L"station");
        Plug(nx4120_);
        EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
        EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);
        for (const auto& kind : kKinds)
            store_.SetValue(L"NX4120." + kind + L".1", L"hidden", L"true");
        Unplug(nx4120_);
    }
    EXPECT_GT(user.Answers(), 0) << "the fault is an assertion, and the user lets the program go on";
}

TEST_F(Station, TwoAdaptersOfOneModelAreOneState) {
    StartService();
    Plug(nx4120_, 0);
    Plug(nx4120_, 1);
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
    EXPECT_EQ(adapter_control::DevicePaths(nx4120_).size(), 2u);
    EXPECT_TRUE(Eventually([&] { return Count("Device event 0x8000") == 2; }));
}

TEST_F(Station, StartIsInTheApplicationLogAsASentence) {
    StartService();
    const CommandResult log = RunCommand(L"tessactl.exe log");
    EXPECT_EQ(log.exitCode, 0u);
    EXPECT_NE(log.output.find("information  0x00000100  The adapter service plug-in has started."),
              std::string::npos)
        << log.output;
}

TEST_F(Station, ArrivalCanBeTraced) {
    StartService();
    const std::wstring file = L"C:\\windows\\temp\\arrival.etl";
    EXPECT_EQ(RunCommand(L"tessactl.exe trace start --file " + file).exitCode, 0u);
    EXPECT_EQ(RunCommand(L"tessactl.exe trace start").exitCode, 1u) << "one recording at a time";
    Plug(nx4120_);
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
    EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);
    EXPECT_EQ(RunCommand(L"tessactl.exe trace stop").exitCode, 0u);
    EXPECT_EQ(RunCommand(L"tessactl.exe trace stop").exitCode, 1u) << "no recording runs";

    const std::string text = RunCommand(L"tessactl.exe trace decode " + file).output;
    EXPECT_NE(text.find("Unhide NX4120(XLI)"), std::string::npos);
    EXPECT_NE(text.find("Entry tessaplug::DeviceNotifier::OnDeviceArrival"), std::string::npos);
    EXPECT_NE(text.find("Exit tessaplug::DeviceNotifier::OnDeviceArrival"), std::string::npos);
    EXPECT_EQ(text.find("unknown message"), std::string::npos);
    EXPECT_EQ(text.find("<missing>"), std::string::npos);
    const std::string chrome = RunCommand(L"tessactl.exe trace decode --format chrome " + file).output;
    EXPECT_TRUE(chrome.starts_with("{\"traceEvents\":["));
    EXPECT_NE(
        chrome.find("{\"name\":\"tessaplug::DeviceNotifier::OnDeviceArrival\",\"cat\":\"tessaplug_pnp\","
                    "\"ph\":\"B\""),
        std::string::npos);
}
