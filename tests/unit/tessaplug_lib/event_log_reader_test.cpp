#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "event_log_file.h"
#include "evlog_check.h"
#include "exception_history.h"
#include "module_hooks.h"
#include "text_of.h"
#include "windows_api_excp.h"
#include "wine_gap_loader.h"

// The reader against a log whose answers are scripted, and on a real log of its own.
namespace {

using modul_exception::CWindowsApiExcp;
using operating_system::EventLog;
using operating_system::EventLogFilterIf;
using operating_system::EventLogRecord;
using operating_system::EventRecordParser;
using operating_system::FilterChain;
using operating_system::UserMessage;
using test_support::TextOf;

using Bytes = std::vector<std::byte>;
using Journal = std::vector<std::string>;

/// What one ReadEventLogW does.
struct ReadResult {
    DWORD error = ERROR_SUCCESS;
    DWORD size = 0;  // bytes read, or bytes needed
};

/// A log whose answers the test writes.
class ScriptedLog : public windows_api::Advapi32 {
  public:
    explicit ScriptedLog(Journal& journal) : journal_(journal) {}

    HANDLE OpenEventLogW(const wchar_t* server, const wchar_t* source) override {
        EXPECT_EQ(server, nullptr);
        EXPECT_STREQ(source, L"System");
        journal_.push_back("open");
        return refuseOpen ? Fail<HANDLE>(ERROR_ACCESS_DENIED, nullptr) : reinterpret_cast<HANDLE>(0x10);
    }
    BOOL CloseEventLog(HANDLE) override {
        journal_.push_back("close");
        return refuseClose ? Fail(ERROR_INVALID_HANDLE, FALSE) : TRUE;
    }
    BOOL GetOldestEventLogRecord(HANDLE, DWORD* oldest) override {
        *oldest = oldestRecord;
        return refuseOldest ? Fail(ERROR_INVALID_HANDLE, FALSE) : TRUE;
    }
    BOOL GetNumberOfEventLogRecords(HANDLE, DWORD* number) override {
        *number = recordCount;
        return refuseCount ? Fail(ERROR_INVALID_HANDLE, FALSE) : TRUE;
    }
    BOOL ReadEventLogW(HANDLE, DWORD flags, DWORD offset, void* buffer, DWORD size, DWORD* read,
                       DWORD* needed) override {
        journal_.push_back("read " + std::to_string(flags) + " from " + std::to_string(offset) + " into " +
                           std::to_string(size));
        if (reads.empty()) return Fail(ERROR_HANDLE_EOF, FALSE);
        const ReadResult result = reads.front();
        reads.pop_front();
        if (result.error != ERROR_SUCCESS) {
            *needed = result.size;
            return Fail(result.error, FALSE);
        }
        std::memset(buffer, 'r', result.size);
        *read = result.size;
        return TRUE;
    }
    BOOL NotifyChangeEventLog(HANDLE, HANDLE) override {
        journal_.push_back("notify");
        return refuseNotify ? Fail(ERROR_INVALID_HANDLE, FALSE) : TRUE;
    }

    std::deque<ReadResult> reads;
    DWORD oldestRecord = 5;
    DWORD recordCount = 3;
    bool refuseOpen = false;
    bool refuseClose = false;
    bool refuseOldest = false;
    bool refuseCount = false;
    bool refuseNotify = false;

  private:
    template <typename Result>
    static Result Fail(DWORD error, Result result) {
        ::SetLastError(error);
        return result;
    }
    Journal& journal_;
};

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
        EXPECT_EQ(timeout, INFINITE);
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

constexpr DWORD kChanged = WAIT_OBJECT_0 + 1;
const Journal kPositioning = {"read 6 from 7 into 512", "notify"};

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

    /// Expects a read that returns nothing because of the failure whose text begins so.
    void ExpectFailedRead(const std::string& text) {
        EXPECT_TRUE(log_->BlockingRead().empty());
        using modul_exception::exceptionHistory;
        const auto& newest = exceptionHistory.records[(exceptionHistory.writeIndex + 4) % 5];
        EXPECT_TRUE(std::string(newest.what).starts_with(text)) << newest.what;
    }

