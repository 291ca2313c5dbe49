#include "measure.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>

namespace bench {

double Percentile(std::vector<double> values, int percent) {
    std::ranges::sort(values);
    return values[(values.size() - 1) * static_cast<std::size_t>(percent) / 100];
}

double Median(const std::vector<double>& values) {
    return Percentile(values, 50);
}

double NanosecondsOf(int calls, const std::function<void()>& call) {
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i)
        call();
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / calls;
}

double MillisecondsOf(const std::function<void()>& call) {
    const auto start = Clock::now();
    call();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void Comparison::Add(double measuredTime, double bareTime) {
    measured.push_back(measuredTime);
    bare.push_back(bareTime);
}

Comparison Alternate(const std::function<double()>& measured, const std::function<double()>& bare,
                     int rounds) {
    Comparison times;
    for (int round = 0; round < rounds; ++round) {
        if (round % 2 == 0) times.measured.push_back(measured());
        times.bare.push_back(bare());
        if (round % 2 != 0) times.measured.push_back(measured());
    }
    return times;
}

void Print(const char* what, double value, const char* unit) {
    std::printf("%-52s %10.2f %s\n", what, value, unit);
}

void Print(const char* bareWhat, const char* what, const char* unit, const Comparison& times) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < times.measured.size(); ++i)
        ratios.push_back(times.measured[i] / times.bare[i]);
    Print(bareWhat, Median(times.bare), unit);
    Print(what, Median(times.measured), unit);
    std::printf("%-52s %10.2f (%.2f to %.2f)\n\n", "  ratio", Median(ratios), Percentile(ratios, 10),
                Percentile(ratios, 90));
}

void PrintPoint(const char* what, const char* who, std::size_t size, const char* sizeUnit,
                const std::vector<double>& values, const char* unit) {
    std::printf("%-24s  %-12s  %6llu %-10s  %10.2f %-2s  %.2f to %.2f  %llu rounds\n", what, who, size,
                sizeUnit, Median(values), unit, Percentile(values, 10), Percentile(values, 90),
                values.size());
}

}  // namespace bench
