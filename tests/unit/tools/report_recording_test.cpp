#include "report_recording.h"

#include <gtest/gtest.h>
#include <string>

using tessactl::Json;
using tessactl::RecordedCalls;

namespace {

constexpr ULONG64 kMicrosecond = 10;
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
    Script& Say(unsigned int level, const std::string& text) {
        return Add(kEntry, {"name", level, text, {}, ""});
    }
    Script& SayUnknown() { return Add(kEntry, {"", 0, "?", {}, ""}); }
    Json Finish() const { return calls_.Finish(); }

  private:
    Script& Add(unsigned int number, const tessactl::DecodedMessage& decoded) {
        now_ += 100 * kMicrosecond;
        calls_.Add({now_, 4, 5, {}, number, {}}, decoded);
        return *this;
    }
    RecordedCalls calls_;
    ULONG64 now_ = 0;
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