    Journal journal_;
    ScriptedLog* system_ = nullptr;
    ScriptedKernel32* kernel32_ = nullptr;
    std::unique_ptr<EventLog> log_;
};

class EveryRecord : public EventLogFilterIf {
  public:
    bool Validate(const EventLogRecord&) override { return true; }
    UserMessage CreateMessageFrom(const EventLogRecord& record) override {
        return {3, record.GetVariableStringArray(), record.GetSourceName()};
    }
};

class RealLog : public testing::Test {
  protected:
    static void SetUpTestSuite() { loaded_ = LoadWineGap(); }
    void SetUp() override {
        if (!IsWine()) GTEST_SKIP() << "writes the stand-in's log files";
        ASSERT_TRUE(loaded_);
        file_.Clear();
        log_.Open();
    }
    void Append(const std::wstring& text) { file_.Append({{L"test", 1, 0, 1, {text}, {}}}); }
    /// Lets the reader take its position, as its first read does.
    void Position() {
        log_.CancelRead();
        EXPECT_TRUE(log_.BlockingRead().empty());
    }
    std::vector<std::wstring> TextsOfOneRead() {
        std::vector<UserMessage> messages;
        parser_.Process(log_.BlockingRead(), messages);
        std::vector<std::wstring> texts;
        for (const UserMessage& message : messages)
            texts.push_back(message.message);
        return texts;
    }
    using Texts = std::vector<std::wstring>;

    static inline bool loaded_ = false;
    const wine_gap::EventLogFile file_{L"ReaderTest"};
    EventLog log_{L"ReaderTest"};
    EventRecordParser parser_{std::make_shared<FilterChain>(FilterChain{std::make_shared<EveryRecord>()})};
};

}  // namespace

TEST(EventLogName, HasOneTo260Characters) {
    EXPECT_NO_THROW(EventLog(std::wstring(260, L'x')));
    EXPECT_EQ(TextOf<std::invalid_argument>([] { EventLog(std::wstring(261, L'x')); }),
              "EventSourceName name is GT MAX_PROVIDER_NAME_LEN");
    EXPECT_EQ(TextOf<std::invalid_argument>([] { EventLog(L""); }), "EventSourceName name is EMPTY");
}

TEST_F(Reader, OpensTheLogWithACancelAndANotificationEvent) {
    log_->Open();
    EXPECT_EQ(journal_, (Journal{"auto-reset event", "manual-reset event", "open"}));
    EXPECT_EQ(TextOf<std::runtime_error>([&] { log_->Open(); }), "Eventlog already opened");
}

TEST_F(Reader, KeepsItsEventsWhenItIsOpenedAgain) {
    log_->Open();
    log_->Close();
    journal_.clear();
    log_->Open();
    EXPECT_EQ(journal_, (Journal{"open"}));
}

