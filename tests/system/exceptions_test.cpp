#include <windows.h>

#include <gtest/gtest.h>
#include <string>

#include "station.h"
#include "tool.h"

// The exceptions of the plug-in, read out of the service while it runs.
namespace {

using adapter_control::Plug;
using system_tests::Contains;
using system_tests::Tool;
using test_support::CommandResult;
using test_support::Eventually;
using test_support::RunCommand;

class Exceptions : public system_tests::Station {
  protected:
    /// An access point is missing, and so is the panel that would make it.
    void ProvokeOne() {
        store_.Delete(L"NX4120.XLI.1");
        Plug(nx4120_);
    }
    void InstallPlugIn(const std::wstring& file) {
        RunCommand(L"tessahost.exe uninstall");
        EXPECT_EQ(
            RunCommand(L"tessahost.exe install --plugin " + file + L" --log \"" + log_ + L"\"").exitCode, 0u);
    }
};

}  // namespace

TEST_F(Exceptions, OfTheRunningServiceArePrinted) {
    StartService();
    ProvokeOne();
    CommandResult printed;
    EXPECT_TRUE(Eventually([&] { return Contains(printed = Tool(L"exceptions"), "q5panels.exe"); }))
        << printed.output;
    EXPECT_EQ(printed.exitCode, 0u);
    EXPECT_TRUE(Contains(printed, "\\tessaplug.dll: ")) << printed.output;
    EXPECT_TRUE(Contains(printed, " exceptions, oldest first\n  ")) << printed.output;
    EXPECT_TRUE(Contains(printed, "thrown by quelm::TvorPanel::")) << printed.output;
    EXPECT_TRUE(Contains(printed, " in tessaplug_orvix(")) << printed.output;
    const CommandResult json = Tool(L"exceptions --json --service tessahost --plugin TESSAPLUG.DLL");
    EXPECT_EQ(json.exitCode, 0u) << json.output;
    EXPECT_TRUE(json.output.starts_with("[{\"module\":\"tessaplug.dll\",\"time\":\"")) << json.output;
    EXPECT_TRUE(Contains(json, "\"file\":\"tessaplug_orvix\",\"function\":\"quelm::TvorPanel::"))
        << json.output;
    const CommandResult doctor = Tool(L"doctor");
    EXPECT_TRUE(Contains(doctor, "note     exceptions of the plug-in                   the newest: "))
        << doctor.output;
    EXPECT_TRUE(Contains(doctor, "-> tessactl exceptions shows the last ")) << doctor.output;
}

TEST_F(Exceptions, OfAServiceThatDoesNotRunAreNotThere) {
    const CommandResult stopped = Tool(L"exceptions");
    EXPECT_EQ(stopped.exitCode, 1u);
    EXPECT_TRUE(Contains(stopped, "the service \"tessahost\" does not run; ")) << stopped.output;
    const CommandResult unknown = Tool(L"exceptions --service \"no such\"");
    EXPECT_EQ(unknown.exitCode, 1u);
    EXPECT_TRUE(Contains(unknown, "the service \"no such\" cannot be opened: ")) << unknown.output;
    EXPECT_TRUE(Contains(unknown, " (error 1060)\n")) << unknown.output;
    for (const auto* arguments : {L"exceptions x", L"exceptions --service", L"exceptions --plugin"})
        EXPECT_EQ(Tool(arguments).exitCode, 2u) << arguments;
}

TEST_F(Exceptions, OfAnotherPlugInCannotBeRead) {
    InstallPlugIn(L"plug_in_works.dll");
    StartService();
    const CommandResult notLoaded = Tool(L"exceptions");
    EXPECT_EQ(notLoaded.exitCode, 1u);
    EXPECT_TRUE(Contains(notLoaded, "the service \"tessahost\" has not loaded tessaplug.dll; "))
        << notLoaded.output;
    const CommandResult noHistory = Tool(L"exceptions --plugin plug_in_works.dll");
    EXPECT_EQ(noHistory.exitCode, 1u);
    EXPECT_TRUE(Contains(noHistory, "plug_in_works.dll cannot be read: it has none; it is another plug-in"))
        << noHistory.output;
}
