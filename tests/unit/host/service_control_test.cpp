#include "service_control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "mock_advapi32.h"
#include "module_hooks.h"

using host::ExitCode;
using host::Options;
using host_test::FailWith;
using host_test::MockAdvapi32;
using testing::_;
using testing::NiceMock;
using testing::Return;

namespace {

/// Answers a query with a state.
auto AnswerState(DWORD state, DWORD exitCode = 0, DWORD specificExitCode = 0, DWORD checkPoint = 0) {
    return [=](SC_HANDLE, SC_STATUS_TYPE, BYTE* buffer, DWORD, DWORD*) {
        auto* status = reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer);
        status->dwCurrentState = state;
        status->dwWin32ExitCode = exitCode;
        status->dwServiceSpecificExitCode = specificExitCode;
        status->dwCheckPoint = checkPoint;
        return TRUE;
    };
}

class Control : public testing::Test {
  protected:
    Control() {
        ON_CALL(*advapi32_, OpenSCManagerW).WillByDefault(Return(reinterpret_cast<SC_HANDLE>(0x10)));
        ON_CALL(*advapi32_, OpenServiceW).WillByDefault(Return(reinterpret_cast<SC_HANDLE>(0x20)));
        ON_CALL(*advapi32_, StartServiceW).WillByDefault(Return(TRUE));
        ON_CALL(*advapi32_, ControlService).WillByDefault(Return(TRUE));
        ON_CALL(*advapi32_, DeleteService).WillByDefault(Return(TRUE));
        ON_CALL(*advapi32_, QueryServiceStatusEx).WillByDefault(AnswerState(SERVICE_STOPPED));
    }
    /// This program's own file stands for the plug-in: it is there.
    static Options WithPlugIn() {
        wchar_t self[MAX_PATH] = {};
        ::GetModuleFileNameW(nullptr, self, MAX_PATH);
        Options options;
        options.plugIn = self;
        return options;
    }

    std::shared_ptr<NiceMock<MockAdvapi32>> advapi32_ = std::make_shared<NiceMock<MockAdvapi32>>();
    host::ServiceControl control_{advapi32_, std::chrono::milliseconds(50)};
};

constexpr SC_HANDLE kNone = nullptr;

}  // namespace

TEST_F(Control, MissingRightsAreTold) {
    ON_CALL(*advapi32_, OpenSCManagerW).WillByDefault(FailWith(ERROR_ACCESS_DENIED, kNone));
    EXPECT_EQ(control_.Install(WithPlugIn()), ExitCode::kNoRights);
    EXPECT_EQ(control_.Start({}), ExitCode::kNoRights);
    EXPECT_EQ(control_.Status({}), ExitCode::kNoRights);
}

TEST_F(Control, MissingServiceIsTold) {
    ON_CALL(*advapi32_, OpenServiceW).WillByDefault(FailWith(ERROR_SERVICE_DOES_NOT_EXIST, kNone));
    EXPECT_EQ(control_.Start({}), ExitCode::kNotInstalled);
    EXPECT_EQ(control_.Stop({}), ExitCode::kNotInstalled);
    EXPECT_EQ(control_.Status({}), ExitCode::kNotInstalled);
    EXPECT_EQ(control_.Uninstall({}), ExitCode::kNotInstalled);
}

TEST_F(Control, InstallRefusesAMissingPlugIn) {
    EXPECT_CALL(*advapi32_, CreateServiceW_Reduced).Times(0);
    Options options;
    options.plugIn = L"no such file.dll";
    EXPECT_EQ(control_.Install(options), ExitCode::kFailed);
}

TEST_F(Control, InstallMakesTheLogsPathFull) {
    std::wstring commandLine;
    EXPECT_CALL(*advapi32_, CreateServiceW_Reduced)
        .WillOnce([&](SC_HANDLE, const wchar_t*, const wchar_t*, const wchar_t* path, DWORD) {
            commandLine = path;
            return reinterpret_cast<SC_HANDLE>(0x20);
        });
    Options options = WithPlugIn();
    options.log = L"relative.log";
    wchar_t full[MAX_PATH] = {};
    ::GetFullPathNameW(options.log.c_str(), MAX_PATH, full, nullptr);

    EXPECT_EQ(control_.Install(options), ExitCode::kSuccess);

    EXPECT_TRUE(commandLine.ends_with(L"--log \"" + std::wstring(full) + L"\""));
    ::DeleteFileW(full);
}

