#include "progress.h"

#include <chrono>
#include <gtest/gtest.h>
#include <string>

using std::chrono::milliseconds;
using tessactl::Progress;

namespace {

/// A terminal, and a clock that goes on when it is told to.
class ProgressLine : public testing::Test {
  protected:
    Progress OnTerminal() {
        return Progress([this](const std::string& text) { written_ += text; }, [this] { return now_; });
    }
    void Pass(int time) { now_ += milliseconds(time); }

    std::string written_;
    Progress::Clock::time_point now_;
};

}  // namespace

TEST_F(ProgressLine, WhatIsQuickTellsNothing) {
    {
        Progress progress = OnTerminal();
        progress.Tell("10 %");
        Pass(999);
        progress.Tell("90 %");
    }
    EXPECT_EQ(written_, "");
}

TEST_F(ProgressLine, IsRewrittenInItsPlaceAndWipedAtTheEnd) {
    {
        Progress progress = OnTerminal();
        Pass(1000);
        progress.Tell("10 %");
        Pass(200);
        progress.Tell("90 %");
    }
    EXPECT_EQ(written_, "\r10 %\r90 %\r    \r");
}

TEST_F(ProgressLine, IsWrittenOnlyWhenItChangesAndNotTooOften) {
    Progress progress = OnTerminal();
    Pass(1000);
    progress.Tell("10 %");
    Pass(199);
    progress.Tell("11 %");
    Pass(1);
    progress.Tell("10 %");
    EXPECT_EQ(written_, "\r10 %");
    progress.Tell("12 %");
    EXPECT_EQ(written_, "\r10 %\r12 %");
}

TEST_F(ProgressLine, ShorterLineLeavesNothingOfALongerOne) {
    Progress progress = OnTerminal();
    Pass(1000);
    progress.Tell("long line");
    Pass(200);
    progress.Tell("short");
    EXPECT_EQ(written_, "\rlong line\rshort    ");
    progress.Wipe();
    EXPECT_EQ(written_, "\rlong line\rshort    \r     \r");
}

TEST_F(ProgressLine, WipedTwiceIsWipedOnce) {
    Progress progress = OnTerminal();
    Pass(1000);
    progress.Tell("line");
    progress.Wipe();
    progress.Wipe();
    EXPECT_EQ(written_, "\rline\r    \r");
}

TEST_F(ProgressLine, WithoutATerminalNothingIsWritten) {
    Progress progress(nullptr, [this] { return now_; });
    Pass(5000);
    progress.Tell("line");
    progress.Wipe();
}

TEST(ProgressTerminal, PipeIsNone) {
    // ctest reads what a test prints.
    EXPECT_FALSE(tessactl::ProgressTerminal(false));
}
