#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "evlog_check.h"
#include "module_hooks.h"
#include "scripted_event_log.h"
#include "text_of.h"
#include "windows_api_excp.h"

// The reader against a log whose answers are scripted. How it goes on after failures:
// event_log_recovery_test.cpp; on a real log: event_log_real_test.cpp.
namespace {

using modul_exception::CWindowsApiExcp;
using operating_system::EventLog;
using scripted_event_log::Bytes;
using scripted_event_log::Journal;
using scripted_event_log::kChanged;
using scripted_event_log::kPositioning;
using scripted_event_log::Reader;
using test_support::TextOf;

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

TEST_F(Reader, FailuresAreFiledUnderTheSourcePathThatStaffKnow) {
    EXPECT_THROW(log_->BlockingRead(), std::runtime_error);
    EXPECT_STREQ(NewestException().file, "evlog_check");
    EXPECT_STREQ(NewestException().function, "operating_system::EventLog::BlockingRead");
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

TEST_F(Reader, LooksAtTheLogEveryFiveSecondsAlsoWithoutANotification) {
    OpenAndPosition();
    system_->reads = {{ERROR_HANDLE_EOF}, {ERROR_HANDLE_EOF}, {ERROR_SUCCESS, 10}};
    kernel32_->waits = {WAIT_TIMEOUT, WAIT_TIMEOUT};
    EXPECT_EQ(log_->BlockingRead().size(), 10u);
}

TEST_F(Reader, ReadsOnceMoreBeforeItWaitsWhenTheLastReadFoundRecords) {
    ReadTwoRecords();
    system_->reads = {{ERROR_SUCCESS, 0, Records({10})}};
    EXPECT_EQ(log_->BlockingRead(), Records({10})) << "of which the pulse came while nobody waited";
    EXPECT_EQ(journal_, (Journal{"read 5 from 0 into 65536"}));
    EXPECT_TRUE(log_->BlockingRead().empty());
    EXPECT_TRUE(log_->BlockingRead().empty());
    EXPECT_EQ(journal_, (Journal{"read 5 from 0 into 65536", "read 5 from 0 into 65536", "wait", "wait"}))
        << "only once more";
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

TEST_F(Reader, LogWithoutRecordsIsEmptyWhateverItsOldestNumber) {
    log_->Open();
    system_->recordCount = 0;  // 5 is to come
    system_->reads = {{ERROR_SUCCESS, 0, Records({5})}};
    kernel32_->waits = {kChanged};
    journal_.clear();
    EXPECT_EQ(log_->BlockingRead(), Records({5}));
    EXPECT_EQ(journal_, (Journal{"notify", "wait", "read 5 from 0 into 65536"})) << "there is none to seek";
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
