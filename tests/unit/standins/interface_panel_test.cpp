#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "command.h"
#include "log_device_store.h"

namespace {

using configuration_library::LogDeviceStore;
using test_support::RunCommand;

class InterfacePanel : public testing::Test {
  protected:
    InterfacePanel() {
        ::SetEnvironmentVariableW(L"Q5ORVIX_ROOT", L"SOFTWARE\\TESSA_TEST\\PANEL");
        store_.Wipe();
        store_.Initialise();
        store_.Create(L"NX4120.AUTO.1", {{L"hidden", L"true"}});
        store_.SetTemplateEntries({L"LDT-NX4120.auto", L"LDT-NX4120.xli", L"OTHER"});
    }
    ~InterfacePanel() override {
        RunCommand(L"q5panels.exe --behave normal");
        store_.Wipe();
        ::SetEnvironmentVariableW(L"Q5ORVIX_ROOT", nullptr);
    }
    std::wstring Hidden(const std::wstring& name) const {
        std::wstring value = L"missing";
        store_.GetValue(name, L"hidden", value);
        return value;
    }
    LogDeviceStore store_{L"SOFTWARE\\TESSA_TEST\\PANEL"};
};

}  // namespace

TEST_F(InterfacePanel, MakesWhatIsInstalledButMissingAndNothingElse) {
    EXPECT_EQ(RunCommand(L"q5panels.exe -silent -force -ci").exitCode, 0u);
    EXPECT_EQ(Hidden(L"NX4120.XLI.1"), L"false");
    EXPECT_EQ(Hidden(L"NX4120.AUTO.1"), L"true") << "what exists is left alone";
    EXPECT_EQ(store_.LogDevices().size(), 2u);
    EXPECT_EQ(RunCommand(L"q5panels.exe -silent -force -ci").exitCode, 0u);
    EXPECT_EQ(store_.LogDevices().size(), 2u);
}

TEST_F(InterfacePanel, SaysWhatItIs) {
    EXPECT_EQ(RunCommand(L"q5panels.exe").exitCode, 0u);
    EXPECT_TRUE(RunCommand(L"q5panels.exe").output.starts_with("q5panels - the interface-setup panel"));
    EXPECT_EQ(RunCommand(L"q5panels.exe -silent").exitCode, 2u);
    EXPECT_EQ(RunCommand(L"q5panels.exe --behave badly").exitCode, 2u);
    EXPECT_EQ(store_.LogDevices().size(), 1u);
}

TEST_F(InterfacePanel, FailsAndCrashesWhenToldTo) {
    RunCommand(L"q5panels.exe --behave fail");
    EXPECT_EQ(RunCommand(L"q5panels.exe -silent -force -ci").exitCode, 1u);
    RunCommand(L"q5panels.exe --behave crash");
    EXPECT_EQ(RunCommand(L"q5panels.exe -silent -force -ci").exitCode, 0xC0000005u);
    EXPECT_EQ(store_.LogDevices().size(), 1u);
}

TEST_F(InterfacePanel, TwoAtOnceMakeWhatIsMissingTogether) {
    for (int round = 0; round < 5; ++round) {
        store_.Delete(L"NX4120.XLI.1");
        DWORD other = 1;
        std::thread second([&other] { other = RunCommand(L"q5panels.exe -silent -force -ci").exitCode; });
        EXPECT_EQ(RunCommand(L"q5panels.exe -silent -force -ci").exitCode, 0u);
        second.join();
        EXPECT_EQ(other, 0u);
        EXPECT_EQ(Hidden(L"NX4120.XLI.1"), L"false");
    }
}

TEST_F(InterfacePanel, MissingStoreIsTold) {
    store_.Wipe();
    const auto run = RunCommand(L"q5panels.exe -silent -force -ci");
    EXPECT_EQ(run.exitCode, 1u);
    EXPECT_NE(run.output.find("there is no store"), std::string::npos) << run.output;
}
