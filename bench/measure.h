#pragma once

#include <chrono>
#include <functional>
#include <vector>

/// Times, and how they are compared and printed.
namespace bench {

using Clock = std::chrono::steady_clock;

inline constexpr int kRounds = 31;

/// @param percent 0 to 100; 50 is the median
double Percentile(std::vector<double> values, int percent);
double Median(const std::vector<double>& values);

/// Nanoseconds of one call, the mean of `calls`.
double NanosecondsOf(int calls, const std::function<void()>& call);
double MillisecondsOf(const std::function<void()>& call);

/// What the plug-in and its bare counterpart needed, round by round.
struct Comparison {
    std::vector<double> measured;
    std::vector<double> bare;

    void Add(double measuredTime, double bareTime);
};

/// Has both sides take turns, and take turns in being first, so that what else the machine does meets both.
/// @param measured, bare one round each; they return its time
Comparison Alternate(const std::function<double()>& measured, const std::function<double()>& bare,
                     int rounds = kRounds);

void Print(const char* what, double value, const char* unit);
/// Prints both medians and the ratio: the median of the rounds' ratios, with its 10th and 90th percentile.
void Print(const char* bareWhat, const char* what, const char* unit, const Comparison& times);

}  // namespace bench