TEST_F(Control, InstallRefusesALogThatCannotBeWritten) {
    EXPECT_CALL(*advapi32_, CreateServiceW_Reduced).Times(0);
    Options options = WithPlugIn();
    options.log = L"C:\\windows";
    EXPECT_EQ(control_.Install(options), ExitCode::kFailed);
}

TEST_F(Control, InstallTellsOfAnInstalledService) {
    ON_CALL(*advapi32_, CreateServiceW_Reduced).WillByDefault(FailWith(ERROR_SERVICE_EXISTS, kNone));
    EXPECT_EQ(control_.Install(WithPlugIn()), ExitCode::kAlreadyInstalled);
    ON_CALL(*advapi32_, CreateServiceW_Reduced)
        .WillByDefault(FailWith(ERROR_SERVICE_MARKED_FOR_DELETE, kNone));
    EXPECT_EQ(control_.Install(WithPlugIn()), ExitCode::kFailed);
}

TEST_F(Control, InstalledCommandLineIsQuotedAndComplete) {
    std::wstring commandLine;
    DWORD startType = 0;
    EXPECT_CALL(*advapi32_, CreateServiceW_Reduced)
        .WillOnce([&](SC_HANDLE, const wchar_t*, const wchar_t*, const wchar_t* path, DWORD type) {
            commandLine = path;
            startType = type;
            return reinterpret_cast<SC_HANDLE>(0x20);
        });
    Options options = WithPlugIn();
    options.log = L"C:\\windows\\temp\\logs of a test\\new\\log file";
    options.automaticStart = true;

    EXPECT_EQ(control_.Install(options), ExitCode::kSuccess);

    EXPECT_TRUE(commandLine.starts_with(L"\"" + options.plugIn + L"\" run --name \"tessahost\" --plugin \""));
    EXPECT_TRUE(commandLine.ends_with(L"--log \"" + options.log + L"\""));
    EXPECT_TRUE(::DeleteFileW(options.log.c_str())) << "it can be written";
    EXPECT_EQ(startType, static_cast<DWORD>(SERVICE_AUTO_START));
}

TEST_F(Control, InstalledCommandLineHoldsTheLimits) {
    std::wstring commandLine;
    EXPECT_CALL(*advapi32_, CreateServiceW_Reduced)
        .WillRepeatedly([&](SC_HANDLE, const wchar_t*, const wchar_t*, const wchar_t* path, DWORD) {
            commandLine = path;
            return reinterpret_cast<SC_HANDLE>(0x20);
        });
    Options options = WithPlugIn();
    options.log = L"C:\\windows\\temp\\service_control_test.log";
    options.stopTimeOut = 45;
    options.logSize = 100;
    options.logKeep = 7;

    EXPECT_EQ(control_.Install(options), ExitCode::kSuccess);

    EXPECT_NE(commandLine.find(L" --stop-timeout 45 --log-size 100 --log-keep 7 "), std::wstring::npos);
    ::DeleteFileW(options.log.c_str());
}

TEST_F(Control, SettingsThatTheSystemRefusesDoNotKeepTheServiceFromBeingInstalled) {
    ON_CALL(*advapi32_, CreateServiceW_Reduced).WillByDefault(Return(reinterpret_cast<SC_HANDLE>(0x20)));
    EXPECT_CALL(*advapi32_, ChangeServiceConfig2W)
        .Times(testing::AtLeast(1))
        .WillRepeatedly(FailWith(ERROR_INVALID_LEVEL, FALSE));
    Options options = WithPlugIn();
    options.log = L"C:\\windows\\temp\\service_control_test.log";
    EXPECT_EQ(control_.Install(options), ExitCode::kSuccess);
    ::DeleteFileW(options.log.c_str());
}

TEST_F(Control, StartAndStopTellOfTheStateTheyFind) {
    ON_CALL(*advapi32_, StartServiceW).WillByDefault(FailWith(ERROR_SERVICE_ALREADY_RUNNING, FALSE));
    EXPECT_EQ(control_.Start({}), ExitCode::kAlreadyRunning);
    ON_CALL(*advapi32_, ControlService).WillByDefault(FailWith(ERROR_SERVICE_NOT_ACTIVE, FALSE));
    EXPECT_EQ(control_.Stop({}), ExitCode::kNotRunning);
}

