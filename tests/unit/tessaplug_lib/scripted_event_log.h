#pragma once

#include <windows.h>

#include <cstddef>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "event_record.h"
#include "evlog_check.h"
#include "exception_history.h"

/// The reader against a log whose answers are scripted.
namespace scripted_event_log {

using operating_system::EventLog;
using test_support::EventRecord;
using test_support::Joined;

using Bytes = std::vector<std::byte>;
using Journal = std::vector<std::string>;

/// What one ReadEventLogW does.
struct ReadResult {
    ReadResult(DWORD resultingError = ERROR_SUCCESS, DWORD resultingSize = 0, Bytes whatIsRead = {})
        : error(resultingError), size(resultingSize), records(std::move(whatIsRead)) {}

    DWORD error;
    DWORD size;     // bytes read, or bytes needed
    Bytes records;  // what is read, if it matters
};

inline constexpr DWORD kCppExceptionOfAnotherRunTime = 0xE06D7363;

[[gnu::noinline]] inline void ReadFromNull() {
    static_cast<void>(*static_cast<volatile int*>(nullptr));  // NOLINT: the fault is what is tested
}

/// A log whose answers the test writes.
class ScriptedLog : public windows_api::Advapi32 {
  public:
    explicit ScriptedLog(Journal& journal) : journal_(journal) {}

    HANDLE OpenEventLogW(const wchar_t* server, const wchar_t* source) override {
        EXPECT_EQ(server, nullptr);
        EXPECT_STREQ(source, L"System");
        journal_.push_back("open");
        RaiseIf("open");
        return refuseOpen ? Fail<HANDLE>(ERROR_ACCESS_DENIED, nullptr) : reinterpret_cast<HANDLE>(0x10);
    }
    BOOL CloseEventLog(HANDLE) override {
        journal_.push_back("close");
        RaiseIf("close");
        return refuseClose ? Fail(ERROR_INVALID_HANDLE, FALSE) : TRUE;
    }
    BOOL GetOldestEventLogRecord(HANDLE, DWORD* oldest) override {
        RaiseIf("oldest");
        *oldest = oldestRecord;
        return refuseOldest ? Fail(ERROR_INVALID_HANDLE, FALSE) : TRUE;
    }
    BOOL GetNumberOfEventLogRecords(HANDLE, DWORD* number) override {
        RaiseIf("count");
        *number = recordCount;
        return refuseCount ? Fail(ERROR_INVALID_HANDLE, FALSE) : TRUE;
    }
    BOOL ReadEventLogW(HANDLE, DWORD flags, DWORD offset, void* buffer, DWORD size, DWORD* read,
                       DWORD* needed) override {
        journal_.push_back("read " + std::to_string(flags) + " from " + std::to_string(offset) + " into " +
                           std::to_string(size));
        RaiseIf("read");
        if (reads.empty()) return Fail(ERROR_HANDLE_EOF, FALSE);
        const ReadResult result = reads.front();
        reads.pop_front();
        if (result.error != ERROR_SUCCESS) {
            *needed = result.size;
            return Fail(result.error, FALSE);
        }
        std::memset(buffer, 'r', result.size);
        *read = result.size;
        if (result.records.empty()) return TRUE;
        *read = static_cast<DWORD>(result.records.size());
        EXPECT_LE(*read, size);
        std::memcpy(buffer, result.records.data(), *read);
        return TRUE;
    }
    BOOL NotifyChangeEventLog(HANDLE, HANDLE) override {
        journal_.push_back("notify");
        RaiseIf("notify");
        return refuseNotify ? Fail(ERROR_INVALID_HANDLE, FALSE) : TRUE;
    }

    std::deque<ReadResult> reads;
    std::string raising;  // the call that raises what no C++ code of this tool chain catches
    bool raiseAccessViolation = false;
    DWORD oldestRecord = 5;
    DWORD recordCount = 3;
    bool refuseOpen = false;
    bool refuseClose = false;
    bool refuseOldest = false;
    bool refuseCount = false;
    bool refuseNotify = false;

  private:
    void RaiseIf(const std::string& call) const {
        if (call != raising) return;
        if (raiseAccessViolation) ReadFromNull();
        ::RaiseException(kCppExceptionOfAnotherRunTime, 0, 0, nullptr);
    }
    template <typename Result>
    static Result Fail(DWORD error, Result result) {
        ::SetLastError(error);
        return result;
    }
    Journal& journal_;
};

inline constexpr DWORD kChanged = WAIT_OBJECT_0 + 1;

/// Events that exist only here; waits end as the test says, then by being cancelled.
class ScriptedKernel32 : public windows_api::CKernel32 {
  public:
    explicit ScriptedKernel32(Journal& journal) : journal_(journal) {}

