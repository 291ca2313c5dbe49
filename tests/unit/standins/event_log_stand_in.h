#pragma once

#include <windows.h>

#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

#include "event_log_file.h"
#include "test_event_log.h"
#include "wine_gap_fixture.h"

namespace event_log_stand_in {

using test_support::EventLogSetting;

inline constexpr wchar_t kLog[] = L"StandInTest";
inline constexpr wchar_t kSource[] = L"StandInTestSource";
inline constexpr DWORD kForwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ;
inline constexpr DWORD kBackwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ;
inline constexpr DWORD kSeekForwards = EVENTLOG_SEEK_READ | EVENTLOG_FORWARDS_READ;
inline constexpr DWORD kSeekBackwards = EVENTLOG_SEEK_READ | EVENTLOG_BACKWARDS_READ;

/// The error of a call that has to fail; 0 if it does not.
inline DWORD ErrorOf(bool succeeded) {
    return succeeded ? ERROR_SUCCESS : ::GetLastError();
}

using Numbers = std::vector<DWORD>;

/// A log of its own for each test.
class EventLogOfTheTest : public WineGap {
  protected:
    void SetUp() override {
        WineGap::SetUp();
        OpenAgain();
    }
    ~EventLogOfTheTest() override { ::CloseEventLog(log_); }

    void OpenAgain() {
        if (log_ != nullptr) ::CloseEventLog(log_);
        log_ = ::OpenEventLogW(nullptr, kLog);
        ASSERT_NE(log_, nullptr);
    }
    static wine_gap::Event EventOf(const std::wstring& text) { return {L"test", 1, 0, 0x100, {text}, {}}; }
    void Append(DWORD count) const { EXPECT_EQ(file_.Append(std::vector(count, EventOf(L"text"))), 0u); }

    /// One read; the error is 0 if it succeeds.
    struct Result {
        DWORD error = 0;
        DWORD read = 0xDEADBEEF;
        DWORD needed = 0xDEADBEEF;
        std::vector<BYTE> buffer;
    };
    static Result ReadFrom(HANDLE log, DWORD flags, DWORD offset, DWORD size = 0x10000) {
        Result result;
        result.buffer.resize(size);
        result.error = ErrorOf(
            ::ReadEventLogW(log, flags, offset, result.buffer.data(), size, &result.read, &result.needed));
        return result;
    }
    /// Numbers of the records that one read delivers.
    Numbers Read(DWORD flags, DWORD offset = 0, DWORD size = 0x10000) {
        const Result result = ReadFrom(log_, flags, offset, size);
        Numbers numbers;
        for (DWORD at = 0; result.error == 0 && at < result.read;) {
            EVENTLOGRECORD record = {};
            std::memcpy(&record, result.buffer.data() + at, sizeof record);
            numbers.push_back(record.RecordNumber);
            at += record.Length;
        }
        return numbers;
    }
    DWORD Count() const {
        DWORD count = 0xDEADBEEF;
        ::GetNumberOfEventLogRecords(log_, &count);
        return count;
    }
    DWORD Oldest() const {
        DWORD oldest = 0xDEADBEEF;
        ::GetOldestEventLogRecord(log_, &oldest);
        return oldest;
    }

    const test_support::TestEventLog testLog_{kLog};
    const wine_gap::EventLogFile file_{kLog};
    HANDLE log_ = nullptr;
};

}  // namespace event_log_stand_in
