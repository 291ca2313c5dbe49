#include "stop_limit.h"

#include <atomic>
#include <gtest/gtest.h>

#include "command.h"

using host::StopLimit;
using std::chrono::seconds;
using test_support::Eventually;

namespace {

struct Calls {
    std::atomic<int> reports = 0;
    std::atomic<int> ends = 0;

    StopLimit::Callback Report() {
        return [this] { ++reports; };
    }
    StopLimit::Callback GiveUp() {
        return [this] { ++ends; };
    }
};

}  // namespace

TEST(StopLimit, ReportsEachSecondAndThenGivesUp) {
    Calls calls;
    StopLimit limit(seconds(3), calls.Report(), calls.GiveUp());
    const ULONGLONG begin = ::GetTickCount64();
    limit.Begin();
    EXPECT_TRUE(Eventually([&] { return calls.ends == 1; }));
    EXPECT_GE(::GetTickCount64() - begin, 2900u);
    EXPECT_EQ(calls.reports, 2);
}

TEST(StopLimit, StopThatEndsInTimeIsNotGivenUp) {
    Calls calls;
    StopLimit limit(seconds(2), calls.Report(), calls.GiveUp());
    limit.Begin();
    EXPECT_TRUE(Eventually([&] { return calls.reports == 1; }));
    limit.End();
    EXPECT_EQ(::WaitForSingleObject(::GetCurrentThread(), 1500), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(calls.reports, 1);
    EXPECT_EQ(calls.ends, 0);
}

TEST(StopLimit, NothingIsCalledBeforeTheStop) {
    Calls calls;
    {
        StopLimit limit(seconds(1), calls.Report(), calls.GiveUp());
        EXPECT_EQ(::WaitForSingleObject(::GetCurrentThread(), 1500), static_cast<DWORD>(WAIT_TIMEOUT));
    }
    EXPECT_EQ(calls.reports, 0);
    EXPECT_EQ(calls.ends, 0);
}

TEST(StopLimit, EndWaitsForTheCallThatIsGoingOn) {
    std::atomic<bool> isIn = false;
    std::atomic<bool> isOut = false;
    const UniqueKernelHandle go(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    StopLimit limit(
        seconds(9),
        [&] {
            isIn = true;
            ::WaitForSingleObject(go.get(), 200);
            isOut = true;
        },
        [] {});
    limit.Begin();
    EXPECT_TRUE(Eventually([&] { return isIn.load(); }));
    limit.End();
    EXPECT_TRUE(isOut);
}
