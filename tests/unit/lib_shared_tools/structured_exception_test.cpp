#include "structured_exception.h"

#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>

#include "exception_history.h"

namespace {

using operating_system::CallForeign;
using operating_system::CallGuarded;
using operating_system::ForeignException;

constexpr DWORD kCppExceptionOfAnotherRunTime = 0xE06D7363;

[[gnu::noinline]] void WriteToNull() {
    *static_cast<volatile int*>(nullptr) = 0;  // NOLINT: the fault is what is tested
}

class StructuredException : public testing::TestWithParam<DWORD> {};

TEST_P(StructuredException, OfAnyCodeIsCaughtAndItsCodeReturned) {
    auto raise = [] { ::RaiseException(GetParam(), 0, 0, nullptr); };
    EXPECT_EQ(CallGuarded(raise), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Codes, StructuredException,
                         testing::Values(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_BREAKPOINT,
                                         EXCEPTION_GUARD_PAGE, EXCEPTION_SINGLE_STEP,
                                         EXCEPTION_INT_DIVIDE_BY_ZERO, 0x00001234u, 0xE0000001u,
                                         kCppExceptionOfAnotherRunTime, 0xC0000374u, 0xC06D007Eu));

TEST(StructuredException, BreakpointPassesAGuardThatLetsItPass) {
    using operating_system::Breakpoints;
    DWORD inner = 1;
    auto breakpoint = [] { ::DebugBreak(); };
    auto passing = [&] { inner = CallGuarded(breakpoint, Breakpoints::kPass); };
    EXPECT_EQ(CallGuarded(passing), EXCEPTION_BREAKPOINT);
    EXPECT_EQ(inner, 1u) << "it did not return";
    auto foreign = [&] { CallForeign(breakpoint, Breakpoints::kPass); };
    EXPECT_EQ(CallGuarded(foreign), EXCEPTION_BREAKPOINT);
    auto fault = [] { WriteToNull(); };
    EXPECT_EQ(CallGuarded(fault, Breakpoints::kPass), EXCEPTION_ACCESS_VIOLATION);
}

TEST(StructuredException, OfTheProcessorIsCaught) {
    auto fault = [] { WriteToNull(); };
    EXPECT_EQ(CallGuarded(fault), EXCEPTION_ACCESS_VIOLATION);
    auto breakpoint = [] { ::DebugBreak(); };
    EXPECT_EQ(CallGuarded(breakpoint), EXCEPTION_BREAKPOINT);
}

TEST(CallGuarded, GivesZeroWhenNothingIsRaised) {
    bool called = false;
    auto call = [&called] { called = true; };
    EXPECT_EQ(CallGuarded(call), 0u);
    EXPECT_TRUE(called);
}

TEST(CallGuarded, LeavesOwnExceptionsToCppSoThatFramesUnwind) {
    const auto alive = std::make_shared<int>(1);
    auto call = [&alive] {
        const auto held = std::make_shared<std::shared_ptr<int>>(alive);
        throw std::runtime_error("ours");
    };
    EXPECT_THROW(CallGuarded(call), std::runtime_error);
    EXPECT_EQ(alive.use_count(), 1);
}

TEST(CallForeign, ReturnsTheResult) {
    EXPECT_EQ(CallForeign([] { return 7; }), 7);
}

TEST(CallForeign, ThrowsWhatIsNoStandardException) {
    try {
        CallForeign([] { WriteToNull(); });
        FAIL() << "nothing was thrown";
    } catch (const std::exception&) {
        FAIL() << "a standard exception is handled where an unknown one must be asserted";
    } catch (const ForeignException& exception) {
        EXPECT_EQ(exception.code, EXCEPTION_ACCESS_VIOLATION);
    }
}

TEST(CallForeign, FilesTheCodeIntoTheExceptionHistory) {
    const auto index = modul_exception::exceptionHistory.writeIndex;
    EXPECT_THROW(CallForeign([]() -> int {
                     ::RaiseException(0xE0000042, 0, 0, nullptr);
                     return 0;
                 }),
                 ForeignException);
    EXPECT_STREQ(modul_exception::exceptionHistory.records[index].what, "Structured exception 0xE0000042");
}

TEST(Completes, OnlyIfTheCallReturns) {
    EXPECT_TRUE(operating_system::Completes([] {}));
    EXPECT_FALSE(operating_system::Completes([] { WriteToNull(); }));
    EXPECT_FALSE(operating_system::Completes([] { throw 42; }));
    EXPECT_FALSE(operating_system::Completes([] { throw std::runtime_error("ours"); }));
}

TEST(BreakIntoDebuggerDeathTest, EndsTheProcessThroughEveryGuard) {
    auto call = [] { operating_system::BreakIntoDebugger(); };
    EXPECT_DEATH(CallGuarded(call), "");
}

}  // namespace