TEST_F(Control, StopOfAServiceThatIsStoppingWaitsForItsEnd) {
    EXPECT_CALL(*advapi32_, QueryServiceStatusEx)
        .WillOnce(AnswerState(SERVICE_STOP_PENDING))
        .WillOnce(AnswerState(SERVICE_STOP_PENDING))
        .WillOnce(AnswerState(SERVICE_STOPPED));
    EXPECT_CALL(*advapi32_, ControlService).Times(0);
    EXPECT_EQ(control_.Stop({}), ExitCode::kSuccess);
}

TEST_F(Control, StopOfAServiceThatIsStartingWaitsUntilItRuns) {
    EXPECT_CALL(*advapi32_, QueryServiceStatusEx)
        .WillOnce(AnswerState(SERVICE_START_PENDING))
        .WillOnce(AnswerState(SERVICE_RUNNING))
        .WillOnce(AnswerState(SERVICE_STOPPED));
    EXPECT_CALL(*advapi32_, ControlService).WillOnce(Return(TRUE));
    EXPECT_EQ(control_.Stop({}), ExitCode::kSuccess);
}

TEST_F(Control, ServiceThatTakesNoControlIsTold) {
    ON_CALL(*advapi32_, QueryServiceStatusEx).WillByDefault(AnswerState(SERVICE_RUNNING));
    ON_CALL(*advapi32_, ControlService).WillByDefault(FailWith(ERROR_SERVICE_CANNOT_ACCEPT_CTRL, FALSE));
    EXPECT_EQ(control_.Stop({}), ExitCode::kFailed);
}

TEST_F(Control, StartOfAServiceThatIsStoppingWaitsForItsEndFirst) {
    EXPECT_CALL(*advapi32_, QueryServiceStatusEx)
        .WillOnce(AnswerState(SERVICE_STOP_PENDING))
        .WillOnce(AnswerState(SERVICE_STOP_PENDING))
        .WillOnce(AnswerState(SERVICE_STOPPED))
        .WillOnce(AnswerState(SERVICE_RUNNING));
    EXPECT_CALL(*advapi32_, StartServiceW).WillOnce(Return(TRUE));
    EXPECT_EQ(control_.Start({}), ExitCode::kSuccess);
}

TEST_F(Control, StartWaitsForRunning) {
    EXPECT_CALL(*advapi32_, QueryServiceStatusEx)
        .WillOnce(AnswerState(SERVICE_STOPPED))
        .WillOnce(AnswerState(SERVICE_START_PENDING))
        .WillOnce(AnswerState(SERVICE_RUNNING));
    EXPECT_EQ(control_.Start({}), ExitCode::kSuccess);
}

TEST_F(Control, StartTellsOfAServiceThatEnds) {
    ON_CALL(*advapi32_, QueryServiceStatusEx).WillByDefault(AnswerState(SERVICE_STOPPED, 1066));
    EXPECT_EQ(control_.Start({}), ExitCode::kFailed);
}

TEST_F(Control, StartGivesUpInTheEnd) {
    ON_CALL(*advapi32_, QueryServiceStatusEx).WillByDefault(AnswerState(SERVICE_START_PENDING));
    EXPECT_EQ(control_.Start({}), ExitCode::kTimedOut);
}

TEST_F(Control, StopIsWaitedForAsLongAsItGetsOn) {
    const auto begin = std::chrono::steady_clock::now();
    constexpr auto kLonger = std::chrono::milliseconds(200);  // than the time-out
    DWORD checkPoint = 0;
    ON_CALL(*advapi32_, QueryServiceStatusEx)
        .WillByDefault([&](SC_HANDLE service, SC_STATUS_TYPE type, BYTE* buffer, DWORD size, DWORD* needed) {
            const bool isOver = std::chrono::steady_clock::now() - begin > kLonger;
            return AnswerState(isOver ? SERVICE_STOPPED : SERVICE_STOP_PENDING, 0, 0, ++checkPoint)(
                service, type, buffer, size, needed);
        });
    EXPECT_EQ(control_.Stop({}), ExitCode::kSuccess);
}

TEST_F(Control, StopThatDoesNotGetOnIsGivenUp) {
    ON_CALL(*advapi32_, QueryServiceStatusEx).WillByDefault(AnswerState(SERVICE_STOP_PENDING, 0, 0, 3));
    EXPECT_EQ(control_.Stop({}), ExitCode::kTimedOut);
}

