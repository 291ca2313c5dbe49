#include "metrics_text.h"

#include <gtest/gtest.h>

using tessactl::Exposition;
using tessactl::SampleLine;

TEST(MetricsText, SampleHasItsLabelsAndValue) {
    EXPECT_EQ(SampleLine("tessaplug_dumps", {}, 3), "tessaplug_dumps 3");
    EXPECT_EQ(SampleLine("a", {{"b", "c d"}, {"e", ""}}, 0.25), "a{b=\"c d\",e=\"\"} 0.25");
}

TEST(MetricsText, TimesAndSizesAreWholeNumbers) {
    EXPECT_EQ(SampleLine("a", {}, 1795308463), "a 1795308463");
    EXPECT_EQ(SampleLine("a", {}, 108e9), "a 108000000000");
}

TEST(MetricsText, HostileLabelsStayOneLabelOfOneLine) {
    EXPECT_EQ(SampleLine("a", {{"b", "\"} 1\nc\\"}}, 1), R"(a{b="\"} 1\nc\\"} 1)");
    EXPECT_EQ(SampleLine("a", {{"b", "x\r\x1b[2J\ty"}}, 1), "a{b=\"x??[2J?y\"} 1");
    EXPECT_EQ(SampleLine("a", {{"b", "\xC3\xA4"}}, 1), "a{b=\"\xC3\xA4\"} 1") << "UTF-8 stays";
}

TEST(MetricsText, SamplesOfAMetricStandTogetherBehindItsHelpAndType) {
    Exposition metrics;
    EXPECT_TRUE(metrics.Add("tessaplug_dumps 1"));
    EXPECT_TRUE(metrics.Add("tessaplug_source_up{source=\"a\"} 1"));
    EXPECT_TRUE(metrics.Add("tessaplug_dump_bytes 2"));
    EXPECT_TRUE(metrics.Add("tessaplug_source_up{source=\"b\"} 0"));
    EXPECT_EQ(metrics.Text(),
              "# HELP tessaplug_source_up Whether a source told everything; if not, metrics of it may be "
              "missing.\n"
              "# TYPE tessaplug_source_up gauge\n"
              "tessaplug_source_up{source=\"a\"} 1\n"
              "tessaplug_source_up{source=\"b\"} 0\n"
              "# HELP tessaplug_dumps Memory dumps of the plug-in.\n"
              "# TYPE tessaplug_dumps gauge\n"
              "tessaplug_dumps 1\n"
              "# HELP tessaplug_dump_bytes Size of these dumps together.\n"
              "# TYPE tessaplug_dump_bytes gauge\n"
              "tessaplug_dump_bytes 2\n");
}

TEST(MetricsText, WhatIsNoSampleOfAKnownMetricIsLeftOut) {
    Exposition metrics;
    for (const auto* line : {"", "# whole", "loading library...", "tessaplug_dumps", "tessaplug_dumps ",
                             "tessaplug_dumps 1x", "tessaplug_dumps_more 1", "node_load1 1"})
        EXPECT_FALSE(metrics.Add(line)) << line;
    EXPECT_EQ(metrics.Text(), "");
}
