#include "metrics_answer.h"

#include <gtest/gtest.h>
#include <string>

using tessactl::EndOfSource;
using tessactl::Exposition;
using tessactl::PartnerAnswer;
using Told = tessactl::PartnerAnswer::Told;

namespace {

constexpr char kDumps[] = "tessaplug_dumps 1";
constexpr char kExceptions[] = "tessaplug_recent_exceptions 2";

/// What is printed of a source and of the one behind it.
std::string Printed(const std::string& end, const std::string& endOfNext = "") {
    return std::string(kDumps) + "\r\n" + end + "\r\n" + kExceptions + "\r\n" + endOfNext;
}

bool Has(const Exposition& metrics, const std::string& sample) {
    return metrics.Text().find("\n" + sample + "\n") != std::string::npos;
}

}  // namespace

TEST(MetricsAnswer, EachSourceGetsItsOwnSamples) {
    PartnerAnswer answer(Printed(EndOfSource("a", true), EndOfSource("b", true) + "\r\n"));
    Exposition metrics;
    EXPECT_EQ(answer.AddTo(metrics, "a"), Told::kAll);
    EXPECT_TRUE(Has(metrics, kDumps));
    EXPECT_FALSE(Has(metrics, kExceptions)) << "that is the next one's";
    EXPECT_EQ(answer.AddTo(metrics, "b"), Told::kAll);
    EXPECT_TRUE(Has(metrics, kExceptions));
}

TEST(MetricsAnswer, WhatTheFirstSourceToldStaysWhenTheNextOneHangs) {
    PartnerAnswer answer(Printed(EndOfSource("a", true)));
    Exposition metrics;
    EXPECT_EQ(answer.AddTo(metrics, "a"), Told::kAll);
    EXPECT_EQ(answer.AddTo(metrics, "b"), Told::kUnfinished);
    EXPECT_TRUE(Has(metrics, kDumps));
    EXPECT_FALSE(Has(metrics, kExceptions)) << "it may be half of a number";
}

TEST(MetricsAnswer, NextSourceIsReadAlthoughTheFirstOneFailed) {
    PartnerAnswer answer(Printed(EndOfSource("a", false), EndOfSource("b", true)));
    Exposition metrics;
    EXPECT_EQ(answer.AddTo(metrics, "a"), Told::kPart);
    EXPECT_TRUE(Has(metrics, kDumps)) << "what it told before it failed is right";
    EXPECT_EQ(answer.AddTo(metrics, "b"), Told::kAll) << "a last line without an end";
    EXPECT_TRUE(Has(metrics, kExceptions));
}

TEST(MetricsAnswer, ProcessThatPrintedNothingHasNoSource) {
    PartnerAnswer nothing("");
    Exposition metrics;
    EXPECT_EQ(nothing.AddTo(metrics, "a"), Told::kUnfinished);
    EXPECT_EQ(PartnerAnswer().AddTo(metrics, "a"), Told::kUnfinished);
    EXPECT_EQ(metrics.Text(), "");
}
