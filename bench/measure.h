#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <vector>

/// Times, and how they are compared and printed.
namespace bench {

using Clock = std::chrono::steady_clock;

inline constexpr int kRounds = 31;
/// Of each point of a growing cost, where a station and its counterpart take turns.
inline constexpr int kGrowthTurns = 3;
inline constexpr int kGrowthRounds = 4;  // in a turn

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

/// Prints one point of a growing cost, of which scripts/growth_plots.py makes pictures: the median of its
/// rounds, with their 10th and 90th percentile. No text has a blank.
/// @param size of what it grows with, in `sizeUnit`
void PrintPoint(const char* what, const char* who, std::size_t size, const char* sizeUnit,
                const std::vector<double>& values, const char* unit);

}  // namespace bench
