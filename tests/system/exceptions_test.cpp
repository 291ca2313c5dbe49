#include <windows.h>
#include <sddl.h>

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
    EXPECT_TRUE(json.output.starts_with("[{\"schema\":1,\"module\":\"tessaplug.dll\",\"time\":\""))
        << json.output;
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

TEST_F(Exceptions, AreNotToldToWhomTheServicesProcessIsClosed) {
    StartService();
    const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    const SC_HANDLE service = ::OpenServiceW(manager, L"tessahost", SERVICE_QUERY_STATUS);
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    EXPECT_TRUE(::QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                                       sizeof status, &needed));
    ::CloseServiceHandle(service);
    ::CloseServiceHandle(manager);
    PSECURITY_DESCRIPTOR closed = nullptr;
    ASSERT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:(D;;0x0010;;;WD)(A;;GA;;;WD)",
                                                                       SDDL_REVISION_1, &closed, nullptr));
    const HANDLE process = ::OpenProcess(WRITE_DAC, FALSE, status.dwProcessId);
    EXPECT_TRUE(::SetKernelObjectSecurity(process, DACL_SECURITY_INFORMATION, closed))
        << "no one may read its memory";
    ::CloseHandle(process);
    ::LocalFree(closed);
    const CommandResult refused = Tool(L"exceptions");
    EXPECT_EQ(refused.exitCode, 5u);
    EXPECT_TRUE(Contains(refused, " is not allowed; run it as administrator\n")) << refused.output;
    const CommandResult doctor = Tool(L"doctor");
    EXPECT_EQ(doctor.exitCode, 0u);
    EXPECT_TRUE(Contains(
        doctor, "note     plug-in running                             somebody holds the instance lock; "))
        << doctor.output;
}