    HANDLE CreateEventW(SECURITY_ATTRIBUTES* security, BOOL manualReset, BOOL initialState,
                        const wchar_t* name) override {
        EXPECT_EQ(security, nullptr);
        EXPECT_FALSE(initialState);
        EXPECT_EQ(name, nullptr);
        journal_.push_back(manualReset ? "manual-reset event" : "auto-reset event");
        if (++created_ == refusedEvent) {
            ::SetLastError(ERROR_ACCESS_DENIED);
            return nullptr;
        }
        return reinterpret_cast<HANDLE>(static_cast<INT_PTR>(0x100 + created_));
    }
    DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD timeout) override {
        EXPECT_EQ(count, 2u);
        EXPECT_EQ(handles[0], reinterpret_cast<HANDLE>(0x101));
        EXPECT_EQ(handles[1], reinterpret_cast<HANDLE>(0x102));
        EXPECT_FALSE(waitAll);
        EXPECT_EQ(timeout, 5000u);
        journal_.push_back("wait");
        if (waits.empty()) return WAIT_OBJECT_0;
        const DWORD result = waits.front();
        waits.pop_front();
        ::SetLastError(ERROR_INVALID_HANDLE);
        return result;
    }
    BOOL ResetEvent(HANDLE event) override {
        EXPECT_EQ(event, reinterpret_cast<HANDLE>(0x102));
        journal_.push_back("reset");
        return refuseReset ? FALSE : TRUE;
    }
    BOOL SetEvent(HANDLE event) override {
        EXPECT_EQ(event, reinterpret_cast<HANDLE>(0x101));
        journal_.push_back("set");
        return FALSE;
    }
    BOOL CloseHandle(HANDLE) override {
        journal_.push_back("close event");
        return FALSE;
    }

    std::deque<DWORD> waits;
    int refusedEvent = 0;
    bool refuseReset = false;

  private:
    Journal& journal_;
    int created_ = 0;
};

inline const Journal kPositioning = {"read 6 from 7 into 512", "notify"};

class Reader : public testing::Test {
  protected:
    Reader() {
        auto advapi32 = std::make_unique<ScriptedLog>(journal_);
        auto kernel32 = std::make_unique<ScriptedKernel32>(journal_);
        system_ = advapi32.get();
        kernel32_ = kernel32.get();
        log_ = std::make_unique<EventLog>(L"System", std::move(advapi32), std::move(kernel32));
    }
    /// Opens the log, and lets a first read position it and be cancelled.
    void OpenAndPosition() {
        log_->Open();
        system_->reads.push_front({ERROR_SUCCESS, 100});
        EXPECT_TRUE(log_->BlockingRead().empty());
        journal_.clear();
    }

    /// Expects a read that returns nothing because of the failure of this text; of one that goes on with the
    /// system's own text this is the beginning.
    void ExpectFailedRead(const std::string& text) {
        const DWORD failedBefore = log_->FailedReads();
        EXPECT_TRUE(log_->BlockingRead().empty());
        EXPECT_EQ(log_->FailedReads(), failedBefore + 1);
        const std::string newest = NewestException().what;
        if (text.find("! LE(") == std::string::npos) {
            EXPECT_EQ(newest, text);
        } else {
            EXPECT_TRUE(newest.starts_with(text) && newest.ends_with(" Hint: \n")) << newest;
        }
    }
    static const modul_exception::ExceptionRecord& NewestException() {
        using modul_exception::exceptionHistory;
        return exceptionHistory.records[(exceptionHistory.writeIndex + 4) % 5];
    }

    /// Positions, and reads the two records behind record 7: 8 and 9.
    void ReadTwoRecords() {
        OpenAndPosition();
        system_->recordCount += 2;
        system_->reads = {{ERROR_SUCCESS, 0, Records({8, 9})}};
        kernel32_->waits = {kChanged};
        EXPECT_EQ(log_->BlockingRead(), Records({8, 9}));
        journal_.clear();
    }
    static Bytes Records(const std::vector<DWORD>& numbers) {
        std::vector<Bytes> records;
        for (const DWORD number : numbers) {
            EventRecord record;
            record.number = number;
            records.push_back(record.Bytes());
        }
        return Joined(records);
    }

    Journal journal_;
    ScriptedLog* system_ = nullptr;
    ScriptedKernel32* kernel32_ = nullptr;
    std::unique_ptr<EventLog> log_;
};

}  // namespace scripted_event_log
