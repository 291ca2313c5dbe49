#include "report_page.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using tessactl::Json;
using tessactl::LimitSize;
using tessactl::LimitTexts;
using tessactl::PageOf;
using tessactl::ScriptSafe;

namespace {

const std::string kHostile[] = {
    "</script><script>alert(1)</script>",
    "<!--<script>",
    "line\nend\r\n\t",
    "\xe2\x80\xae right to left \xe2\x80\x8f",
    "\xe2\x80\xa8\xe2\x80\xa9",
    "\"}]}; alert(1); //",
    "&lt;b&gt; & <b>",
    "{\"data\":0} /*SCRIPT*/",
};

TEST(ReportPage, HostileTextsAreNeitherHtmlNorAnythingBeyondAscii) {
    for (const std::string& text : kHostile) {
        const std::string safe = ScriptSafe({{"text", text}});
        EXPECT_EQ(safe.find_first_of("<>&\n\r"), std::string::npos) << safe;
        for (const char c : safe)
            EXPECT_TRUE(c >= ' ' && c < 0x7F) << safe;
        EXPECT_EQ(Json::parse(safe)["text"], text) << "and it is still the same text";
    }
}

TEST(ReportPage, BytesThatAreNoUtf8AreReplaced) {
    const std::string loneSurrogate = "a\xed\xa0\x80z";
    EXPECT_EQ(Json::parse(ScriptSafe(loneSurrogate)), "a\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbdz");
}

TEST(ReportPage, DataStandsInThePageAndIsNotSearchedForMarks) {
    const tessactl::PageParts parts = {
        "<style>/*STYLE*/</style><script>/*SCRIPT*/</script><p>{\"data\":0}</p>", "s{}", "run()"};
    EXPECT_EQ(PageOf(parts, {{"a", "/*SCRIPT*/ {\"data\":0}"}}),
              "<style>s{}</style><script>run()</script><p>{\"a\":\"/*SCRIPT*/ {\\\"data\\\":0}\"}</p>");
}

TEST(ReportPage, LongTextsAreCutBetweenCharacters) {
    Json json = {{"short", "1234"}, {"long", {"12345"}}, {"wide", "123\xc3\xa4"}, {"number", 7}};
    LimitTexts(json, 4);
    EXPECT_EQ(json, Json({{"short", "1234"}, {"long", {"1234..."}}, {"wide", "123..."}, {"number", 7}}));
}

TEST(ReportPage, TheLongestListLosesItsOldestUntilAllIsSmallEnough) {
    Json data = {{"small", {1, 2, 3}}, {"large", Json::array()}};
    for (int i = 0; i < 100'000; ++i)
        data["large"].push_back("record " + std::to_string(i));
    LimitSize(data, 100'000);
    EXPECT_LE(ScriptSafe(data).size(), 100'000U);
    EXPECT_EQ(data["small"], Json({1, 2, 3}));
    EXPECT_EQ(data["large"].back(), "record 99999");
    ASSERT_EQ(data["shortened"].size(), 1U);
    EXPECT_EQ(data["shortened"][0]["list"], "/large");
    EXPECT_EQ(data["shortened"][0]["lost"].get<std::size_t>() + data["large"].size(), 100'000U);
}

TEST(ReportPage, EachListThatWasShortenedIsTold) {
    const std::vector<std::string> texts(1000, "some text");
    Json data = {{"one", texts}, {"other", {{"inner", texts}}}};
    LimitSize(data, 2000);
    ASSERT_EQ(data["shortened"].size(), 2U);
    EXPECT_EQ(data["shortened"][0]["list"], "/one");
    EXPECT_EQ(data["shortened"][1]["list"], "/other/inner");
    EXPECT_EQ(data["shortened"][1]["lost"].get<std::size_t>() + data["other"]["inner"].size(), 1000U);
}

TEST(ReportPage, ShortListOfLongTextsIsShortenedBeforeALongOneOfShortTexts) {
    Json data = {{"many", Json::array()}, {"inner", {{"large", Json::array()}}}};
    for (int i = 0; i < 100; ++i)
        data["many"].push_back(i);
    for (int i = 0; i < 5; ++i)
        data["inner"]["large"].push_back(std::string(1000, 'x'));
    LimitSize(data, 4000);
    EXPECT_EQ(data["many"].size(), 100U);
    EXPECT_EQ(data["inner"]["large"].size(), 3U);
    EXPECT_EQ(data["shortened"], Json::array({{{"list", "/inner/large"}, {"lost", 2}}}));
}

TEST(ReportPage, WhatIsSmallEnoughStaysAndWhatHasNoListsComesToAnEnd) {
    Json data = {{"list", {1, 2, 3}}};
    LimitSize(data, 1000);
    EXPECT_EQ(data, Json({{"list", {1, 2, 3}}}));
    Json text = {{"text", std::string(2000, 'x')}};
    LimitSize(text, 1000);
    EXPECT_EQ(text["text"].get<std::string>().size(), 2000U);
}

}  // namespace
