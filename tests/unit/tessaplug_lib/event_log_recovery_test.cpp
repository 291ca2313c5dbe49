#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "module_hooks.h"
#include "scripted_event_log.h"
#include "structured_exception.h"

// What the reader does about records that cannot be read and logs that have to be opened again.
namespace {

using scripted_event_log::Bytes;
using scripted_event_log::Journal;
using scripted_event_log::kChanged;
using scripted_event_log::Reader;

}  // namespace

TEST_F(Reader, TooSmallABufferThatNeedsNoMoreEndsTheRead) {
    OpenAndPosition();
    for (const DWORD needed : {DWORD{0}, DWORD{0x10000}}) {
        system_->reads = {{ERROR_INSUFFICIENT_BUFFER, needed}};
        kernel32_->waits = {kChanged};
        ExpectFailedRead("ReadEventLogW() FAILED! LE=122");
    }
}

TEST_F(Reader, RecordWhoseBufferIsRefusedAsTooLargeIsPassedOverLikeALongOne) {
    for (const DWORD refusal :
         {DWORD{ERROR_INVALID_PARAMETER}, DWORD{RPC_S_INVALID_BOUND}, DWORD{RPC_X_BAD_STUB_DATA}}) {
        SCOPED_TRACE(refusal);
        log_->Close();
        system_->recordCount = 3;
        OpenAndPosition();
        system_->recordCount = 6;
        system_->reads = {{ERROR_INSUFFICIENT_BUFFER, 0x80000}, {refusal}};
        kernel32_->waits = {kChanged};
        EXPECT_TRUE(log_->BlockingRead().empty());
        EXPECT_STREQ(NewestException().what, "Record Buffer reached limit MAX_RECORD_BUFFER_SIZE_IN_KB");
        system_->reads = {{ERROR_SUCCESS, 0, Records({9, 10})}};
        kernel32_->waits = {kChanged};
        EXPECT_EQ(log_->BlockingRead(), Records({9, 10}));
        EXPECT_EQ(journal_.back(), "read 6 from 9 into 65536") << "behind the long one, which is 8";
    }
}

TEST_F(Reader, RefusalOfABufferThatReadEventLogTakesIsAFailureLikeAnyOther) {
    OpenAndPosition();
    system_->reads = {{ERROR_INSUFFICIENT_BUFFER, 0x7FFFF}, {ERROR_INVALID_PARAMETER}};
    kernel32_->waits = {kChanged};
    ExpectFailedRead("ReadEventLogW() FAILED! LE=87");
}

TEST_F(Reader, RecordOfMoreThanOneMegabyteEndsTheReadAndIsNotMetAgain) {
    OpenAndPosition();
    system_->recordCount = 6;
    system_->reads = {{ERROR_INSUFFICIENT_BUFFER, 0x100001}};
    kernel32_->waits = {kChanged};

    ExpectFailedRead("Record Buffer reached limit MAX_RECORD_BUFFER_SIZE_IN_KB");

    EXPECT_EQ(journal_, (Journal{"wait", "read 5 from 0 into 65536"}));
    journal_.clear();
    system_->reads = {{ERROR_SUCCESS, 0, Records({9, 10})}};
    kernel32_->waits = {kChanged};
    EXPECT_EQ(log_->BlockingRead(), Records({9, 10}));
    EXPECT_EQ(journal_, (Journal{"wait", "read 6 from 9 into 65536"})) << "behind the long one, which is 8";
    journal_.clear();
    log_->BlockingRead();
    EXPECT_EQ(journal_, (Journal{"read 5 from 0 into 65536", "wait"})) << "sequentially again";
}

TEST_F(Reader, LongRecordThatTheLogBeginsWithIsNotMetAgain) {
    OpenAndPosition();
    system_->oldestRecord = 20;  // what was unread before it is dropped
    system_->recordCount = 2;
    system_->reads = {{ERROR_INSUFFICIENT_BUFFER, 0x100001}, {ERROR_SUCCESS, 0, Records({21})}};
    kernel32_->waits = {kChanged, kChanged};
    EXPECT_TRUE(log_->BlockingRead().empty());
    EXPECT_EQ(log_->BlockingRead(), Records({21}));
    EXPECT_EQ(journal_.back(), "read 6 from 21 into 65536");
}

