#include "error_handler.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "system_calls.h"
#include "trace_recorder.h"

using operating_system::MemoryDump;
using operating_system::SystemMessageBox;
using trace::ErrorHandler;

namespace {

struct Shown {
    std::wstring title;
    std::wstring message;
    DWORD style = 0;
};

/// A user with prepared answers.
class FakeBox : public SystemMessageBox {
  public:
    DWORD Show(const wchar_t* title, const wchar_t* message, DWORD style) override {
        const int open = ++open_;
        mostOpen = std::max(mostOpen.load(), open);
        shown.push_back({title, message, style});
        const auto action = meanwhile;  // which may replace itself
        action();
        DWORD answer = IDOK;
        if (!answers.empty()) {
            answer = answers.front();
            answers.pop_front();
        }
        --open_;
        if (raise != 0) ::RaiseException(raise, 0, 0, nullptr);
        if (fail) throw std::runtime_error("No Session is WTSActive");
        if (failOddly) throw 42;
        return answer;
    }
    std::vector<Shown> shown;
    std::deque<DWORD> answers;
    std::function<void()> meanwhile = [] {};
    bool fail = false;
    bool failOddly = false;
    DWORD raise = 0;
    std::atomic<int> mostOpen = 0;

  private:
    std::atomic<int> open_ = 0;
};

class FakeDump : public MemoryDump {
  public:
    bool Create(const std::wstring& name) override {
        names.push_back(name);
        if (raise != 0) ::RaiseException(raise, 0, 0, nullptr);
        return succeed;
    }
    std::wstring GetMemoryDumpAbsFileName() const override { return L"C:\\temp\\the.dmp"; }
    bool succeed = true;
    DWORD raise = 0;
    std::vector<std::wstring> names;
};

constexpr DWORD kForeignCodes[] = {EXCEPTION_ACCESS_VIOLATION, EXCEPTION_BREAKPOINT, 0xE06D7363};

class Handler : public testing::Test {
  protected:
    const test_support::SystemCallsOfTest systemCalls_;
    void Fail() { handler_.FatalError(L"a == b", L"folder\\src\\name", 77); }

    std::shared_ptr<FakeDump> dump_ = std::make_shared<FakeDump>();
    std::shared_ptr<FakeBox> box_ = std::make_shared<FakeBox>();
    ErrorHandler handler_{L"module.dll", L"Nov 21 2026 10:00:00", L"V1", dump_, box_};
};

}  // namespace

TEST_F(Handler, TellsTheUserWhatFailedWhere) {
    box_->answers = {IDIGNORE};
    Fail();
    ASSERT_EQ(box_->shown.size(), 1u);
    EXPECT_EQ(box_->shown[0].title, L"Fatal Error: module.dll !!!");
    EXPECT_EQ(
        box_->shown[0].message,
        L"ModulName: module.dll\nBuild Date: Nov 21 2026 10:00:00\nFile: folder\\src\\name\nLine: 77\n\n"
        L"a == b\n\n"
        L"Abort:\tdebugger gets invoked.\nRetry:\tcreate a memory dump.\nIgnore:\tcontinue with program.\n");
    EXPECT_EQ(box_->shown[0].style, 0x1112u);
    EXPECT_TRUE(dump_->names.empty());
}

TEST_F(Handler, RetryWritesADumpAndSaysWhere) {
    box_->answers = {IDRETRY};
    Fail();
    EXPECT_EQ(dump_->names, (std::vector<std::wstring>{L"module.dll"}));
    ASSERT_EQ(box_->shown.size(), 2u);
    EXPECT_EQ(box_->shown[1].title, L"Wrote Memory dump.");
    EXPECT_EQ(box_->shown[1].message, L"C:\\temp\\the.dmp");
    EXPECT_EQ(box_->shown[1].style, 0x40u);
}

TEST_F(Handler, OtherAnswersGoOn) {
    for (const DWORD answer : {0ul, 1ul, 6ul, 32000ul}) {
        box_->answers = {answer};
        Fail();
    }
    EXPECT_EQ(box_->shown.size(), 4u);
    EXPECT_TRUE(dump_->names.empty());
}

TEST_F(Handler, NothingEscapesIt) {
    box_->fail = true;
    EXPECT_NO_THROW(Fail());
    box_->fail = false;
    box_->failOddly = true;
    EXPECT_NO_THROW(Fail());
    box_->failOddly = false;
    Fail();
    EXPECT_EQ(box_->shown.size(), 3u) << "the lock is released each time";
}

