#include "host_service.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

using host_test::HostService;
using test_support::CommandResult;
using test_support::ProgramFolder;

TEST_F(HostService, StartsReportsAndStopsTwice) {
    EXPECT_EQ(Install(L"plug_in_works.dll").exitCode, 0u);
    EXPECT_EQ(Install(L"plug_in_works.dll").exitCode, 4u) << "installed already";
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Run(L"start").exitCode, 0u) << HostLog();
        EXPECT_EQ(Run(L"start").exitCode, 8u) << "running already";
        EXPECT_NE(Run(L"status").output.find("state      RUNNING"), std::string::npos);
        EXPECT_NE(Run(L"status --json").output.find("\"state\":\"RUNNING\""), std::string::npos);
        EXPECT_EQ(Run(L"stop").exitCode, 0u);
        EXPECT_TRUE(EndedWith(0, 0)) << HostLog();
        EXPECT_EQ(Run(L"stop").exitCode, 7u) << "not running";
    }
    EXPECT_TRUE(LogHas("START_PENDING  check point 7, wait hint 3000 ms")) << "the plug-in's own report";
    EXPECT_TRUE(LogHas("STOPPED"));
    EXPECT_EQ(Run(L"uninstall").exitCode, 0u);
    EXPECT_EQ(Run(L"uninstall").exitCode, 3u) << "not installed";
}

TEST_F(HostService, RestartsWhetherItRunsOrNot) {
    EXPECT_EQ(Run(L"restart").exitCode, 3u) << "not installed";
    Install(L"plug_in_works.dll");
    EXPECT_EQ(Run(L"restart").exitCode, 0u) << HostLog();
    EXPECT_FALSE(LogHas("STOPPED"));
    const CommandResult again = Run(L"restart");
    EXPECT_EQ(again.exitCode, 0u) << again.output;
    // A service may be told to be running once more before it takes the stop.
    EXPECT_LT(again.output.find("STOPPED"), again.output.rfind("RUNNING")) << again.output;
    EXPECT_TRUE(LogHas("STOPPED"));
    EXPECT_NE(Run(L"status").output.find("state      RUNNING"), std::string::npos);
}

TEST_F(HostService, TakesStopsShutdownsAndPowerEventsWhileItRuns) {
    Install(L"plug_in_works.dll");
    EXPECT_EQ(Run(L"start").exitCode, 0u);
    const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    const SC_HANDLE service = ::OpenServiceW(manager, L"tessahost_unit_test", SERVICE_QUERY_STATUS);
    SERVICE_STATUS status = {};
    EXPECT_TRUE(::QueryServiceStatus(service, &status));
    ::CloseServiceHandle(service);
    ::CloseServiceHandle(manager);
    EXPECT_EQ(status.dwControlsAccepted,
              static_cast<DWORD>(SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_PRESHUTDOWN |
                                 SERVICE_ACCEPT_POWEREVENT));
}

TEST_F(HostService, UninstallStopsARunningService) {
    Install(L"plug_in_works.dll");
    EXPECT_EQ(Run(L"start").exitCode, 0u);
    EXPECT_EQ(Run(L"uninstall").exitCode, 0u);
    EXPECT_TRUE(LogHas("STOPPED"));
    EXPECT_EQ(Run(L"status").exitCode, 3u);
}

TEST_F(HostService, RefusedStartEndsTheServiceWithItsOwnCode) {
    Install(L"plug_in_refuses.dll");
    const CommandResult started = Run(L"start");
    EXPECT_EQ(started.exitCode, 1u);
    EXPECT_NE(started.output.find("error 1066 (its own code: 1)"), std::string::npos) << started.output;
    EXPECT_TRUE(LogHas("The plug-in refused to start; see the Application log"));
    EXPECT_TRUE(LogHas("The plug-in is unloaded"));
}

TEST_F(HostService, SaysHowItIsSetUp) {
    const CommandResult installed = Install(L"plug_in_works.dll", L"--auto --stop-timeout 45");
    EXPECT_EQ(installed.exitCode, 0u) << installed.output;
    const std::string json = Run(L"status --json").output;
    EXPECT_NE(json.find("\"startType\":\"automatic\""), std::string::npos) << json;
    EXPECT_NE(json.find("\"preshutdownSeconds\":55"), std::string::npos) << json;
    EXPECT_NE(json.find("\"description\":\"Runs the adapter plug-in"), std::string::npos) << json;
    EXPECT_NE(json.find("--stop-timeout 45 --log-size 2048"), std::string::npos) << json;
    EXPECT_NE(json.find("\\\\plug_in_works.dll\\\""), std::string::npos) << "escaped: " << json;
    EXPECT_NE(Run(L"status").output.find("shutdown   waits for the stop, at most 55 s\n"), std::string::npos);
    // Wine keeps the dependency and does not tell it.
    wchar_t dependencies[64] = {};
    DWORD size = sizeof dependencies;
    ::RegGetValueW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\tessahost_unit_test",
                   L"DependOnService", RRF_RT_REG_MULTI_SZ, nullptr, dependencies, &size);
    EXPECT_EQ(std::wstring(dependencies), L"EventLog");
    EXPECT_EQ(Run(L"start").exitCode, 0u) << "the dependency does not keep it from starting";
}

TEST_F(HostService, FullLogIsPutAsideWithTheLimitsOfTheInstallation) {
    Install(L"plug_in_works.dll", L"--log-size 16 --log-keep 1");
    std::ofstream(std::filesystem::path(log_)) << std::string(16384, 'x');
    EXPECT_EQ(Run(L"start").exitCode, 0u);
    EXPECT_EQ(std::filesystem::file_size(log_ + L".1"), 16384u);
    EXPECT_FALSE(LogHas("xxx"));
    EXPECT_TRUE(LogHas("RUNNING"));
    Run(L"stop");
    std::filesystem::remove(log_ + L".1");
}

