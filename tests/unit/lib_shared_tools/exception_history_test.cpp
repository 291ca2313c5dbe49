#include "exception_history.h"

#include <cstring>
#include <gtest/gtest.h>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>

#include "module_hooks.h"
#include "system_calls.h"
#include "trace_point.h"
#include "windows_api_excp.h"

TRACE_SOURCE("tests\\unit\\exception_history_test", "0f2b5f1e-9c4d-4f5a-8a57-6f1f0c9d1e02", trace::kModule);

using modul_exception::exceptionHistory;
using modul_exception::ExceptionRecord;
using modul_exception::RecordException;

namespace {

class ExceptionHistory : public testing::Test {
  protected:
    ExceptionHistory() {
        modul_exception::CleanupExceptionHistory();
        modul_exception::InitializeExceptionHistory();
    }
};

int constructions = 0;
struct CountedException : std::runtime_error {
    CountedException() : std::runtime_error("counted") { ++constructions; }
};

namespace device {
void Throw() {
    MODUL_THROW(std::runtime_error("thrown on purpose"));
}
}  // namespace device

}  // namespace

TEST_F(ExceptionHistory, SixthRecordOverwritesTheFirst) {
    for (unsigned int i = 1; i <= 6; ++i) {
        EXPECT_EQ(exceptionHistory.writeIndex, (i - 1) % 5);
        RecordException(std::runtime_error("number " + std::to_string(i)), "e", "f", "g", i);
    }
    EXPECT_EQ(exceptionHistory.writeIndex, 1u);
    EXPECT_STREQ(exceptionHistory.records[0].what, "number 6");
    EXPECT_STREQ(exceptionHistory.records[1].what, "number 2");
    EXPECT_EQ(exceptionHistory.records[0].line, 6u);
}

TEST_F(ExceptionHistory, RecordTellsWhoThrewWhatAndWhen) {
    const std::runtime_error error("what it says");

    RecordException(error, "expression", "folder\\src\\name", "space::Class::Method", 77);

    const ExceptionRecord& record = exceptionHistory.records[0];
    EXPECT_EQ(record.threadId, ::GetCurrentThreadId());
    EXPECT_EQ(record.line, 77u);
    EXPECT_EQ(record.exception, &error);
    EXPECT_TRUE(std::regex_match(record.timeStamp, std::regex(R"(\d\d\.\d\d\.\d{4};\d\d:\d\d:\d\d:\d\d\d)")))
        << record.timeStamp;
    EXPECT_STREQ(record.expression, "expression");
    EXPECT_STREQ(record.what, "what it says");
    EXPECT_STREQ(record.file, "name");
    EXPECT_STREQ(record.function, "space::Class::Method");
}

TEST_F(ExceptionHistory, RecordHasTheTimeInUtcAndTheProcessor) {
    const test_support::SystemCallsOfTest systemCalls;
    test_support::systemCalls.getSystemTime = [](SYSTEMTIME* time) { *time = {2026, 2, 1, 3, 4, 5, 6, 7}; };
    test_support::systemCalls.getLocalTime = [](SYSTEMTIME* time) { *time = {2027, 8, 1, 9, 9, 9, 9, 9}; };
    test_support::systemCalls.getCurrentProcessorNumber = []() -> DWORD { return 61; };

    RecordException(std::runtime_error("what"), "e", "f", "g", 1);

    EXPECT_STREQ(exceptionHistory.records[0].timeStamp, "03.02.2026;04:05:06:007");
    EXPECT_EQ(exceptionHistory.records[0].processorNumber, 61u);
}

TEST_F(ExceptionHistory, RecordIsWrittenUnderTheLock) {
    const test_support::SystemCallsOfTest systemCalls;
    static ULONG_PTR owner = 0;
    test_support::systemCalls.getSystemTime = [](SYSTEMTIME*) {
        owner = reinterpret_cast<ULONG_PTR>(exceptionHistory.lock.OwningThread);
    };
    RecordException(std::runtime_error("what"), "e", "f", "g", 1);
    EXPECT_EQ(owner, ::GetCurrentThreadId());
    EXPECT_EQ(exceptionHistory.lock.OwningThread, nullptr) << "and the lock is released";
}

