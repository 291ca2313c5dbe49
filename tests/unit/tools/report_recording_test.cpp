#include "report_recording.h"

#include <gtest/gtest.h>
#include <string>

using tessactl::Json;
using tessactl::RecordedCalls;

namespace {

constexpr ULONG64 kMicrosecond = 10;
constexpr ULONG64 kBegin = 134000000000000000;  // some time that a recording can be of
constexpr unsigned int kEntry = 10;
constexpr unsigned int kExit = 11;

/// Feeds messages, one each 100 microseconds.
class Script {
  public:
    explicit Script(std::size_t mostCalls = 100, std::size_t mostWarnings = 100)
        : calls_(mostCalls, mostWarnings) {}
    Script& Enter(const std::string& function) {
        return Add(kEntry, {"function_trace", 5, "", {"f", function}, ""});
    }
    Script& Leave(const std::string& function) {
        return Add(kExit, {"function_trace", 5, "", {"f", function}, ""});
    }
    /// Of the messages that follow.
    Script& OnThread(DWORD thread) {
        thread_ = thread;
        return *this;
    }
    Script& Say(unsigned int level, const std::string& text) {
        return Add(kEntry, {"name", level, text, {}, ""});
    }
    Script& SayUnknown() { return Add(kEntry, {"", 0, "?", {}, ""}); }
    Json Finish() const { return calls_.Finish(); }

  private:
    Script& Add(unsigned int number, const tessactl::DecodedMessage& decoded) {
        now_ += 100 * kMicrosecond;
        calls_.Add({now_, 4, thread_, {}, number, {}}, decoded);
        return *this;
    }
    RecordedCalls calls_;
    DWORD thread_ = 5;
    ULONG64 now_ = kBegin;
};

TEST(RecordedCalls, NestWithTheirTimes) {
    const Json json = Script().Enter("a").Enter("b").Leave("b").Leave("a").Finish();
    EXPECT_EQ(json["functions"], Json({"a", "b"}));
    EXPECT_EQ(json["calls"], Json::parse("[[0,1,1,100.0,100.0],[0,0,0,0.0,300.0]]"));
    EXPECT_EQ(json["duration"], 300.0);
}

TEST(RecordedCalls, OfAnArrivalAndARemovalTheRoadIsTold) {
    const Json json = Script()
                          .Enter("tessaplug::DeviceNotifier::OnDeviceArrival")
                          .Leave("tessaplug::DeviceNotifier::OnDeviceArrival")
                          .Enter("tessaplug::DeviceNotifier::OnDeviceRemoval")
                          .Leave("tessaplug::DeviceNotifier::OnDeviceRemoval")
                          .Finish();
    ASSERT_EQ(json["roads"].size(), 2U);
    EXPECT_EQ(json["roads"][0]["road"], "arrival");
    EXPECT_EQ(json["roads"][1]["road"], "removal");
    EXPECT_EQ(json["roads"][1]["begin"], 200.0);
}

TEST(RecordedCalls, WhatWasEnteredBeforeTheRecordingStandsAboveAllElse) {
    const Json json = Script().Enter("inner").Leave("inner").Leave("outer").Finish();
    EXPECT_EQ(json["calls"], Json::parse("[[0,0,1,0.0,100.0],[0,1,0,0.0,200.0]]"));
}

TEST(RecordedCalls, WhatIsNotLeftLastsUntilTheEnd) {
    const Json json = Script().Enter("a").Say(4, "later").Finish();
    EXPECT_EQ(json["calls"], Json::parse("[[0,0,0,0.0,100.0]]"));
}

TEST(RecordedCalls, ArrivalThatHasNotEndedIsToldToo) {
    const Json json = Script().Enter("tessaplug::DeviceNotifier::OnDeviceArrival").Say(4, "later").Finish();
    ASSERT_EQ(json["roads"].size(), 1U);
    EXPECT_EQ(json["roads"][0]["duration"], 100.0);
}

TEST(RecordedCalls, WhoseExitWasLostEndWithTheirCaller) {
    const Json json =
        Script().Enter("outer").Enter("lost").Enter("lost too").Leave("outer").Enter("next").Finish();
    EXPECT_EQ(json["functions"], Json({"outer", "lost", "lost too", "next"}));
    EXPECT_EQ(json["calls"],
              Json::parse("[[0,2,2,200.0,100.0],[0,1,1,100.0,200.0],[0,0,0,0.0,300.0],[0,3,0,400.0,0.0]]"));
}

TEST(RecordedCalls, OfEachThreadStandByThemselvesAndItsFirstKnownFunctionTellsWhatItIsFor) {
    const Json json = Script()
                          .Enter("tessaplug_init")
                          .OnThread(6)
                          .Leave("toolbox::GuidToString")
                          .OnThread(5)
                          .Enter("tessaplug_service_ctrl_handler")
                          .Finish();
    EXPECT_EQ(json["threads"], Json::parse(R"([{"process":4,"thread":5,"role":"main"},)"
                                           R"({"process":4,"thread":6,"role":""}])"));
    EXPECT_EQ(json["calls"], Json::parse("[[1,1,0,0.0,100.0],[0,0,0,0.0,200.0],[0,2,1,200.0,0.0]]"));
}

TEST(RecordedCalls, BeginWithTheFirstMessage) {
    EXPECT_EQ(Script().Say(4, "first").Say(4, "second").Finish()["begins"],
              tessactl::TimeText(kBegin + 100 * kMicrosecond));
}

TEST(RecordedCalls, OnlyTheNewestAreKept) {
    Script script(3, 2);
    for (int i = 0; i < 10; ++i)
        script.Enter("f" + std::to_string(i)).Leave("f" + std::to_string(i)).Say(3, std::to_string(i));
    const Json json = script.Finish();
    EXPECT_EQ(json["calls"].size(), 3U);
    EXPECT_EQ(json["callsInAll"], 10);
    EXPECT_EQ(json["functions"][json["calls"][2][1].get<std::size_t>()], "f9");
    EXPECT_EQ(json["warnings"].size(), 2U);
    EXPECT_EQ(json["warnings"][1]["text"], "9");
}

TEST(RecordedCalls, WarningsAndErrorsAreToldAndUnknownMessagesCounted) {
    const Json json = Script().Say(2, "bad").Say(3, "odd").Say(4, "fine").SayUnknown().Finish();
    ASSERT_EQ(json["warnings"].size(), 2U);
    EXPECT_EQ(json["warnings"][0]["type"], "error");
    EXPECT_EQ(json["warnings"][1]["type"], "warning");
    EXPECT_EQ(json["unknownMessages"], 1);
}

TEST(RecordedCalls, AnEmptyRecordingHasNone) {
    const Json json = Script().Finish();
    EXPECT_EQ(json["calls"], Json::array());
    EXPECT_EQ(json["begins"], "");
}

}  // namespace
