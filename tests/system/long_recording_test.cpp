#include "long_recording.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

#include "watched_run.h"

// What a recording of many messages needs. A million may need 200 MB; these are fewer, for the time that it
// takes.
namespace {

constexpr std::size_t kMessages = 300'000;
constexpr SIZE_T kMost = SIZE_T{60} << 20;

const std::wstring kRecording = L"C:\\windows\\temp\\tessactl_long.etl";
const std::wstring kOutput = L"C:\\windows\\temp\\tessactl_long.out";

class LongRecording : public testing::Test {
  protected:
    LongRecording() { test_support::WriteLongRecording(kRecording, kMessages); }
    ~LongRecording() override {
        ::DeleteFileW(kRecording.c_str());
        ::DeleteFileW(kOutput.c_str());
    }
    static test_support::WatchedRun Run(const std::wstring& arguments) {
        return test_support::RunWatched(L"tessactl.exe " + arguments);
    }
    static std::string Output() {
        std::ifstream file(std::filesystem::path(kOutput), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static std::size_t Count(const std::string& text, const std::string& part) {
        std::size_t count = 0;
        for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
            ++count;
        return count;
    }
};

}  // namespace

TEST_F(LongRecording, IsDecodedInLittleMemory) {
    const auto run = Run(L"trace decode " + kRecording + L" --output " + kOutput);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_GT(run.largestWorkingSet, SIZE_T{1} << 20) << "of a program that ran";
    EXPECT_LT(run.largestWorkingSet, kMost);
    EXPECT_EQ(Count(Output(), "\n"), kMessages);
}

TEST_F(LongRecording, IsDecodedToAChromeTraceInLittleMemory) {
    const auto run = Run(L"trace decode --format chrome " + kRecording + L" --output " + kOutput);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_GT(run.largestWorkingSet, SIZE_T{1} << 20) << "of a program that ran";
    EXPECT_LT(run.largestWorkingSet, kMost);
    const std::string trace = Output();
    // The last call is not left in the recording, and closed.
    EXPECT_EQ(Count(trace, "\"ph\":\"B\"") + Count(trace, "\"ph\":\"E\"") + Count(trace, "\"ph\":\"i\""),
              kMessages + Count(trace, "not left when the recording ended"));
    EXPECT_TRUE(trace.starts_with("{\"traceEvents\":[\n{\"name\":\"thread_name\"")) << trace.substr(0, 200);
    EXPECT_TRUE(trace.ends_with("}\n]}\n"));
}

TEST_F(LongRecording, IsReportedWholeInLittleMemory) {
    const auto run = Run(L"report " + kOutput + L" --recording " + kRecording);
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_GT(run.processes, 5U) << "the parts' own";
    EXPECT_LT(run.largestWorkingSet, kMost);
    const std::string page = Output();
    EXPECT_EQ(Count(page, "\"messages\":" + std::to_string(kMessages) + ","), 1U);
    EXPECT_EQ(Count(page, "\"isCut\":false"), 1U);
}
