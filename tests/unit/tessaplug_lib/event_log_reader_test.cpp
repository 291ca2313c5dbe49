#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "event_log_file.h"
#include "evlog_check.h"
#include "module_hooks.h"
#include "wine_gap_loader.h"

// The reader on a real log of its own.
namespace {

using operating_system::EventLog;
using operating_system::EventLogFilterIf;
using operating_system::EventLogRecord;
using operating_system::EventRecordParser;
using operating_system::FilterChain;
using operating_system::UserMessage;

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
