#include "nearest.h"

#include <gtest/gtest.h>

using command_line::Nearest;

namespace {

const std::vector<std::string> kCommands = {"install", "uninstall", "start", "stop", "status", "log"};

}  // namespace

TEST(Nearest, FindsOneLetterMissingTooManyWrongOrExchanged) {
    EXPECT_EQ(Nearest("strt", kCommands), "start");
    EXPECT_EQ(Nearest("starrt", kCommands), "start");
    EXPECT_EQ(Nearest("stsrt", kCommands), "start");
    EXPECT_EQ(Nearest("strat", kCommands), "start");
}

TEST(Nearest, TakesTheNearestOfSeveral) {
    EXPECT_EQ(Nearest("unistall", kCommands), "uninstall");
    EXPECT_EQ(Nearest("stat", kCommands), "start");
}

TEST(Nearest, IsNothingIfNoneIsNear) {
    EXPECT_EQ(Nearest("foo", kCommands), "") << "shares a letter with log";
    EXPECT_EQ(Nearest("", kCommands), "");
    EXPECT_EQ(Nearest(std::string(100000, 's'), kCommands), "");
    EXPECT_EQ(Nearest("start", {}), "");
}

TEST(Nearest, DashesOfAnOptionAreNoLetters) {
    EXPECT_EQ(Nearest("--jsno", {"--json"}), "--json");
    EXPECT_EQ(Nearest("--xy", {"--json"}), "");
    EXPECT_EQ(Nearest("--abc", {"--xbz"}), "") << "two of three";
}