TEST_F(Reader, NewestRecordOfMoreThanOneMegabyteDoesNotKeepItFromPositioning) {
    log_->Open();
    journal_.clear();
    system_->reads = {{ERROR_INSUFFICIENT_BUFFER, 0x100001}, {ERROR_SUCCESS, 0, Records({8})}};
    kernel32_->waits = {kChanged, kChanged};
    system_->recordCount = 4;  // 8 is the newest
    EXPECT_TRUE(log_->BlockingRead().empty());
    EXPECT_EQ(log_->FailedReads(), 0u) << "there was nothing to read";
    system_->recordCount = 5;
    system_->reads = {{ERROR_SUCCESS, 0, Records({9})}};
    kernel32_->waits = {kChanged};
    EXPECT_EQ(log_->BlockingRead(), Records({9}));
    EXPECT_EQ(journal_.back(), "read 6 from 9 into 65536");
}

TEST_F(Reader, LogThatIsOpenedAgainIsReadOnBehindTheLastRecord) {
    ReadTwoRecords();
    EXPECT_TRUE(log_->Reopen());
    system_->recordCount = 7;  // 10 and 11 came meanwhile
    system_->reads = {{ERROR_SUCCESS, 0, Records({10, 11})}};
    EXPECT_EQ(log_->BlockingRead(), Records({10, 11}));
    EXPECT_EQ(journal_, (Journal{"close", "open", "notify", "read 6 from 10 into 65536"}));
}

TEST_F(Reader, LogThatIsOpenedAgainAndHoldsNothingNewIsWaitedFor) {
    ReadTwoRecords();
    EXPECT_TRUE(log_->Reopen());
    EXPECT_TRUE(log_->BlockingRead().empty());
    EXPECT_EQ(journal_, (Journal{"close", "open", "notify", "wait"}));
    system_->recordCount = 6;
    system_->reads = {{ERROR_SUCCESS, 0, Records({10})}};
    kernel32_->waits = {kChanged};
    EXPECT_EQ(log_->BlockingRead(), Records({10}));
    EXPECT_EQ(journal_.back(), "read 6 from 10 into 65536");
}

TEST_F(Reader, RecordsThatWereDroppedMeanwhileAreNotSought) {
    ReadTwoRecords();
    EXPECT_TRUE(log_->Reopen());
    system_->oldestRecord = 20;
    system_->reads = {{ERROR_SUCCESS, 0, Records({20})}};
    EXPECT_EQ(log_->BlockingRead(), Records({20}));
    EXPECT_EQ(journal_.back(), "read 6 from 20 into 65536");
}

TEST_F(Reader, RecordNumbersMayStartAgainAtZero) {
    system_->oldestRecord = 0xFFFFFFF0;
    system_->recordCount = 15;  // to 0xFFFFFFFE
    log_->Open();
    system_->reads = {{ERROR_SUCCESS, 100}, {ERROR_SUCCESS, 0, Records({0xFFFFFFFF})}};
    kernel32_->waits = {kChanged};
    EXPECT_EQ(log_->BlockingRead(), Records({0xFFFFFFFF}));
    EXPECT_TRUE(log_->Reopen());
    system_->recordCount = 18;  // to 1
    system_->reads = {{ERROR_SUCCESS, 0, Records({0, 1})}};
    EXPECT_EQ(log_->BlockingRead(), Records({0, 1}));
    EXPECT_EQ(journal_.back(), "read 6 from 0 into 65536");
}

TEST_F(Reader, LogThatWasClearedBeforeItIsOpenedAgainIsWatchedFromItsNewestRecord) {
    // Whether its numbers have not yet come as far again or have, and whether it had dropped records before.
    for (const auto& [oldest, count] : std::vector<std::pair<DWORD, DWORD>>{{5, 3}, {5, 30}, {1, 3}}) {
        SCOPED_TRACE(count);
        log_->Close();
        system_->oldestRecord = oldest;
        system_->recordCount = 8 - oldest;  // to 7
        ReadTwoRecords();
        EXPECT_TRUE(log_->Reopen());
        system_->oldestRecord = 1;
        system_->recordCount = count;
        system_->reads = {{ERROR_SUCCESS, 100}};
        EXPECT_TRUE(log_->BlockingRead().empty());
        EXPECT_EQ(journal_, (Journal{"close", "open", "notify",
                                     "read 6 from " + std::to_string(count) + " into 512", "wait"}));
        system_->reads = {{ERROR_SUCCESS, 10}};
        kernel32_->waits = {kChanged};
        EXPECT_EQ(log_->BlockingRead().size(), 10u);
        EXPECT_EQ(journal_.back(), "read 5 from 0 into 65536");
    }
}