TEST_F(Control, StopThatTookAnEndByForceIsTold) {
    ON_CALL(*advapi32_, QueryServiceStatusEx)
        .WillByDefault(AnswerState(SERVICE_STOPPED, ERROR_SERVICE_SPECIFIC_ERROR, 2));
    EXPECT_EQ(control_.Stop({}), ExitCode::kEndedByForce);
    ON_CALL(*advapi32_, QueryServiceStatusEx)
        .WillByDefault(AnswerState(SERVICE_STOPPED, ERROR_SERVICE_SPECIFIC_ERROR, 1));
    EXPECT_EQ(control_.Stop({}), ExitCode::kSuccess) << "another code of its own";
    ON_CALL(*advapi32_, QueryServiceStatusEx).WillByDefault(AnswerState(SERVICE_STOPPED, 2, 2));
    EXPECT_EQ(control_.Stop({}), ExitCode::kSuccess) << "an error of the system's";
}

TEST_F(Control, UninstallRemovesAServiceThatTookAnEndByForce) {
    EXPECT_CALL(*advapi32_, QueryServiceStatusEx)
        .WillOnce(AnswerState(SERVICE_RUNNING))
        .WillRepeatedly(AnswerState(SERVICE_STOPPED, ERROR_SERVICE_SPECIFIC_ERROR, 2));
    EXPECT_CALL(*advapi32_, DeleteService).WillOnce(Return(TRUE));
    EXPECT_EQ(control_.Uninstall({}), ExitCode::kSuccess);
}

TEST_F(Control, StartAfterAStopThatTookAnEndByForceStarts) {
    EXPECT_CALL(*advapi32_, QueryServiceStatusEx)
        .WillOnce(AnswerState(SERVICE_STOP_PENDING))
        .WillOnce(AnswerState(SERVICE_STOP_PENDING))
        .WillOnce(AnswerState(SERVICE_STOPPED, ERROR_SERVICE_SPECIFIC_ERROR, 2))
        .WillRepeatedly(AnswerState(SERVICE_RUNNING));
    EXPECT_CALL(*advapi32_, StartServiceW).WillOnce(Return(TRUE));
    EXPECT_EQ(control_.Start({}), ExitCode::kSuccess);
}

TEST_F(Control, RestartStopsAndStarts) {
    EXPECT_CALL(*advapi32_, QueryServiceStatusEx)
        .WillOnce(AnswerState(SERVICE_RUNNING))
        .WillOnce(AnswerState(SERVICE_RUNNING))
        .WillOnce(AnswerState(SERVICE_STOPPED))
        .WillOnce(AnswerState(SERVICE_START_PENDING))
        .WillOnce(AnswerState(SERVICE_RUNNING));
    const testing::InSequence inSequence;
    EXPECT_CALL(*advapi32_, ControlService(_, SERVICE_CONTROL_STOP, _)).WillOnce(Return(TRUE));
    EXPECT_CALL(*advapi32_, StartServiceW).WillOnce(Return(TRUE));
    EXPECT_EQ(control_.Restart({}), ExitCode::kSuccess);
}

TEST_F(Control, RestartOfAServiceThatDoesNotRunStartsIt) {
    EXPECT_CALL(*advapi32_, QueryServiceStatusEx)
        .WillOnce(AnswerState(SERVICE_STOPPED))
        .WillOnce(AnswerState(SERVICE_RUNNING));
    EXPECT_CALL(*advapi32_, ControlService).Times(0);
    EXPECT_CALL(*advapi32_, StartServiceW).WillOnce(Return(TRUE));
    EXPECT_EQ(control_.Restart({}), ExitCode::kSuccess);
}

TEST_F(Control, RestartAfterAStopThatTookAnEndByForceTellsAndStarts) {
    EXPECT_CALL(*advapi32_, QueryServiceStatusEx)
        .WillOnce(AnswerState(SERVICE_RUNNING))
        .WillOnce(AnswerState(SERVICE_RUNNING))
        .WillOnce(AnswerState(SERVICE_STOPPED, ERROR_SERVICE_SPECIFIC_ERROR, 2))
        .WillOnce(AnswerState(SERVICE_RUNNING));
    EXPECT_CALL(*advapi32_, StartServiceW).WillOnce(Return(TRUE));
    testing::internal::CaptureStderr();
    EXPECT_EQ(control_.Restart({}), ExitCode::kSuccess);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("did not stop in time"), std::string::npos);
}