TEST_F(HostService, InstallRefusesALogThatIsALink) {
    const std::wstring target = log_ + L".target";
    std::ofstream(std::filesystem::path(target)) << "precious";
    ASSERT_TRUE(::CreateHardLinkW(log_.c_str(), target.c_str(), nullptr));
    const CommandResult installed = Install(L"plug_in_works.dll");
    EXPECT_EQ(installed.exitCode, 1u);
    EXPECT_NE(installed.output.find("has 2 names (hard links)"), std::string::npos) << installed.output;
    EXPECT_EQ(Run(L"status").exitCode, 3u) << "nothing half-installed";
    std::filesystem::remove(target);
}

TEST_F(HostService, LogThatBecameALinkIsLeftAloneAndTheUsualOneSaysSo) {
    Install(L"plug_in_works.dll");
    const std::wstring target = log_ + L".target";
    std::ofstream(std::filesystem::path(target)) << "precious";
    std::filesystem::remove(log_);
    ASSERT_TRUE(::CreateHardLinkW(log_.c_str(), target.c_str(), nullptr));
    std::filesystem::remove(usualLog_);

    EXPECT_EQ(Run(L"start").exitCode, 0u) << "it works all the same";
    EXPECT_EQ(Run(L"stop").exitCode, 0u);

    EXPECT_EQ(host_test::ContentOf(target), "precious");
    const std::string usual = host_test::ContentOf(usualLog_);
    EXPECT_NE(usual.find("tessahost_unit_test.log is not used. "), std::string::npos) << usual;
    EXPECT_NE(usual.find("(hard links)"), std::string::npos) << usual;
    EXPECT_NE(usual.find("RUNNING"), std::string::npos) << usual;
    std::filesystem::remove(log_);
    std::filesystem::remove(target);
}

TEST_F(HostService, PlugInOfTheWrongKindIsToldInWords) {
    const std::wstring path = L"C:\\windows\\temp\\no_library.dll";
    std::ofstream(std::filesystem::path(path)) << "just text";
    Install(path);
    EXPECT_EQ(Run(L"start").exitCode, 1u);
    EXPECT_TRUE(EndedWith(ERROR_BAD_EXE_FORMAT, 0));
    EXPECT_TRUE(LogHas("(error 193)")) << HostLog();
    EXPECT_FALSE(LogHas("FormatMessage")) << HostLog();
    ::DeleteFileW(path.c_str());
}

TEST_F(HostService, ExceptionOutOfTheStartEndsTheServiceWithAnErrorOfTheSystem) {
    for (const std::wstring kind : {L"faults", L"throws"}) {
        Install(L"plug_in_" + kind + L"_in_init.dll");
        EXPECT_EQ(Run(L"start").exitCode, 1u);
        EXPECT_TRUE(EndedWith(ERROR_EXCEPTION_IN_SERVICE, 0)) << HostLog();
        EXPECT_TRUE(LogHas("out of tessaplug_init")) << HostLog();
        if (kind == L"throws")
            EXPECT_TRUE(LogHas("(thrown in a caf\xef\xbf\xbd)"))
                << "the host's code page is UTF-8: " << HostLog();
        EXPECT_TRUE(LogHas("The plug-in stays loaded")) << HostLog();
        Run(L"uninstall");
    }
}

TEST_F(HostService, ExceptionOutOfTheCleanUpEndsTheServiceWithAnErrorOfTheSystem) {
    for (const std::wstring kind : {L"faults", L"throws"}) {
        Install(L"plug_in_" + kind + L"_in_cleanup.dll");
        EXPECT_EQ(Run(L"start").exitCode, 0u);
        EXPECT_EQ(Run(L"stop").exitCode, 0u);
        EXPECT_TRUE(EndedWith(ERROR_EXCEPTION_IN_SERVICE, 0)) << HostLog();
        EXPECT_TRUE(LogHas("out of tessaplug_cleanup")) << HostLog();
        EXPECT_TRUE(LogHas("The plug-in stays loaded")) << HostLog();
        Run(L"uninstall");
    }
}

TEST_F(HostService, PlugInThatVanishedEndsTheServiceWithTheReason) {
    const std::wstring copy = L"C:\\windows\\temp\\vanishing_plug_in.dll";
    ::CopyFileW((ProgramFolder() + L"plug_in_works.dll").c_str(), copy.c_str(), FALSE);
    Install(copy);
    ::DeleteFileW(copy.c_str());
    const CommandResult started = Run(L"start");
    EXPECT_EQ(started.exitCode, 1u);
    EXPECT_TRUE(LogHas("vanishing_plug_in.dll cannot be loaded: ")) << HostLog();
}

TEST_F(HostService, InstallRefusesAMissingPlugIn) {
    const CommandResult installed = Install(L"no_such_plug_in.dll");
    EXPECT_EQ(installed.exitCode, 1u);
    EXPECT_NE(installed.output.find("there is no plug-in"), std::string::npos) << installed.output;
    EXPECT_EQ(Run(L"status").exitCode, 3u) << "nothing half-installed";
}

TEST_F(HostService, RunByHandSaysSo) {
    const CommandResult run = Run(L"run");
    EXPECT_EQ(run.exitCode, 1u);
    EXPECT_NE(run.output.find("is for the service manager"), std::string::npos) << run.output;
}
