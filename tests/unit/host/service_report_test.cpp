#include "service_report.h"

#include <gtest/gtest.h>

#include "module_hooks.h"

using host::ServiceSettings;
using host::StatusAsJson;
using host::StatusAsText;

namespace {

SERVICE_STATUS_PROCESS Stopped() {
    SERVICE_STATUS_PROCESS status = {};
    status.dwCurrentState = SERVICE_STOPPED;
    status.dwWin32ExitCode = 1066;
    status.dwServiceSpecificExitCode = 2;
    status.dwCheckPoint = 3;
    status.dwProcessId = 4;
    return status;
}

ServiceSettings Complete() {
    ServiceSettings settings;
    settings.startType = SERVICE_AUTO_START;
    settings.delayedStart = true;
    settings.description = L"It \"runs\"";
    settings.dependencies = {L"EventLog", L"RpcSs"};
    settings.restartsAfter = {5000, 30000};
    settings.resetPeriod = 86400;
    settings.restartsOnError = false;
    settings.preshutdownTimeOut = 70000;
    settings.commandLine = L"\"C:\\a b\\x.exe\" run";
    return settings;
}

}  // namespace

TEST(StatusAsJson, HoldsStateAndSettings) {
    const std::string expected =
        R"j({"schema":1,"name":"n","state":"STOPPED","processId":4,"exitCode":1066,"serviceExitCode":2,)j"
        R"j("checkPoint":3,"startType":"automatic (delayed)","dependencies":["EventLog","RpcSs"],)j"
        R"j("restartAfterSeconds":[5,30],"restartResetSeconds":86400,"restartOnError":false,)j"
        R"j("preshutdownSeconds":70,"description":"It \"runs\"",)j"
        R"j("commandLine":"\"C:\\a b\\x.exe\" run"})j";
    EXPECT_EQ(StatusAsJson(L"n", Stopped(), Complete()), expected);
}

TEST(StatusAsJson, WhatIsNotToldIsNull) {
    const std::string expected =
        R"j({"schema":1,"name":"n","state":"UNKNOWN","processId":0,"exitCode":0,"serviceExitCode":0,)j"
        R"j("checkPoint":0,"startType":null,"dependencies":null,"restartAfterSeconds":null,)j"
        R"j("restartResetSeconds":null,"restartOnError":null,"preshutdownSeconds":null,)j"
        R"j("description":null,"commandLine":null})j";
    EXPECT_EQ(StatusAsJson(L"n", {}, {}), expected);
}

TEST(StatusAsJson, StartTypeOfADriverIsNotTold) {
    ServiceSettings settings;
    settings.startType = SERVICE_BOOT_START;
    EXPECT_NE(StatusAsJson(L"n", {}, settings).find("\"startType\":null,"), std::string::npos);
    EXPECT_NE(StatusAsText(L"n", {}, settings).find(L"start      not told by this system\n"),
              std::wstring::npos);
}

TEST(StatusAsJson, NameIsEscapedAndUtf8) {
    const std::string json = StatusAsJson(L"\"\\\n\x65E5", {}, {});
    EXPECT_TRUE(json.starts_with("{\"schema\":1,\"name\":\"\\\"\\\\\\n\xE6\x97\xA5\",")) << json;
}

TEST(StatusAsText, IsALineForEach) {
    EXPECT_EQ(StatusAsText(L"n", Stopped(), Complete()),
              L"service    n\n"
              L"state      STOPPED\n"
              L"process    4\n"
              L"exit code  1066 (its own: 2)\n"
              L"start      automatic (delayed)\n"
              L"depends on EventLog, RpcSs\n"
              L"restart    after 5 s, 30 s; counted anew after 86400 s without an error\n"
              L"  on error no, only after a crash\n"
              L"shutdown   waits for the stop, at most 70 s\n"
              L"about      It \"runs\"\n"
              L"runs       \"C:\\a b\\x.exe\" run\n");
}

TEST(StatusAsText, SaysWhatIsNotSetAndWhatIsNotTold) {
    ServiceSettings settings;
    settings.startType = SERVICE_DEMAND_START;
    settings.dependencies.emplace();
    settings.restartsAfter.emplace();
    const std::wstring text = StatusAsText(L"n", {}, settings);
    EXPECT_NE(text.find(L"start      manual\n"), std::wstring::npos);
    EXPECT_NE(text.find(L"depends on nothing\n"), std::wstring::npos);
    EXPECT_NE(text.find(L"restart    never\n"), std::wstring::npos);
    EXPECT_NE(text.find(L"shutdown   not told by this system\n"), std::wstring::npos);
}
