#include "thread_executor.h"

#include <atomic>
#include <gtest/gtest.h>
#include <new>
#include <regex>
#include <stdexcept>
#include <string>

#include "module_hooks.h"
#include "unique_handle.h"

using interprocess::StopFlag;

namespace {

/// What one body's functions did, and what they are to throw.
struct Body : interprocess::Executor<Body> {
    explicit Body(int argument) : Executor(argument) {}

    static void HandleThreadStart(int argument) {
        calls += "start " + std::to_string(argument) + "; ";
        wake = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        ended = false;
        if (throwAtStart) throw std::runtime_error("start");
    }
    static void RequestHandler(StopFlag stop) {
        flagAtStart = stop->load();
        started = true;
        ::WaitForSingleObject(wake, INFINITE);
        flagAtEnd = stop->load();
        ended = true;
    }
    static void HandleThreadStop() {
        calls += "stop; ";
        if (throwAtStop) throw std::runtime_error("stop");
        ::SetEvent(wake);
        if (throwOddlyAfterStop) throw 42;
    }
    static void HandleThreadEnd() {
        calls += ended ? "end of the thread; " : "end without the thread; ";
        ::CloseHandle(wake);
        if (throwAtEnd) throw std::runtime_error("end");
    }

    static inline std::string calls;
    static inline HANDLE wake = nullptr;
    static inline std::atomic<bool> started = false;
    static inline std::atomic<bool> flagAtStart = true;
    static inline std::atomic<bool> flagAtEnd = false;
    static inline std::atomic<bool> ended = false;
    static inline bool throwAtStart = false;
    static inline bool throwAtStop = false;
    static inline bool throwOddlyAfterStop = false;
    static inline bool throwAtEnd = false;
};

void ExpectAssertedOnce(const test_support::ModuleHooks& hooks) {
    ASSERT_EQ(hooks.Assertions().size(), 1u);
    EXPECT_EQ(hooks.Assertions()[0].expression, L"!\"EXCEPTION in DTOR!\"");
    EXPECT_EQ(hooks.Assertions()[0].sourcePath, L"lib_shared_tools\\inc\\thread_executor");
}

bool BecomesTrue(const std::atomic<bool>& value) {
    const ULONGLONG deadline = ::GetTickCount64() + 10000;
    while (!value && ::GetTickCount64() < deadline)
        ::Sleep(1);
    return value;
}

class Executor : public testing::Test {
  protected:
    Executor() {
        Body::calls.clear();
        Body::started = Body::flagAtEnd = Body::ended = false;
        Body::throwAtStart = Body::throwAtStop = Body::throwOddlyAfterStop = Body::throwAtEnd = false;
    }
    /// One whole life, with the thread seen to run.
    static void Live() {
        const Body body(7);
        EXPECT_TRUE(BecomesTrue(Body::started));
    }
};

}  // namespace

TEST_F(Executor, StartsStopsAndEndsInOrder) {
    Live();
    // The stop is repeated until the thread has ended.
    EXPECT_TRUE(std::regex_match(Body::calls, std::regex("start 7; (stop; )+end of the thread; ")))
        << Body::calls;
    EXPECT_FALSE(Body::flagAtStart) << "the thread is to run";
    EXPECT_TRUE(Body::flagAtEnd) << "the flag is set before the thread is woken";
}

TEST_F(Executor, StartThatFailsIsTheConstructorsFailure) {
    Body::throwAtStart = true;
    EXPECT_THROW(Body{1}, std::runtime_error);
    EXPECT_EQ(Body::calls, "start 1; ") << "nothing was started that could be stopped or ended";
}

TEST_F(Executor, StopThatFailsIsAssertedAndLeavesTheThreadItsThings) {
    const test_support::ModuleHooks hooks;
    Body::throwAtStop = true;
    Live();
    ExpectAssertedOnce(hooks);
    EXPECT_EQ(Body::calls, "start 7; stop; ");
    EXPECT_FALSE(Body::ended);
    ::SetEvent(Body::wake);  // the thread still waits for it
    EXPECT_TRUE(BecomesTrue(Body::ended));
}

TEST_F(Executor, StopThatFailsOddlyIsAsserted) {
    const test_support::ModuleHooks hooks;
    Body::throwOddlyAfterStop = true;
    Live();
    ExpectAssertedOnce(hooks);
    EXPECT_TRUE(BecomesTrue(Body::ended));
}

TEST_F(Executor, EndThatFailsIsAsserted) {
    const test_support::ModuleHooks hooks;
    Body::throwAtEnd = true;
    Live();
    ExpectAssertedOnce(hooks);
    EXPECT_TRUE(Body::ended);
}
