#include "limited_process.h"

#include <gtest/gtest.h>
#include <string>

#include "json.h"
#include "text.h"

// What this program does with such arguments stands in report_parts_program.cpp.
using tessactl::kMostOutput;
using tessactl::LimitedResult;
using tessactl::Quoted;
using tessactl::RunThisProgram;

namespace {

constexpr std::chrono::seconds kLong(30);

}  // namespace

TEST(LimitedProcess, GetsItsArgumentsWhateverIsInThem) {
    for (const auto* argument : {L"", L"a b", L"a\"b", L"\\", L"C:\\some folder\\", L"\\\\server\\\"",
                                 L"a\\\\\\\"b\\\\", L"\"", L"\u00e4 %PATH% ^ & 'x'"}) {
        const LimitedResult result = RunThisProgram(L"echo " + Quoted(argument) + L" end", kLong);
        EXPECT_EQ(result.output, tessactl::JsonText({"echo", tessactl::Utf8(argument), "end"}) + "\n");
    }
}

TEST(LimitedProcess, TellsHowItEnded) {
    const LimitedResult result = RunThisProgram(L"ends 7", kLong);
    EXPECT_TRUE(result.ended);
    EXPECT_EQ(result.exitCode, 7U);
}

TEST(LimitedProcess, MayWriteMoreThanAPipeHoldsToBothEnds) {
    const LimitedResult result = RunThisProgram(L"much", kLong);
    EXPECT_TRUE(result.ended);
    EXPECT_EQ(result.output, std::string(300'000, 'o'));
    EXPECT_EQ(result.errors, std::string(300'000, 'e'));
}

TEST(LimitedProcess, ThatHangsIsEndedAndWhatItSaidIsKept) {
    const std::wstring name = L"limited_process_test_" + std::to_wstring(::GetCurrentProcessId());
    const LimitedResult result = RunThisProgram(L"hangs " + name, std::chrono::milliseconds(700));
    EXPECT_FALSE(result.ended);
    EXPECT_EQ(result.output, "before");
    EXPECT_EQ(::OpenMutexW(SYNCHRONIZE, FALSE, name.c_str()), nullptr) << "it is gone";
}

TEST(LimitedProcess, ThatWritesWithoutEndIsReadUpToALimit) {
    const LimitedResult result = RunThisProgram(L"endless", std::chrono::seconds(2));
    EXPECT_FALSE(result.ended);
    EXPECT_LT(result.output.size(), kMostOutput + 0x10000);
}