TEST_F(Reader, RefusedOpenNamesTheCall) {
    system_->refuseOpen = true;
    const std::string text = TextOf<CWindowsApiExcp>([&] { log_->Open(); });
    EXPECT_TRUE(text.starts_with("FAILED! OpenEventLogW() on EventSouce FAILED!! LE(5): ")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: \n")) << text;
}

TEST_F(Reader, EitherRefusedEventIsToldWithTheSameText) {
    for (const int event : {1, 3}) {  // the second Open creates both anew but for the one that was there
        kernel32_->refusedEvent = event;
        const std::string text = TextOf<CWindowsApiExcp>([&] { log_->Open(); });
        EXPECT_TRUE(text.starts_with("FAILED! CreateEventW(CANCEL_EVENT)! LE(5): ")) << text;
        EXPECT_TRUE(text.ends_with(" Hint: Insufficient rights?\n")) << text;
    }
}

TEST_F(Reader, ReadBeforeOpenIsRefused) {
    EXPECT_EQ(TextOf<std::runtime_error>([&] { log_->BlockingRead(); }), "Invalid sequence -> open first");
}

TEST_F(Reader, FirstReadPositionsBehindTheNewestRecord) {
    log_->Open();
    journal_.clear();
    system_->reads = {{ERROR_SUCCESS, 100}, {ERROR_SUCCESS, 40}};
    kernel32_->waits = {kChanged};

    const Bytes buffer = log_->BlockingRead();

    EXPECT_EQ(buffer, Bytes(40, std::byte{'r'}));
    EXPECT_EQ(journal_, (Journal{"read 6 from 7 into 512", "notify", "wait", "read 5 from 0 into 65536"}));
}

TEST_F(Reader, LaterReadsGoOnFromThere) {
    OpenAndPosition();
    system_->reads = {{ERROR_SUCCESS, 10}};
    kernel32_->waits = {kChanged};
    EXPECT_EQ(log_->BlockingRead().size(), 10u);
    EXPECT_EQ(journal_, (Journal{"wait", "read 5 from 0 into 65536"}));
}

TEST_F(Reader, NotificationIsResetOnlyWhenNothingWasRead) {
    OpenAndPosition();
    system_->reads = {{ERROR_HANDLE_EOF}, {ERROR_HANDLE_EOF}, {ERROR_SUCCESS, 10}};
    kernel32_->waits = {kChanged, kChanged};
    EXPECT_EQ(log_->BlockingRead().size(), 10u);
    EXPECT_EQ(journal_, (Journal{"wait", "read 5 from 0 into 65536", "reset", "read 5 from 0 into 65536",
                                 "wait", "read 5 from 0 into 65536"}));
}

TEST_F(Reader, RecordThatComesRightBeforeTheResetIsNotLeft) {
    OpenAndPosition();
    system_->reads = {{ERROR_HANDLE_EOF}, {ERROR_SUCCESS, 10}};
    kernel32_->waits = {kChanged};
    EXPECT_EQ(log_->BlockingRead().size(), 10u) << "without another notification";
}

TEST_F(Reader, BufferGrowsAsNeeded) {
    OpenAndPosition();
    system_->reads = {{ERROR_INSUFFICIENT_BUFFER, 0x100000}, {ERROR_SUCCESS, 0x100000}};
    kernel32_->waits = {kChanged};
    EXPECT_EQ(log_->BlockingRead().size(), 0x100000u);
    EXPECT_EQ(journal_.back(), "read 5 from 0 into 1048576");
}

TEST_F(Reader, RecordOfMoreThanOneMegabyteEndsTheReadAndIsNotMetAgain) {
    OpenAndPosition();
    system_->reads = {{ERROR_INSUFFICIENT_BUFFER, 0x100001}};
    kernel32_->waits = {kChanged};

    ExpectFailedRead("Record Buffer reached limit MAX_RECORD_BUFFER_SIZE_IN_KB");

    EXPECT_EQ(journal_, (Journal{"wait", "read 5 from 0 into 65536", "close", "open"}));
    journal_.clear();
    system_->reads = {{ERROR_SUCCESS, 1}};
    log_->BlockingRead();
    EXPECT_EQ(journal_, (Journal{kPositioning[0], kPositioning[1], "wait"})) << "positioned afresh";
}

TEST_F(Reader, ClearedLogIsOpenedAndPositionedAgainWithoutAnError) {
    OpenAndPosition();
    system_->reads = {{ERROR_EVENTLOG_FILE_CHANGED}, {ERROR_SUCCESS, 100}, {ERROR_SUCCESS, 10}};
    kernel32_->waits = {kChanged, kChanged};

    EXPECT_EQ(log_->BlockingRead().size(), 10u);

    EXPECT_EQ(journal_, (Journal{"wait", "read 5 from 0 into 65536", "close", "open", "reset",
                                 kPositioning[0], kPositioning[1], "wait", "read 5 from 0 into 65536"}));
}

TEST_F(Reader, LogWithoutRecordsIsWatchedFromItsStart) {
    log_->Open();
    system_->oldestRecord = 0;
    system_->recordCount = 0;
    system_->reads = {{ERROR_INVALID_PARAMETER}, {ERROR_SUCCESS, 10}};
    kernel32_->waits = {kChanged};
    journal_.clear();
    EXPECT_EQ(log_->BlockingRead().size(), 10u);
    EXPECT_EQ(journal_[0], "read 6 from 4294967295 into 512");
}

TEST_F(Reader, EveryFailureEndsTheReadWithNothing) {
    log_->Open();
    system_->refuseOldest = true;
    ExpectFailedRead("FAILED! GetOldestEventLogRecord! LE(6): ");
    system_->refuseOldest = false;
    system_->refuseCount = true;
    ExpectFailedRead("FAILED! GetNumberOfEventLogRecords! LE(6): ");
    system_->refuseCount = false;
    system_->reads = {{ERROR_INVALID_PARAMETER}};  // the record to position at is gone
    ExpectFailedRead("ReadEventLogW() FAILED! LE=87");
    system_->refuseNotify = true;
    ExpectFailedRead("FAILED! NotifyChangeEventLog()! LE(6): ");
    system_->refuseNotify = false;
    kernel32_->waits = {WAIT_FAILED};
    ExpectFailedRead("FAILED! WaitForMultipleObjects() LE(6)");
    kernel32_->waits = {kChanged};
    system_->reads = {{ERROR_EVENTLOG_FILE_CORRUPT}};
    ExpectFailedRead("ReadEventLogW() FAILED! LE=1500");
    kernel32_->waits = {kChanged};
    kernel32_->refuseReset = true;
    ExpectFailedRead("FAILED! ResetEvent(NOTIFICATION_EVENT)! LE(");
}

TEST_F(Reader, FailuresOfClosingAndCancellingStayInside) {
    log_->CancelRead();
    EXPECT_TRUE(journal_.empty()) << "there is no event yet";
    log_->Open();
    log_->CancelRead();
    system_->refuseClose = true;
    journal_.clear();
    log_.reset();
    EXPECT_EQ(journal_, (Journal{"close", "close event", "close event"}));
}

TEST_F(RealLog, RecordsFromBeforeAreNeverReturned) {
    Append(L"old");
    Position();
    Append(L"new");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"new"}));
}