TEST_F(Control, RestartIsContentIfTheServiceManagerWasFaster) {
    EXPECT_CALL(*advapi32_, QueryServiceStatusEx)
        .WillOnce(AnswerState(SERVICE_STOPPED))
        .WillOnce(AnswerState(SERVICE_START_PENDING))
        .WillOnce(AnswerState(SERVICE_RUNNING));
    ON_CALL(*advapi32_, StartServiceW).WillByDefault(FailWith(ERROR_SERVICE_ALREADY_RUNNING, FALSE));
    EXPECT_EQ(control_.Restart({}), ExitCode::kSuccess);
}

TEST_F(Control, RestartDoesNotStartWhatCannotBeStopped) {
    ON_CALL(*advapi32_, QueryServiceStatusEx).WillByDefault(AnswerState(SERVICE_STOP_PENDING));
    EXPECT_CALL(*advapi32_, StartServiceW).Times(0);
    EXPECT_EQ(control_.Restart({}), ExitCode::kTimedOut);
}

TEST_F(Control, RestartTellsOfAStartThatFails) {
    ON_CALL(*advapi32_, StartServiceW).WillByDefault(FailWith(ERROR_ACCESS_DENIED, FALSE));
    EXPECT_EQ(control_.Restart({}), ExitCode::kNoRights);
}

TEST_F(Control, UninstallOfAServiceThatEndsMeanwhileRemovesIt) {
    ON_CALL(*advapi32_, QueryServiceStatusEx).WillByDefault(AnswerState(SERVICE_RUNNING));
    ON_CALL(*advapi32_, ControlService).WillByDefault(FailWith(ERROR_SERVICE_NOT_ACTIVE, FALSE));
    EXPECT_CALL(*advapi32_, DeleteService).WillOnce(Return(TRUE));
    EXPECT_EQ(control_.Uninstall({}), ExitCode::kSuccess);
}

TEST_F(Control, UninstallStopsARunningServiceFirst) {
    EXPECT_CALL(*advapi32_, QueryServiceStatusEx)
        .WillOnce(AnswerState(SERVICE_RUNNING))
        .WillOnce(AnswerState(SERVICE_RUNNING))
        .WillOnce(AnswerState(SERVICE_STOPPED));
    const testing::InSequence inSequence;
    EXPECT_CALL(*advapi32_, ControlService(_, SERVICE_CONTROL_STOP, _)).WillOnce(Return(TRUE));
    EXPECT_CALL(*advapi32_, DeleteService).WillOnce(Return(TRUE));
    EXPECT_EQ(control_.Uninstall({}), ExitCode::kSuccess);
}

TEST(ServiceCommandLine, IsReadBackAsTheOptionsItWasMadeOf) {
    Options options;
    options.name = L"an other name";
    options.program = L"C:\\Program Files\\a folder\\tessahost.exe";
    options.plugIn = L"D:\\plug ins\\one.dll";
    options.log = L"E:\\logs of mine\\host.log";
    options.stopTimeOut = 45;
    options.logSize = 100;
    options.logKeep = 7;
    const Options read = host::OptionsOf(host::CommandLineOf(options)).value_or(Options());
    EXPECT_EQ(read.name, options.name);
    EXPECT_EQ(read.program, options.program);
    EXPECT_EQ(read.plugIn, options.plugIn);
    EXPECT_EQ(read.log, options.log);
    EXPECT_EQ(read.stopTimeOut, 45u);
    EXPECT_EQ(read.logSize, 100u);
    EXPECT_EQ(read.logKeep, 7u);
}

TEST(ServiceCommandLine, OfAnotherProgramHasNoOptions) {
    EXPECT_FALSE(host::OptionsOf(L""));
    EXPECT_FALSE(host::OptionsOf(L"C:\\windows\\system32\\svchost.exe -k netsvcs"));
    EXPECT_FALSE(host::OptionsOf(L"C:\\tessahost.exe"));
    EXPECT_FALSE(host::OptionsOf(L"C:\\tessahost.exe status"));
    EXPECT_FALSE(host::OptionsOf(L"C:\\another.exe run --port 80"));
}

