#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "data_folder.h"
#include "event_log_file.h"
#include "evlog_check.h"
#include "module_hooks.h"
#include "test_event_log.h"
#include "wine_gap_loader.h"

// The reader on a real log of its own.
namespace {

using operating_system::EventLog;
using operating_system::EventLogFilterIf;
using operating_system::EventLogRecord;
using operating_system::EventRecordParser;
using operating_system::FilterChain;
using operating_system::UserMessage;
using test_support::EventLogSetting;
using test_support::Notification;
using test_support::TestEventLog;

/// Notifications of which none reaches the reader, as on Windows when it pulses the event while nobody waits.
/// Every wait is over at once.
class LostNotifications : public windows_api::CKernel32 {
  public:
    DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD timeout) override {
        if (!areLost) return CKernel32::WaitForMultipleObjects(count, handles, waitAll, timeout);
        ++waits;
        return WAIT_TIMEOUT;
    }
    bool areLost = false;
    int waits = 0;
};

constexpr wchar_t kName[] = L"ReaderTest";
constexpr DWORD kLongestWaitMs = 5000;  // of the reader

/// The length of the log's first record is nonsense in its lifetime.
class DamagedFirstRecord {
  public:
    DamagedFirstRecord() : length_(Exchange(0)) {}
    ~DamagedFirstRecord() { Exchange(length_); }
    DamagedFirstRecord(const DamagedFirstRecord&) = delete;
    DamagedFirstRecord& operator=(const DamagedFirstRecord&) = delete;

  private:
    /// The record is found by its signature, which follows its length.
    static DWORD Exchange(DWORD length) {
        const std::wstring path = wine_gap::DataFolder() + L"\\" + kName + L".log";
        std::fstream file(std::filesystem::path(path), std::ios::binary | std::ios::in | std::ios::out);
        const std::string bytes(std::istreambuf_iterator<char>(file), {});
        const std::size_t at = bytes.find("LfLe");
        EXPECT_NE(at, std::string::npos);
        DWORD before = 0;
        std::memcpy(&before, bytes.data() + at - sizeof before, sizeof before);
        file.clear();
        file.seekp(static_cast<std::streamoff>(at - sizeof length));
        file.write(reinterpret_cast<const char*>(&length), sizeof length);
        return before;
    }

    DWORD length_;
};

class EveryRecord : public EventLogFilterIf {
  public:
    bool Validate(const EventLogRecord&) override { return true; }
    UserMessage CreateMessageFrom(const EventLogRecord& record) override {
        return {3, record.GetVariableStringArray(), record.GetSourceName()};
    }
};

class RealLog : public testing::TestWithParam<Notification> {
  protected:
    static void SetUpTestSuite() { loaded_ = LoadWineGap(); }
    std::unique_ptr<EventLog> MakeReader() {
        auto events = std::make_unique<LostNotifications>();
        events_ = events.get();
        return std::make_unique<EventLog>(kName, std::make_unique<windows_api::Advapi32>(),
                                          std::move(events));
    }
    void SetUp() override {
        ASSERT_TRUE(loaded_);
        log_.Open();
    }
    /// The event log service, without which no handle lives.
    void StopService() { stopped_.emplace(wine_gap::kServiceIsStopped, 1); }
    void StartService() {
        restarts_.emplace(wine_gap::kServiceRestarts, 1);
        stopped_.reset();
    }
    void AppendGiant(std::size_t size = 0x110000) {
        const std::vector<BYTE> data(size);
        ASSERT_EQ(file_.Append({{L"test", 1, 0, 1, {L"giant"}, data}}), DWORD{ERROR_SUCCESS});
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
    const TestEventLog testLog_{kName};
    const EventLogSetting notification_{wine_gap::kNotificationSets, static_cast<DWORD>(GetParam())};
    std::optional<EventLogSetting> restarts_;
    std::optional<EventLogSetting> stopped_;
    const wine_gap::EventLogFile file_{kName};
    LostNotifications* events_ = nullptr;
    std::unique_ptr<EventLog> reader_ = MakeReader();
    EventLog& log_ = *reader_;
    EventRecordParser parser_{std::make_shared<FilterChain>(FilterChain{std::make_shared<EveryRecord>()})};
};

INSTANTIATE_TEST_SUITE_P(Notification, RealLog, testing::Values(Notification::kPulsed, Notification::kSet),
                         testing::PrintToStringParamName());

}  // namespace

TEST_P(RealLog, RecordsFromBeforeAreNeverReturned) {
    Append(L"old");
    Position();
    Append(L"new");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"new"}));
}

TEST_P(RealLog, EmptyLogIsReadFromItsFirstRecord) {
    Position();
    Append(L"first");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"first"}));
}

TEST_P(RealLog, BurstIsReadCompletely) {
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

TEST_P(RealLog, CancelEndsAReadThatWaits) {
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

TEST_P(RealLog, ClearedLogIsReadOn) {
    Append(L"old");
    Position();
    file_.Clear();
    std::thread writer([this] {
        ::Sleep(kLongestWaitMs + 1000);  // until the reader has opened the log again
        Append(L"after clearing");
    });
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"after clearing"}));
    writer.join();
    Append(L"later");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"later"}));
}

TEST_P(RealLog, LogThatDroppedItsOlderHalfIsReadOn) {
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

TEST_P(RealLog, RecordWhosePulseNobodyWaitedForIsReadBeforeTheNextWait) {
    Position();
    Append(L"first");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"first"}));
    events_->areLost = true;
    Append(L"behind the open box");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"behind the open box"}));
    EXPECT_EQ(events_->waits, 0);
}