TEST_F(RealLog, EmptyLogIsReadFromItsFirstRecord) {
    Position();
    Append(L"first");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"first"}));
}

TEST_F(RealLog, BurstIsReadCompletely) {
    Append(L"old");
    Position();
    const std::vector<wine_gap::Event> burst(2000, wine_gap::Event{L"test", 1, 0, 1, {L"text"}, {}});
    file_.Append(burst);
    std::size_t count = 0;
    while (count < burst.size())
        count += TextsOfOneRead().size();
    EXPECT_EQ(count, burst.size());
    Append(L"last");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"last"}));
}

TEST_F(RealLog, CancelEndsAReadThatWaits) {
    Append(L"old");
    const ULONGLONG start = ::GetTickCount64();
    std::thread canceller([this] {
        ::Sleep(200);
        log_.CancelRead();
    });
    EXPECT_TRUE(log_.BlockingRead().empty());
    canceller.join();
    EXPECT_LT(::GetTickCount64() - start, 1000u);
}

TEST_F(RealLog, ClearedLogIsReadOn) {
    Append(L"old");
    Position();
    file_.Clear();
    std::thread writer([this] {
        ::Sleep(300);  // until the reader has opened the log again
        Append(L"after clearing");
    });
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"after clearing"}));
    writer.join();
    Append(L"later");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"later"}));
}

TEST_F(RealLog, LogThatDroppedItsOlderHalfIsReadOn) {
    Append(L"old");
    Position();
    const std::wstring big(20000, L'x');
    for (int i = 0; i < 60; ++i)
        Append(big);
    Append(L"last");
    Texts texts;
    do
        texts = TextsOfOneRead();
    while (texts.back() == big);
    EXPECT_EQ(texts.back(), L"last");
}
