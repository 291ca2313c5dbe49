#include "service_settings.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>

#include "mock_advapi32.h"
#include "module_hooks.h"

using host::ApplySettings;
using host::Options;
using host::ReadSettings;
using host::ServiceSettings;
using host_test::FailWith;
using host_test::MockAdvapi32;
using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::NiceMock;
using testing::Optional;
using testing::Return;

namespace {

const SC_HANDLE kManager = reinterpret_cast<SC_HANDLE>(0x10);
const SC_HANDLE kService = reinterpret_cast<SC_HANDLE>(0x20);
const SC_HANDLE kEventLog = reinterpret_cast<SC_HANDLE>(0x30);

class Settings : public testing::Test {
  protected:
    Settings() {
        ON_CALL(advapi32_, OpenServiceW).WillByDefault(Return(kEventLog));
        ON_CALL(advapi32_, ChangeServiceConfigW).WillByDefault(Return(TRUE));
        ON_CALL(advapi32_, ChangeServiceConfig2W).WillByDefault(Return(TRUE));
        ON_CALL(advapi32_, QueryServiceConfigW).WillByDefault(FailWith(ERROR_ACCESS_DENIED, FALSE));
        ON_CALL(advapi32_, QueryServiceConfig2W)
            .WillByDefault([this](SC_HANDLE, DWORD level, BYTE* buffer, DWORD size, DWORD* needed) {
                const auto found = answers_.find(level);
                *needed = found == answers_.end() ? 0 : static_cast<DWORD>(found->second.size());
                if (*needed == 0 || size < *needed) {
                    ::SetLastError(*needed == 0 ? ERROR_INVALID_LEVEL : ERROR_INSUFFICIENT_BUFFER);
                    return FALSE;
                }
                std::memcpy(buffer, found->second.data(), *needed);
                return TRUE;
            });
    }
    /// What the system answers at a level.
    template <typename Information>
    void Answer(DWORD level, const Information& information) {
        const auto* bytes = reinterpret_cast<const BYTE*>(&information);
        answers_[level].assign(bytes, bytes + sizeof information);
    }
    std::vector<std::wstring> Apply(const Options& options = {}) {
        return ApplySettings(advapi32_, kManager, kService, options);
    }

    NiceMock<MockAdvapi32> advapi32_;
    std::map<DWORD, std::vector<BYTE>> answers_;
};

}  // namespace

TEST_F(Settings, RestartIsSetForFiveThirtyAndSixtySeconds) {
    EXPECT_CALL(advapi32_, ChangeServiceConfig2W(kService, _, _)).WillRepeatedly(Return(TRUE));
    EXPECT_CALL(advapi32_, ChangeServiceConfig2W(kService, SERVICE_CONFIG_FAILURE_ACTIONS, _))
        .WillOnce([](SC_HANDLE, DWORD, void* information) {
            const auto& failure = *static_cast<SERVICE_FAILURE_ACTIONSW*>(information);
            EXPECT_EQ(failure.dwResetPeriod, 86400u);
            EXPECT_EQ(failure.cActions, 3u);
            const DWORD delays[] = {5000, 30000, 60000};
            for (DWORD i = 0; i < 3; ++i) {
                EXPECT_EQ(failure.lpsaActions[i].Type, SC_ACTION_RESTART);
                EXPECT_EQ(failure.lpsaActions[i].Delay, delays[i]);
            }
            EXPECT_EQ(failure.lpCommand, nullptr);
            EXPECT_EQ(failure.lpRebootMsg, nullptr);
            return TRUE;
        });
    EXPECT_CALL(advapi32_, ChangeServiceConfig2W(kService, SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, _))
        .WillOnce([](SC_HANDLE, DWORD, void* information) {
            EXPECT_TRUE(
                static_cast<SERVICE_FAILURE_ACTIONS_FLAG*>(information)->fFailureActionsOnNonCrashFailures);
            return TRUE;
        });
    EXPECT_THAT(Apply(), IsEmpty());
}

