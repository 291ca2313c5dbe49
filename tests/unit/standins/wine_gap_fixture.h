#pragma once

#include <gtest/gtest.h>

#include "wine_gap_loader.h"

/// Tests of what the stand-in adds to Wine, through the functions' imports of the program, as its users have
/// them.
class WineGap : public testing::Test {
  protected:
    static void SetUpTestSuite() { loaded_ = LoadWineGap(); }
    void SetUp() override { ASSERT_TRUE(loaded_); }
    static inline bool loaded_ = false;
};