TEST_F(Handler, StructuredExceptionOfTheBoxEndsNothingButTheBox) {
    for (const DWORD code : kForeignCodes) {
        box_->raise = code;
        EXPECT_NO_THROW(Fail()) << code;
    }
    box_->raise = 0;
    const auto before = box_->shown.size();
    Fail();
    EXPECT_EQ(box_->shown.size(), before + 1) << "the lock is released each time";
}

TEST_F(Handler, StructuredExceptionOfTheDumpEndsNothingButTheDump) {
    for (const DWORD code : kForeignCodes) {
        dump_->raise = code;
        box_->answers = {IDRETRY};
        EXPECT_NO_THROW(Fail()) << code;
    }
    const auto before = box_->shown.size();
    Fail();
    EXPECT_EQ(box_->shown.size(), before + 1) << "the lock is released each time";
}

TEST_F(Handler, MissingTextsAreShownAsNull) {
    handler_.FatalError(nullptr, nullptr, 0);
    ASSERT_EQ(box_->shown.size(), 1u);
    EXPECT_NE(box_->shown[0].message.find(L"\nFile: (null)\nLine: 0\n\n(null)\n\n"), std::wstring::npos);
}

TEST_F(Handler, WhatBecomesOfTheErrorIsTraced) {
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kSharedToolsGuid, trace::kInformation, trace::kMessage, 1);
    const auto tracedNumber = [this](DWORD answer) {
        box_->answers = {answer};
        Fail();
        const auto records = test_support::TakeTraceRecords();
        return records.size() == 1 ? records[0].number : -1;
    };
    EXPECT_EQ(tracedNumber(IDIGNORE), 12);
    EXPECT_EQ(tracedNumber(IDYES), 13);
    EXPECT_EQ(tracedNumber(IDRETRY), 15);
    box_->failOddly = true;
    EXPECT_EQ(tracedNumber(IDIGNORE), 11);
    box_->failOddly = false;
    test_support::EnableTracing(test_support::kSharedToolsGuid, trace::kError, trace::kMessage, 1);
    EXPECT_EQ(tracedNumber(IDIGNORE), 12) << "an error of level 2";
    EXPECT_EQ(tracedNumber(IDYES), 13) << "an error of level 2";
    EXPECT_EQ(tracedNumber(IDRETRY), -1) << "a dump that was written is information";
    box_->fail = true;
    box_->answers = {IDIGNORE};
    Fail();
    const auto records = test_support::TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].Text(0), "No Session is WTSActive");
}

TEST_F(Handler, ErrorWhileTheBoxIsOpenReturnsAtOnce) {
    box_->meanwhile = [this] {
        box_->meanwhile = [] {};
        Fail();
    };
    Fail();
    EXPECT_EQ(box_->shown.size(), 1u);
}

TEST_F(Handler, ErrorsOfSeveralThreadsAreShownOneAfterTheOther) {
    box_->meanwhile = [] { ::Sleep(50); };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([this] { Fail(); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(box_->shown.size(), 4u);
    EXPECT_EQ(box_->mostOpen, 1);
}

// Without a debugger the break ends the process: that is what Abort means.
TEST_F(Handler, AbortCallsTheDebugger) {
    box_->answers = {IDABORT};
    test_support::systemCalls.outputDebugStringA = [](const char* text) {
        std::fputs(text, stderr);
        std::fflush(stderr);
    };
    EXPECT_EXIT(Fail(), testing::ExitedWithCode(static_cast<int>(STATUS_BREAKPOINT)),
                "Try to trigger Debugger\n");
}

TEST_F(Handler, FailedDumpIsToldAndCallsTheDebugger) {
    dump_->succeed = false;
    box_->answers = {IDRETRY};
    const auto failAndReport = [this] {
        box_->meanwhile = [this] {
            if (box_->shown.back().title == L"Wrote Memory dump Failed!" && box_->shown.back().style == 0x10)
                std::fputs("told\n", stderr);
            std::fflush(stderr);
        };
        Fail();
    };
    EXPECT_EXIT(failAndReport(), testing::ExitedWithCode(static_cast<int>(STATUS_BREAKPOINT)), "told");
}
