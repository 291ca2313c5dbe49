#include "several_commands.h"

#include <gtest/gtest.h>
#include <string>

#include "json.h"

// What this program does with such commands stands in report_parts_program.cpp.
using tessactl::LimitedResult;
using tessactl::RunTheseCommands;

namespace {

constexpr std::chrono::seconds kLong(30);

LimitedResult ResultOf(const std::optional<LimitedResult>& result) {
    EXPECT_TRUE(result.has_value());
    return result.value_or(LimitedResult{});
}

}  // namespace

TEST(SeveralCommands, EachHasItsOwnOutputsAndExitCode) {
    const auto results = RunTheseCommands({L"echo \"a b\" c", L"ends 7", L"trace x", L"much"}, kLong);
    ASSERT_EQ(results.size(), 4U);
    EXPECT_EQ(ResultOf(results[0]).output, tessactl::JsonText({"echo", "a b", "c"}) + "\n");
    EXPECT_EQ(ResultOf(results[0]).exitCode, 0U);
    EXPECT_TRUE(ResultOf(results[1]).ended);
    EXPECT_EQ(ResultOf(results[1]).exitCode, 7U);
    EXPECT_EQ(ResultOf(results[1]).output, "");
    EXPECT_EQ(ResultOf(results[2]).errors, "tessactl: something to note\r\n");
    EXPECT_EQ(ResultOf(results[3]).output, std::string(300'000, 'o'));
    EXPECT_EQ(ResultOf(results[3]).errors, std::string(300'000, 'e'));
}

TEST(SeveralCommands, OneThatEndsTheProcessCostsNothingElse) {
    const auto results =
        RunTheseCommands({L"ends 7", L"report-part components", L"echo", L"report-part components"}, kLong);
    ASSERT_EQ(results.size(), 4U);
    EXPECT_EQ(ResultOf(results[0]).exitCode, 7U);
    for (const std::size_t ended : {1U, 3U}) {
        EXPECT_TRUE(ResultOf(results[ended]).ended);
        EXPECT_EQ(ResultOf(results[ended]).exitCode, 0xE0D5U);
    }
    EXPECT_EQ(ResultOf(results[2]).output, "[\"echo\"]\n") << "in another process";
}

TEST(SeveralCommands, OneThatHangsTakesTheTimeOfThoseBehindIt) {
    const auto results = RunTheseCommands({L"echo", L"hangs", L"echo"}, std::chrono::seconds(2));
    ASSERT_EQ(results.size(), 3U);
    EXPECT_TRUE(ResultOf(results[0]).ended);
    EXPECT_EQ(ResultOf(results[0]).exitCode, 0U);
    EXPECT_EQ(ResultOf(results[0]).output, "[\"echo\"]\n");
    EXPECT_FALSE(ResultOf(results[1]).ended);
    EXPECT_EQ(ResultOf(results[1]).output, "before");
    EXPECT_FALSE(results[2].has_value());
}

TEST(SeveralCommands, OneThatWritesWhatMarksAnEndIsNotTakenForMany) {
    const auto results = RunTheseCommands({L"marks"}, kLong);
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(ResultOf(results[0]).exitCode, 3U);
}

TEST(SeveralCommands, NoneAreRunAtOnce) {
    EXPECT_TRUE(RunTheseCommands({}, kLong).empty());
}