TEST_F(Reader, LogThatWasEmptiedIsReadFromItsFirstRecordWhateverItsNumber) {
    ReadTwoRecords();
    EXPECT_TRUE(log_->Reopen());
    system_->oldestRecord = 0;
    system_->recordCount = 0;
    EXPECT_TRUE(log_->BlockingRead().empty());
    system_->oldestRecord = 1;
    system_->recordCount = 1;
    system_->reads = {{ERROR_SUCCESS, 0, Records({1})}};
    kernel32_->waits = {kChanged};
    EXPECT_EQ(log_->BlockingRead(), Records({1}));
    EXPECT_EQ(journal_.back(), "read 6 from 1 into 65536");
}

TEST_F(Reader, LogThatIsClosedAndOpenedIsPositionedAfresh) {
    ReadTwoRecords();
    EXPECT_TRUE(log_->Reopen());
    log_->Close();
    log_->Open();
    journal_.clear();
    system_->reads = {{ERROR_SUCCESS, 100}};
    log_->BlockingRead();
    EXPECT_EQ(journal_, (Journal{"read 6 from 9 into 512", "notify", "wait"}));
}

TEST_F(Reader, LogThatCouldNeverBePositionedIsPositionedAfresh) {
    log_->Open();
    system_->reads = {{ERROR_EVENTLOG_FILE_CORRUPT}};
    ExpectFailedRead("ReadEventLogW() FAILED! LE=1500");
    EXPECT_TRUE(log_->Reopen());
    journal_.clear();
    system_->recordCount = 4;
    system_->reads = {{ERROR_SUCCESS, 100}};
    log_->BlockingRead();
    EXPECT_EQ(journal_, (Journal{"read 6 from 8 into 512", "notify", "wait"}));
}

TEST_F(Reader, LogThatCannotBeOpenedAgainIsTriedUntilItCan) {
    ReadTwoRecords();
    system_->refuseOpen = true;
    EXPECT_FALSE(log_->Reopen());
    EXPECT_FALSE(log_->Reopen());
    system_->refuseOpen = false;
    EXPECT_TRUE(log_->Reopen());
    EXPECT_EQ(journal_, (Journal{"close", "open", "open", "open"}));
    system_->recordCount = 6;
    system_->reads = {{ERROR_SUCCESS, 0, Records({10})}};
    EXPECT_EQ(log_->BlockingRead(), Records({10})) << "still behind the last one";
}

TEST_F(Reader, CountsWhatFailsUntilTheLogCanBeReadAgain) {
    ReadTwoRecords();
    EXPECT_EQ(log_->FailedReads(), 0u);
    system_->reads = {{RPC_S_SERVER_UNAVAILABLE}};
    EXPECT_TRUE(log_->BlockingRead().empty());
    EXPECT_EQ(log_->FailedReads(), 1u);
    system_->refuseOpen = true;
    EXPECT_FALSE(log_->Reopen());
    EXPECT_EQ(log_->FailedReads(), 2u);
    system_->refuseOpen = false;
    EXPECT_TRUE(log_->Reopen());
    EXPECT_EQ(log_->FailedReads(), 2u) << "opening is not yet reading";
    system_->refuseNotify = true;
    EXPECT_TRUE(log_->BlockingRead().empty());
    EXPECT_EQ(log_->FailedReads(), 3u);
    system_->refuseNotify = false;
    kernel32_->waits = {WAIT_TIMEOUT};
    EXPECT_TRUE(log_->BlockingRead().empty());
    EXPECT_EQ(log_->FailedReads(), 0u) << "it was read to its end";
}

TEST_F(Reader, RecordsResetTheCountOfFailures) {
    ReadTwoRecords();
    system_->reads = {{ERROR_INVALID_HANDLE}, {ERROR_SUCCESS, 0, Records({10})}};
    EXPECT_TRUE(log_->BlockingRead().empty());
    EXPECT_EQ(log_->BlockingRead(), Records({10}));
    EXPECT_EQ(log_->FailedReads(), 0u);
}