TEST_F(Settings, TimeAtShutdownIsLongerThanAStopMayTake) {
    EXPECT_CALL(advapi32_, ChangeServiceConfig2W(kService, _, _)).WillRepeatedly(Return(TRUE));
    EXPECT_CALL(advapi32_, ChangeServiceConfig2W(kService, SERVICE_CONFIG_PRESHUTDOWN_INFO, _))
        .WillOnce([](SC_HANDLE, DWORD, void* information) {
            EXPECT_EQ(static_cast<SERVICE_PRESHUTDOWN_INFO*>(information)->dwPreshutdownTimeout, 55000u);
            return TRUE;
        });
    Options options;
    options.stopTimeOut = 45;
    Apply(options);
}

TEST_F(Settings, DelayOfAnEarlierInstallationIsTakenBack) {
    Answer(SERVICE_CONFIG_DELAYED_AUTO_START_INFO, SERVICE_DELAYED_AUTO_START_INFO{TRUE});
    EXPECT_CALL(advapi32_, ChangeServiceConfig2W).WillRepeatedly(Return(TRUE));
    EXPECT_CALL(advapi32_, ChangeServiceConfig2W(kService, SERVICE_CONFIG_DELAYED_AUTO_START_INFO, _))
        .WillOnce([](SC_HANDLE, DWORD, void* information) {
            EXPECT_FALSE(static_cast<SERVICE_DELAYED_AUTO_START_INFO*>(information)->fDelayedAutostart);
            return TRUE;
        });
    Apply();
}

TEST_F(Settings, StartIsDelayedOnlyIfAskedFor) {
    EXPECT_CALL(advapi32_, ChangeServiceConfig2W(kService, _, _)).WillRepeatedly(Return(TRUE));
    EXPECT_CALL(advapi32_, ChangeServiceConfig2W(kService, SERVICE_CONFIG_DELAYED_AUTO_START_INFO, _))
        .Times(0);
    Apply();
    EXPECT_CALL(advapi32_, ChangeServiceConfig2W(kService, SERVICE_CONFIG_DELAYED_AUTO_START_INFO, _))
        .WillOnce([](SC_HANDLE, DWORD, void* information) {
            EXPECT_TRUE(static_cast<SERVICE_DELAYED_AUTO_START_INFO*>(information)->fDelayedAutostart);
            return TRUE;
        });
    Options options;
    options.delayedStart = true;
    Apply(options);
}

TEST_F(Settings, DependencyOnTheEventLogIsSetAndNothingElseChanged) {
    EXPECT_CALL(advapi32_, OpenServiceW(kManager, testing::StrEq(L"EventLog"), _))
        .WillOnce(Return(kEventLog));
    EXPECT_CALL(advapi32_, CloseServiceHandle(kEventLog));
    EXPECT_CALL(advapi32_, ChangeServiceConfigW)
        .WillOnce([](SC_HANDLE service, DWORD type, DWORD start, DWORD errorControl, const wchar_t* path,
                     const wchar_t* group, DWORD* tag, const wchar_t* dependencies, const wchar_t* account,
                     const wchar_t* password, const wchar_t* displayName) {
            EXPECT_EQ(service, kService);
            for (const DWORD value : {type, start, errorControl})
                EXPECT_EQ(value, SERVICE_NO_CHANGE);
            for (const wchar_t* text : {path, group, account, password, displayName})
                EXPECT_EQ(text, nullptr);
            EXPECT_EQ(tag, nullptr);
            EXPECT_EQ(std::wstring(dependencies, 10), std::wstring(L"EventLog\0\0", 10)) << "two zeros";
            return TRUE;
        });
    EXPECT_THAT(Apply(), IsEmpty());
}

TEST_F(Settings, MissingEventLogServiceIsNoDependency) {
    ON_CALL(advapi32_, OpenServiceW).WillByDefault(FailWith(ERROR_SERVICE_DOES_NOT_EXIST, SC_HANDLE{}));
    EXPECT_CALL(advapi32_, ChangeServiceConfigW).Times(0);
    const auto refusals = Apply();
    ASSERT_EQ(refusals.size(), 1u);
    EXPECT_TRUE(
        refusals[0].starts_with(L"The system does without the dependency on the event-log service: "));
    EXPECT_TRUE(refusals[0].ends_with(L"(error 1060)."));
}

