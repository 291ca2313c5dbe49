#include "report_parts.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>

// The parts are asked of this program itself, which tells what report_parts_program.cpp says.
using tessactl::GatherParts;
using tessactl::Json;
using tessactl::kMostDumps;
using tessactl::kMostRecords;
using tessactl::ReportRequest;

namespace {

void TellNobody(std::size_t /*done*/, std::size_t /*all*/) {}

Json Parts(const std::wstring& service = L"my service",
           std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    ReportRequest request;
    request.service = service;
    request.plugIn = L"x.dll";
    request.recording = L"C:\\a b.etl";
    request.tmf = L"C:\\formats\\";
    request.dumps = L"C:\\some dumps\\";
    return GatherParts(request, std::chrono::steady_clock::now() + limit, &TellNobody);
}

Json Data(const Json& data) {
    return {{"data", data}};
}

Json Error(const std::string& why) {
    return {{"error", why}};
}

}  // namespace

TEST(ReportParts, AreAskedWithTheOptionsOfTheReportAndMayHaveANote) {
    const Json parts = Parts();
    EXPECT_EQ(parts["findings"],
              Data({"doctor", "--json", "--timeout", "5", "--service", "my service", "--plugin", "x.dll"}));
    EXPECT_EQ(parts["exceptions"],
              Data({"exceptions", "--json", "--service", "my service", "--plugin", "x.dll"}));
    EXPECT_EQ(parts["files"], Data({"report-part", "files", "--service", "my service", "--plugin", "x.dll"}));
    EXPECT_EQ(parts["recording"],
              Data({"report-part", "recording", "--recording", "C:\\a b.etl", "--tmf", "C:\\formats\\"}));
    EXPECT_EQ(parts["systemLog"], Data({"log", "--json", "--count", std::to_string(kMostRecords + 1), "--log",
                                        "System", "--source", "fenlu3"}));
    EXPECT_EQ(parts["recordingNow"],
              Json({{"data", {"trace", "status", "--json"}}, {"note", "something to note"}}));
}

TEST(ReportParts, ThatCannotBeHadTellWhyOnOneLine) {
    const Json parts = Parts(L"hangs", std::chrono::milliseconds(4900));
    EXPECT_EQ(parts["station"], Error("no station at all"));
    EXPECT_EQ(parts["components"], Error("the process that looked ended with 0x0000E0D5"));
    EXPECT_EQ(parts["service"], Error("no answer within 4 seconds"));
    EXPECT_EQ(parts["hostLog"], Error("not looked at: the other parts took all the time"))
        << "it would have been asked behind it";
    EXPECT_EQ(Parts()["hostLog"], Error("the process that looked ended with 0x00000000"))
        << "half of an answer";
}

TEST(ReportParts, HaveTheNewestRecordsOfALog) {
    const Json log = Parts()["applicationLog"];
    ASSERT_EQ(log["data"].size(), kMostRecords);
    EXPECT_EQ(log["data"].front(), 1);
    EXPECT_EQ(log["data"].back(), kMostRecords);
    EXPECT_EQ(log["note"], "There are more: these are the newest 2000.");
}

TEST(ReportParts, LookIntoTheNewestDumps) {
    const Json dumps = Parts()["dumps"];
    ASSERT_EQ(dumps["data"].size(), 7U);
    for (std::size_t i = 0; i < 7; ++i) {
        const Json& dump = dumps["data"][i];
        EXPECT_EQ(dump.contains("info"), i < kMostDumps);
        EXPECT_EQ(dump.contains("history"), i < kMostDumps);
    }
    const Json& last = dumps["data"][kMostDumps - 1];
    EXPECT_EQ(last["info"], Data({"dump", "info", "--json", "C:\\some folder\\5"}));
    EXPECT_EQ(last["history"], Data({"dump", "history", "--json", "C:\\some folder\\5"}));
    EXPECT_EQ(dumps["note"], "Only the newest 5 were looked into.");
}

TEST(ReportParts, AreNotLookedAtWhenThereIsNoTimeLeft) {
    const Json parts = GatherParts({}, std::chrono::steady_clock::now(), &TellNobody);
    EXPECT_EQ(parts.size(), 12U);
    for (const auto& [name, part] : parts.items())
        EXPECT_EQ(part, Error("not looked at: the other parts took all the time")) << name;
}