TEST_F(Reader, DamagedRecordIsPassedOverIfTheNewestCanBeRead) {
    ReadTwoRecords();
    EXPECT_TRUE(log_->Reopen());
    system_->recordCount = 8;  // to 12
    system_->reads = {{ERROR_EVENTLOG_FILE_CORRUPT},
                      {ERROR_SUCCESS, 0, Records({12})},
                      {ERROR_EVENTLOG_FILE_CORRUPT},
                      {ERROR_SUCCESS, 0, Records({12})},
                      {ERROR_SUCCESS, 0, Records({12})}};
    EXPECT_EQ(log_->BlockingRead(), Records({12}));
    EXPECT_EQ(journal_,
              (Journal{"close", "open", "notify", "read 6 from 10 into 65536", "read 6 from 12 into 512",
                       "read 6 from 11 into 65536", "read 6 from 12 into 512", "read 6 from 12 into 65536"}));
}

TEST_F(Reader, LongRecordBehindADamagedOneIsPassedOverOnce) {
    ReadTwoRecords();
    EXPECT_TRUE(log_->Reopen());
    system_->recordCount = 8;  // to 12
    system_->reads = {{ERROR_EVENTLOG_FILE_CORRUPT},
                      {ERROR_SUCCESS, 0, Records({12})},
                      {ERROR_INSUFFICIENT_BUFFER, 0x100001}};
    ExpectFailedRead("Record Buffer reached limit MAX_RECORD_BUFFER_SIZE_IN_KB");
    system_->reads = {{ERROR_SUCCESS, 0, Records({12})}};
    EXPECT_EQ(log_->BlockingRead(), Records({12}));
    EXPECT_EQ(journal_.back(), "read 6 from 12 into 65536");
}

TEST_F(Reader, DamagedLogLosesNothingOnceItCanBeRead) {
    ReadTwoRecords();
    system_->recordCount = 7;
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(log_->Reopen());
        system_->reads = {{ERROR_EVENTLOG_FILE_CORRUPT}, {ERROR_EVENTLOG_FILE_CORRUPT}};
        ExpectFailedRead("ReadEventLogW() FAILED! LE=1500");
    }
    EXPECT_TRUE(log_->Reopen());
    system_->reads = {{ERROR_SUCCESS, 0, Records({10, 11})}};
    EXPECT_EQ(log_->BlockingRead(), Records({10, 11}));
    EXPECT_EQ(journal_.back(), "read 6 from 10 into 65536");
}

TEST_F(Reader, DamagedBufferDoesNotMoveTheNumberBeyondItsWholeRecords) {
    OpenAndPosition();
    Bytes cut = Records({8, 9});
    cut.resize(cut.size() - 1);
    system_->reads = {{ERROR_SUCCESS, 0, cut}};
    system_->recordCount = 5;
    kernel32_->waits = {kChanged};
    EXPECT_EQ(log_->BlockingRead(), cut);
    EXPECT_TRUE(log_->Reopen());
    system_->reads = {{ERROR_SUCCESS, 0, Records({9})}};
    EXPECT_EQ(log_->BlockingRead(), Records({9}));
    EXPECT_EQ(journal_.back(), "read 6 from 9 into 65536");
}

TEST_F(Reader, WhatTheLogRaisesIsAFailureLikeAnyOther) {
    for (const bool accessViolation : {false, true}) {
        system_->raiseAccessViolation = accessViolation;
        for (const char* call : {"oldest", "count", "read", "notify"}) {
            log_->Close();
            log_->Open();
            system_->raising = call;
            ExpectFailedRead(accessViolation ? "Structured exception 0xC0000005"
                                             : "Structured exception 0xE06D7363");
        }
        system_->raising = "close";
        EXPECT_TRUE(log_->Reopen());
        system_->raising = "open";
        EXPECT_FALSE(log_->Reopen());
        EXPECT_THROW(log_->Open(), operating_system::ForeignException);
        system_->raising.clear();
        EXPECT_TRUE(log_->Reopen());
    }
    system_->recordCount = 4;
    system_->reads = {{ERROR_SUCCESS, 100}, {ERROR_SUCCESS, 10}};
    kernel32_->waits = {kChanged};
    EXPECT_EQ(log_->BlockingRead().size(), 10u) << "the next read works";
}