TEST_F(Settings, EveryRefusalIsASentenceAndTheOthersAreStillSet) {
    ON_CALL(advapi32_, ChangeServiceConfig2W).WillByDefault(FailWith(ERROR_INVALID_LEVEL, FALSE));
    ON_CALL(advapi32_, ChangeServiceConfigW).WillByDefault(FailWith(ERROR_ACCESS_DENIED, FALSE));
    Options options;
    options.delayedStart = true;
    const auto refusals = Apply(options);
    ASSERT_EQ(refusals.size(), 6u);
    const wchar_t* const things[] = {L"the description",
                                     L"the restart on failure",
                                     L"the restart after an end with an error",
                                     L"the time for a stop at shutdown",
                                     L"the delay of the automatic start",
                                     L"the dependency on the event-log service"};
    for (std::size_t i = 0; i < refusals.size(); ++i) {
        EXPECT_TRUE(refusals[i].starts_with(std::wstring(L"The system does without ") + things[i] + L": "));
        EXPECT_TRUE(refusals[i].ends_with(i == 5 ? L"(error 5)." : L"(error 124)."));
    }
}

TEST_F(Settings, AreReadBack) {
    wchar_t path[] = L"\"C:\\x.exe\" run";
    wchar_t dependencies[] = L"EventLog\0RpcSs\0";
    wchar_t text[] = L"what it is";
    ON_CALL(advapi32_, QueryServiceConfigW)
        .WillByDefault([&](SC_HANDLE, QUERY_SERVICE_CONFIGW* basics, DWORD size, DWORD* needed) {
            *needed = sizeof *basics;
            if (size < *needed) return FALSE;
            *basics = {};
            basics->dwStartType = SERVICE_AUTO_START;
            basics->lpBinaryPathName = path;
            basics->lpDependencies = dependencies;
            return TRUE;
        });
    SC_ACTION actions[] = {{SC_ACTION_RESTART, 7000}, {SC_ACTION_NONE, 1}, {SC_ACTION_RESTART, 9000}};
    Answer(SERVICE_CONFIG_FAILURE_ACTIONS, SERVICE_FAILURE_ACTIONSW{3600, nullptr, nullptr, 3, actions});
    Answer(SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, SERVICE_FAILURE_ACTIONS_FLAG{TRUE});
    Answer(SERVICE_CONFIG_DELAYED_AUTO_START_INFO, SERVICE_DELAYED_AUTO_START_INFO{TRUE});
    Answer(SERVICE_CONFIG_PRESHUTDOWN_INFO, SERVICE_PRESHUTDOWN_INFO{70000});
    Answer(SERVICE_CONFIG_DESCRIPTION, SERVICE_DESCRIPTIONW{text});

    const ServiceSettings settings = ReadSettings(advapi32_, kService);

    EXPECT_EQ(settings.startType, static_cast<DWORD>(SERVICE_AUTO_START));
    EXPECT_EQ(settings.commandLine, path);
    EXPECT_THAT(settings.dependencies, Optional(ElementsAre(L"EventLog", L"RpcSs")));
    EXPECT_THAT(settings.restartsAfter, Optional(ElementsAre(7000u, 9000u)));
    EXPECT_EQ(settings.resetPeriod, 3600u);
    EXPECT_EQ(settings.restartsOnError, true);
    EXPECT_EQ(settings.delayedStart, true);
    EXPECT_EQ(settings.preshutdownTimeOut, 70000u);
    EXPECT_EQ(settings.description, text);
}

TEST_F(Settings, WhatTheSystemDoesNotTellIsMissing) {
    const ServiceSettings settings = ReadSettings(advapi32_, kService);
    EXPECT_FALSE(settings.startType);
    EXPECT_FALSE(settings.commandLine);
    EXPECT_FALSE(settings.dependencies);
    EXPECT_FALSE(settings.restartsAfter);
    EXPECT_FALSE(settings.resetPeriod);
    EXPECT_FALSE(settings.restartsOnError);
    EXPECT_FALSE(settings.delayedStart);
    EXPECT_FALSE(settings.preshutdownTimeOut);
    EXPECT_FALSE(settings.description);
}