TEST_P(RealLog, RecordThatWasNeverToldOfIsFoundWhenTheWaitIsOver) {
    Position();
    events_->areLost = true;
    Append(L"untold");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"untold"}));
    EXPECT_EQ(events_->waits, 1);
}

TEST_P(RealLog, RecordThatIsWrittenInTheQuietFiveSecondsIsReturnedWithinFive) {
    Position();
    std::thread writer([this] {
        ::Sleep(300);  // until the reader waits
        Append(L"told of");
        ::Sleep(1000);
        Append(L"in the quiet five seconds");
    });
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"told of"}));
    const ULONGLONG start = ::GetTickCount64();
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"in the quiet five seconds"}));
    EXPECT_LT(::GetTickCount64() - start, kLongestWaitMs + 500);
    writer.join();
}

TEST_P(RealLog, RecordThatNeedsALargerBufferThanReadEventLogTakesHidesNoneBehindIt) {
    testLog_.Limit(0x1000000);
    Position();
    AppendGiant(0x80000);
    EXPECT_EQ(TextsOfOneRead(), Texts{}) << "the read that meets it ends";
    Append(L"behind");
    EXPECT_TRUE(log_.Reopen()) << "as the monitor does";
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"behind"}));
    AppendGiant(0x80000);
    EXPECT_EQ(TextsOfOneRead(), Texts{}) << "the read that meets it ends";
    EXPECT_TRUE(log_.Reopen());
    const ULONGLONG start = ::GetTickCount64();
    Position();
    EXPECT_LT(::GetTickCount64() - start, 1000u) << "it is behind it, and waits";
    EXPECT_EQ(log_.FailedReads(), 1u);
}

TEST_P(RealLog, RecordOfMoreThanOneMegabyteHidesNoneBehindIt) {
    testLog_.Limit(0x1000000);
    Position();
    Append(L"in front");
    AppendGiant();
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"in front"}));
    Append(L"behind");
    EXPECT_EQ(TextsOfOneRead(), Texts{}) << "the read that meets it ends";
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"behind"}));
    Append(L"later");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"later"}));
}

TEST_P(RealLog, GiantsInARowHideNone) {
    testLog_.Limit(0x1000000);
    Position();
    for (int i = 0; i < 3; ++i)
        AppendGiant();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(TextsOfOneRead(), Texts{}) << "the read that meets one ends";
        EXPECT_TRUE(log_.Reopen()) << "as the monitor does";
    }
    Append(L"behind them");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"behind them"}));
}

TEST_P(RealLog, GiantThatIsTheNewestRecordIsPositionedBehind) {
    testLog_.Limit(0x1000000);
    AppendGiant();
    Position();
    Append(L"new");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"new"}));
}

TEST_P(RealLog, NothingIsLostOrReturnedTwiceWhenItsServiceWasRestarted) {
    Append(L"old");
    Position();
    Append(L"before");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"before"}));
    StopService();
    EXPECT_EQ(TextsOfOneRead(), Texts{});
    EXPECT_FALSE(log_.Reopen());
    Append(L"meanwhile");
    EXPECT_FALSE(log_.Reopen());
    StartService();
    EXPECT_TRUE(log_.Reopen());
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"meanwhile"}));
    Append(L"after");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"after"})) << "the new handle is told of changes";
    EXPECT_TRUE(log_.Reopen());
    Position();  // and ends: there is nothing to read
}

TEST_P(RealLog, LogThatWasClearedWhileItsServiceWasAwayIsReadOn) {
    Append(L"old");
    Append(L"older");
    Position();
    Append(L"before");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"before"}));
    StopService();
    EXPECT_EQ(TextsOfOneRead(), Texts{});
    file_.Clear();
    StartService();
    EXPECT_TRUE(log_.Reopen());
    Position();
    Append(L"first of the cleared log");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"first of the cleared log"}));
}

TEST_P(RealLog, RecordsOfALogThatWasClearedAndWrittenWhileItsServiceWasAwayAreReturned) {
    Append(L"old");
    Position();
    Append(L"before");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"before"}));
    StopService();
    EXPECT_EQ(TextsOfOneRead(), Texts{});
    file_.Clear();
    Append(L"first of the cleared log");
    StartService();
    EXPECT_TRUE(log_.Reopen());
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"first of the cleared log"})) << "numbers go on";
}

TEST_P(RealLog, LogThatMayNotBeOpenedForATimeIsReadOn) {
    Position();
    Append(L"before");
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"before"}));
    {
        const EventLogSetting denied(wine_gap::kAccessDeniedTo, kName);
        EXPECT_FALSE(log_.Reopen());
        Append(L"meanwhile");
    }
    EXPECT_TRUE(log_.Reopen());
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"meanwhile"}));
}

TEST_P(RealLog, NothingIsLostInALogThatWasDamagedAndMended) {
    Position();
    Append(L"in the damaged log");
    {
        const DamagedFirstRecord damage;
        EXPECT_EQ(TextsOfOneRead(), Texts{});
        EXPECT_TRUE(log_.Reopen());
        EXPECT_EQ(TextsOfOneRead(), Texts{});
        EXPECT_EQ(log_.FailedReads(), 2u);
    }
    EXPECT_TRUE(log_.Reopen());
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"in the damaged log"}));
    EXPECT_EQ(log_.FailedReads(), 0u);
}

TEST_P(RealLog, DamagedRecordHidesNoneBehindIt) {
    Position();
    Append(L"damaged");
    const DamagedFirstRecord damage;
    EXPECT_EQ(TextsOfOneRead(), Texts{});
    Append(L"behind");
    EXPECT_TRUE(log_.Reopen());
    EXPECT_EQ(TextsOfOneRead(), (Texts{L"behind"}));
}
