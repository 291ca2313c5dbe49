#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "adapter_control.h"
#include "command.h"
#include "station_of_its_own.h"

// Every system call that the plug-in makes in one life fails once, each in a life of its own: see
// one_life.cpp. The regular run takes samples; TESSA_SWEEP=all takes all, and "malloc 90 99" these ten.
namespace {

using test_support::CommandResult;
using test_support::RunCommand;

constexpr DWORD kNotReached = 2;

struct Calls {
    std::string function;
    unsigned count;
};

/// A life in a process of its own. On a busy machine Wine now and then does not start a program, which says
/// nothing of the plug-in.
CommandResult Live(const std::wstring& arguments) {
    CommandResult life = RunCommand(L"one_life.exe" + arguments);
    for (int attempt = 1; attempt < 3 && life.output.starts_with("not started"); ++attempt)
        life = RunCommand(L"one_life.exe" + arguments);
    return life;
}

std::vector<Calls> CountedCalls(const std::string& output) {
    std::vector<Calls> all;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string kind;
        Calls calls;
        if (words >> kind >> calls.function >> calls.count && kind == "calls") all.push_back(calls);
    }
    return all;
}

/// The first, the last and some between, always the same.
std::set<unsigned> Sample(const Calls& calls) {
    const bool isMemory = calls.function == "malloc";
    const unsigned samples = isMemory ? 25 : 3;
    std::set<unsigned> numbers = {1, calls.count};
    constexpr unsigned kOfTheLoad = 8;  // where an exception would go into the loader
    for (unsigned i = 2; isMemory && i <= kOfTheLoad; ++i)
        numbers.insert(i);
    for (unsigned i = 0; i < samples; ++i)
        numbers.insert(1 + static_cast<unsigned>(ULONGLONG{i} * calls.count / samples));
    return numbers;
}

/// Calls of one function, as TESSA_SWEEP names them.
struct Range {
    std::string function;
    unsigned first = 0;
    unsigned last = 0;
};

std::optional<Range> WantedRange() {
    std::istringstream words(sweep::Wanted());
    Range range;
    if (words >> range.function >> range.first >> range.last) return range;
    return std::nullopt;
}

std::set<unsigned> NumbersToFail(const Calls& calls) {
    Range range = {calls.function, 1, calls.count};
    if (const auto wanted = WantedRange())
        range = *wanted;
    else if (!sweep::WantsAll())
        return Sample(calls);
    std::set<unsigned> numbers;
    for (unsigned number = range.first; range.function == calls.function && number <= range.last; ++number)
        numbers.insert(number);
    return numbers;
}

}  // namespace

TEST(FaultSweep, NoFailingCallBringsThePlugInDownOrLeavesAnythingBehind) {
    ASSERT_TRUE(sweep::Wanted().empty() || sweep::WantsAll() || WantedRange())
        << "TESSA_SWEEP is neither all nor a range such as malloc 90 99";
    const sweep::StationOfItsOwn station;
    station.Store().Delete(L"Fennlink U3.xli.1");  // the panel is to make it
    const sweep::AdaptersOfItsOwn adapters;
    adapter_control::Plug(*adapter_control::FindModel(L"NX4120"));

    const CommandResult sound = Live(L"");
    ASSERT_EQ(sound.exitCode, 0u) << sound.output;
    EXPECT_EQ(sound.output.find("unknown "), std::string::npos)
        << "a function that system_calls.cpp does not know\n"
        << sound.output;
    EXPECT_NE(sound.output.find("boxes 1 stops 2"), std::string::npos) << "the life is not whole\n"
                                                                       << sound.output;
    unsigned calls = 0;
    unsigned pairs = 0;
    unsigned notReached = 0;
    unsigned failures = 0;
    for (const Calls& function : CountedCalls(sound.output)) {
        calls += function.count;
        for (const unsigned number : NumbersToFail(function)) {
            const std::wstring name(function.function.begin(), function.function.end());
            const CommandResult life = Live(L" " + name + L" " + std::to_wstring(number));
            ++pairs;
            if (life.exitCode == kNotReached) ++notReached;
            if (life.exitCode == 0 || life.exitCode == kNotReached) continue;
            ++failures;
            ADD_FAILURE() << function.function << ", call " << number << " fails: " << life.output;
        }
    }
    std::printf("%u calls in a life; %u made to fail, %u of them not reached again; %u failures\n", calls,
                pairs, notReached, failures);
    EXPECT_GT(pairs, WantedRange() ? 0u : 150u);
    EXPECT_LE(notReached, pairs / 10) << "lives differ too much for this to mean anything";
}