namespace {

/// Answers the query for a service's basics.
auto AnswerBasics(DWORD startType, std::wstring commandLine) {
    return [=](SC_HANDLE, QUERY_SERVICE_CONFIGW* basics, DWORD size, DWORD* needed) {
        *needed = sizeof(QUERY_SERVICE_CONFIGW);
        if (size < *needed) {
            ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return FALSE;
        }
        *basics = {};
        basics->dwStartType = startType;
        basics->lpBinaryPathName = const_cast<wchar_t*>(commandLine.c_str());
        return TRUE;
    };
}

}  // namespace

TEST_F(Control, FoundServiceTellsItsOptionsAndWhetherItRuns) {
    ON_CALL(*advapi32_, QueryServiceConfigW)
        .WillByDefault(AnswerBasics(SERVICE_AUTO_START, L"C:\\p\\tessahost.exe run --stop-timeout 45"));
    ON_CALL(*advapi32_, QueryServiceStatusEx).WillByDefault(AnswerState(SERVICE_START_PENDING));
    const auto service = control_.Find(L"x").value_or(host::InstalledService());
    EXPECT_EQ(service.commandLine, L"C:\\p\\tessahost.exe run --stop-timeout 45");
    const Options options = service.options.value_or(Options());
    EXPECT_EQ(options.program, L"C:\\p\\tessahost.exe");
    EXPECT_EQ(options.stopTimeOut, 45u);
    EXPECT_TRUE(options.automaticStart);
    EXPECT_FALSE(options.delayedStart);
    EXPECT_TRUE(service.isRunning);
}

TEST_F(Control, FoundServiceOfAnotherProgramHasNoOptions) {
    ON_CALL(*advapi32_, QueryServiceConfigW).WillByDefault(AnswerBasics(SERVICE_DEMAND_START, L"C:\\x.exe"));
    const auto service = control_.Find(L"x").value_or(host::InstalledService());
    EXPECT_EQ(service.commandLine, L"C:\\x.exe");
    EXPECT_FALSE(service.options);
    EXPECT_FALSE(service.isRunning);
}

TEST_F(Control, ServiceThatIsNotThereIsNotFound) {
    ON_CALL(*advapi32_, OpenServiceW).WillByDefault(FailWith(ERROR_SERVICE_DOES_NOT_EXIST, kNone));
    EXPECT_FALSE(control_.Find(L"x"));
}

TEST_F(Control, UpdateSetsAnInstalledServiceUpAnew) {
    Options options = WithPlugIn();
    options.program = L"C:\\p\\tessahost.exe";
    options.log = L"C:\\windows\\temp\\service_control_test.log";
    options.automaticStart = true;
    std::wstring commandLine;
    EXPECT_CALL(*advapi32_, CreateServiceW_Reduced).Times(0);
    EXPECT_CALL(*advapi32_, ChangeServiceConfigW).WillRepeatedly(Return(TRUE));
    EXPECT_CALL(*advapi32_, ChangeServiceConfigW(_, SERVICE_NO_CHANGE, SERVICE_AUTO_START, _,
                                                 testing::NotNull(), _, _, _, _, _, _))
        .WillOnce([&](SC_HANDLE, DWORD, DWORD, DWORD, const wchar_t* path, auto&&...) {
            commandLine = path;
            return TRUE;
        });
    EXPECT_CALL(*advapi32_, ChangeServiceConfig2W(_, SERVICE_CONFIG_DESCRIPTION, _)).WillOnce(Return(TRUE));
    EXPECT_CALL(*advapi32_, ChangeServiceConfig2W(_, testing::Ne(DWORD{SERVICE_CONFIG_DESCRIPTION}), _))
        .WillRepeatedly(Return(TRUE));
    EXPECT_EQ(control_.Update(options), ExitCode::kSuccess);
    EXPECT_EQ(commandLine, host::CommandLineOf(options));
    ::DeleteFileW(options.log.c_str());
}

TEST_F(Control, UpdateThatTheSystemRefusesIsTold) {
    Options options = WithPlugIn();
    options.log = L"C:\\windows\\temp\\service_control_test.log";
    ON_CALL(*advapi32_, ChangeServiceConfigW).WillByDefault(FailWith(ERROR_ACCESS_DENIED, FALSE));
    EXPECT_EQ(control_.Update(options), ExitCode::kNoRights);
    ON_CALL(*advapi32_, OpenServiceW).WillByDefault(FailWith(ERROR_SERVICE_DOES_NOT_EXIST, kNone));
    EXPECT_EQ(control_.Update(options), ExitCode::kNotInstalled);
    ::DeleteFileW(options.log.c_str());
}
