#include "test_process.h"

#include <gtest/gtest.h>
#include <string>

#include "process_list.h"
#include "program_folder.h"

using kitrun::Judge;
using kitrun::ProcessResult;
using kitrun::RunLimited;
using kitrun::Verdict;

namespace {

ProcessResult Act(const std::wstring& arguments, DWORD seconds = 30, const std::string& environment = "") {
    const std::wstring folder = test_support::ProgramFolder();
    return RunLimited(L"\"" + folder + L"acts_as_a_test.exe\" " + arguments, folder, seconds, environment);
}

ProcessResult Ended(DWORD exitCode, const std::string& output) {
    ProcessResult result;
    result.exitCode = exitCode;
    result.output = output;
    return result;
}

}  // namespace

TEST(LimitedTest, ResultIsItsExitCodeAndItsOutput) {
    const ProcessResult failed = Act(L"fails");
    EXPECT_EQ(failed.exitCode, 1u);
    EXPECT_FALSE(failed.timedOut);
    EXPECT_TRUE(failed.output.starts_with("it is wrong on purpose\n")) << failed.output;
    EXPECT_EQ(Judge(failed), Verdict::kFailed);
    EXPECT_EQ(Judge(Act(L"passes")), Verdict::kPassed);
    EXPECT_EQ(Judge(Act(L"skips")), Verdict::kSkipped);
    EXPECT_EQ(Judge(Act(L"vanishes")), Verdict::kFailed) << "it ended with 0 and said nothing";
}

TEST(LimitedTest, ThatHangsIsEndedWithItsChildren) {
    const ULONGLONG start = ::GetTickCount64();
    const ProcessResult result = Act(L"hangs", 2);
    EXPECT_LT(::GetTickCount64() - start, 20000u);
    EXPECT_EQ(Judge(result), Verdict::kTimedOut);
    EXPECT_EQ(result.output, "it hangs on purpose\n") << "what it had said is kept";
    EXPECT_FALSE(test_support::ProcessRuns(L"acts_as_a_test.exe"));
}

TEST(LimitedTest, HasTheVariableOfItsListAndTheNextOneDoesNot) {
    EXPECT_TRUE(Act(L"prints KIT_VARIABLE", 30, "KIT_VARIABLE=a=b").output.starts_with("a=b\n"));
    EXPECT_TRUE(Act(L"prints KIT_VARIABLE").output.starts_with("nothing\n"));
}

TEST(LimitedTest, ThatCannotBeStartedHasFailed) {
    const ProcessResult result = RunLimited(L"\"no such program.exe\"", test_support::ProgramFolder(), 30);
    EXPECT_EQ(result.startError, static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(Judge(result), Verdict::kFailed);
}

TEST(LimitedTest, PassesOnlyIfItSaysSoAndEndsWell) {
    EXPECT_EQ(Judge(Ended(0, "[  PASSED  ] 12 tests.\n")), Verdict::kPassed);
    EXPECT_EQ(Judge(Ended(1, "[  PASSED  ] 1 test.\n")), Verdict::kFailed);
    EXPECT_EQ(Judge(Ended(0, "[  PASSED  ] 0 tests.\n")), Verdict::kFailed);
    EXPECT_EQ(Judge(Ended(0, "it has [  PASSED  ] 1 test.\n")), Verdict::kFailed)
        << "not on a line of its own";
    EXPECT_EQ(Judge(Ended(0, "")), Verdict::kFailed);
}