TEST_F(ExceptionHistory, RecordLeavesNothingOfTheOneBefore) {
    const std::string longText(60, 't');
    for (int i = 0; i < 5; ++i)
        RecordException(std::runtime_error(longText), longText.c_str(), longText.c_str(), longText.c_str(),
                        1);

    RecordException(std::runtime_error("x"), nullptr, nullptr, nullptr, 2);

    const ExceptionRecord& record = exceptionHistory.records[0];
    EXPECT_STREQ(record.expression, "");
    EXPECT_STREQ(record.file, "");
    EXPECT_STREQ(record.function, "");
    EXPECT_EQ(std::string(record.what, sizeof record.what), "x" + std::string(sizeof record.what - 1, '\0'));
}

TEST_F(ExceptionHistory, TextsAreCutToFit) {
    const std::string longText(500, 't');

    RecordException(std::runtime_error(longText), longText.c_str(), longText.c_str(), longText.c_str(), 1);

    const ExceptionRecord& record = exceptionHistory.records[0];
    EXPECT_EQ(std::strlen(record.what), 255u);
    EXPECT_EQ(std::strlen(record.expression), 63u);
    EXPECT_EQ(std::strlen(record.file), 63u);
    EXPECT_EQ(std::strlen(record.function), 63u);
}

TEST_F(ExceptionHistory, MissingTextsStayEmpty) {
    RecordException(std::runtime_error(""), "stale", "stale", "stale", 1);
    for (int i = 0; i < 4; ++i)
        RecordException(std::runtime_error(""), nullptr, nullptr, nullptr, 1);
    RecordException(std::runtime_error(""), nullptr, nullptr, nullptr, 1);
    EXPECT_STREQ(exceptionHistory.records[0].expression, "");
    EXPECT_STREQ(exceptionHistory.records[0].file, "");
    EXPECT_STREQ(exceptionHistory.records[0].function, "");
}

TEST_F(ExceptionHistory, ThrowFilesTheExpressionItsFileAndFunction) {
    EXPECT_THROW(device::Throw(), std::runtime_error);

    const ExceptionRecord& record = exceptionHistory.records[0];
    EXPECT_EQ(exceptionHistory.writeIndex, 1u);
    EXPECT_STREQ(record.expression, "std::runtime_error(\"thrown on purpose\")");
    EXPECT_STREQ(record.what, "thrown on purpose");
    EXPECT_STREQ(record.file, "exception_history_test");
    EXPECT_STREQ(record.function, "(anonymous namespace)::device::Throw");
}

TEST_F(ExceptionHistory, ThrownInstanceIsNotTheFiledOne) {
    constructions = 0;
    try {
        MODUL_THROW(CountedException());
    } catch (const CountedException& error) {
        EXPECT_NE(exceptionHistory.records[0].exception, &error);
    }
    EXPECT_EQ(constructions, 2);
}

TEST_F(ExceptionHistory, BothInstancesSeeTheLastErrorOfTheThrow) {
    std::string thrown;
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    try {
        MODUL_THROW(modul_exception::CWindowsApiExcp("Call()", "hint"));
    } catch (const modul_exception::CWindowsApiExcp& error) {
        thrown = error.what();
    }
    EXPECT_TRUE(thrown.starts_with("FAILED! Call()! LE(2): ")) << thrown;
    EXPECT_EQ(thrown, exceptionHistory.records[0].what);
}

TEST_F(ExceptionHistory, ThreadsFileTheirExceptionsWhole) {
    const auto record = [](const char* text) {
        for (int i = 0; i < 10000; ++i)
            RecordException(std::runtime_error(text), text, text, text, 1);
    };
    std::thread other(record, "AAAAAAAA");
    record("BBBBBBBB");
    other.join();
    for (const ExceptionRecord& filed : exceptionHistory.records) {
        EXPECT_STREQ(filed.what, filed.expression);
        EXPECT_STREQ(filed.what, filed.function);
    }
    EXPECT_EQ(exceptionHistory.writeIndex, 20000u % 5);
}
