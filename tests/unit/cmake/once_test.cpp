#include <windows.h>

#include <atomic>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdexcept>
#include <thread>
#include <vector>

// What once.cpp, which is linked into this program as into every DLL, makes of first uses.
namespace {

std::atomic<int> made = 0;

/// Takes its time to be made, and fails at first if it is told to.
struct Slow {
    explicit Slow(bool& fails) {
        ::Sleep(50);
        if (fails) {
            fails = false;
            throw std::runtime_error("not this time");
        }
        ++made;
        value = 42;
    }
    int value = 0;
};

struct Nested {
    Nested() : value(Inner()) {}
    static int Inner() {
        static const int inner = ++made;
        return inner;
    }
    int value;
};

}  // namespace

TEST(Once, OneThreadMakesTheObjectAndTheOthersWaitForIt) {
    made = 0;
    std::atomic<int> right = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&right] {
            bool fails = false;
            static const Slow slow(fails);
            if (slow.value == 42) ++right;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(made, 1);
    EXPECT_EQ(right, 8);
}

TEST(Once, ObjectThatCouldNotBeMadeIsMadeByTheNextWhoComes) {
    made = 0;
    std::atomic<int> thrown = 0;
    bool fails = true;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            try {
                static const Slow slow(fails);
            } catch (const std::runtime_error&) {
                ++thrown;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(thrown, 1);
    EXPECT_EQ(made, 1);
}

TEST(Once, ObjectMayNeedAnotherOneToBeMade) {
    made = 0;
    static const Nested nested;
    EXPECT_EQ(nested.value, 1);
    EXPECT_EQ(made, 1);
}

namespace {

pthread_once_t once = PTHREAD_ONCE_INIT;
bool onceFails = true;

void MakeOnce() {
    const Slow slow(onceFails);
}

}  // namespace

TEST(Once, ThreadsThatComeAtOnceHaveOneOfThemMakeIt) {
    made = 0;
    EXPECT_THROW(::pthread_once(&once, &MakeOnce), std::runtime_error);
    std::vector<std::thread> threads;
    std::atomic<int> early = 0;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&early] {
            ::pthread_once(&once, &MakeOnce);
            if (made != 1) ++early;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(made, 1);
    EXPECT_EQ(early, 0);
}
