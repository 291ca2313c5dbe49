#include "evlog_check.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "event_record.h"
#include "exception_history.h"
#include "module_hooks.h"
#include "program_folder.h"
#include "text_of.h"
#include "windows_api_excp.h"

// The reader against a scripted log, the records, filters and messages. The real log:
// event_log_reader_test.cpp.
using modul_exception::CWindowsApiExcp;
using operating_system::EventLog;
using operating_system::EventLogFilterIf;
using operating_system::EventLogRecord;
using operating_system::EventRecordParser;
using operating_system::Fenlu3;
using operating_system::FilterChain;
using operating_system::MessageRessource;
using operating_system::UserMessage;
using test_support::EventRecord;
using test_support::FieldsOf;
using test_support::Joined;
using test_support::ModuleHooks;
using test_support::TextOf;

namespace {

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

/// Accepts records of one source.
class SourceFilter : public EventLogFilterIf {
  public:
    explicit SourceFilter(std::wstring source, DWORD severity)
        : source_(std::move(source)), severity_(severity) {}
    bool Validate(const EventLogRecord& record) override { return record.GetSourceName() == source_; }
    UserMessage CreateMessageFrom(const EventLogRecord& record) override {
        return {severity_, std::to_wstring(record.GetMessageId()), source_};
    }

  private:
    std::wstring source_;
    DWORD severity_;
};

class Parser : public testing::Test {
  protected:
    std::vector<DWORD> IdsOf(const Bytes& buffer) {
        parser_.Process(buffer, messages_);
        std::vector<DWORD> ids;
        for (const UserMessage& message : messages_)
            ids.push_back(std::stoul(message.message));
        return ids;
    }
    static Bytes Record(DWORD id, const std::wstring& source = L"ours") {
        EventRecord record;
        record.source = source;
        record.id = id;
        return record.Bytes();
    }

    std::shared_ptr<FilterChain> chain_ =
        std::make_shared<FilterChain>(FilterChain{std::make_shared<SourceFilter>(L"ours", 3)});
    EventRecordParser parser_{chain_};
    std::vector<UserMessage> messages_;
};

EventLogRecord RecordFrom(const Bytes& bytes) {
    return EventLogRecord(reinterpret_cast<const EVENTLOGRECORD*>(bytes.data()));
}

const std::wstring kDriverFile = test_support::ProgramFolder() + L"fenlu3.sys";
constexpr DWORD kInformationId = 0x40040101;
constexpr DWORD kWarningId = 0x80040102;
constexpr DWORD kErrorId = 0xC0040103;

UserMessage DriverMessage(const EventRecord& record) {
    Fenlu3 filter(std::make_unique<MessageRessource>(kDriverFile));
    return filter.CreateMessageFrom(RecordFrom(record.Bytes()));
}

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

TEST(EventLogRecord, RefusesWhatCannotBeARecord) {
    EXPECT_EQ(TextOf<std::invalid_argument>([] { EventLogRecord(nullptr); }),
              "Pointer to RawEventLogRecord is NULL");
    Bytes bytes(0x10001);
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { RecordFrom(bytes); }), "EVENTLOGRECORD Length is 0");
    FieldsOf(bytes)->Length = 0x10001;
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { RecordFrom(bytes); }),
              "EVENTLOGRECORD Length is > 64Kb! Really?");
    FieldsOf(bytes)->Length = 0x10000;
    EXPECT_NO_THROW(RecordFrom(bytes));
}

TEST(EventLogRecord, GivesItsFieldsFromACopy) {
    EventRecord raw;
    raw.id = 0xC0040103;
    raw.type = EVENTLOG_WARNING_TYPE;
    raw.strings = {L"one", L""};
    Bytes bytes = raw.Bytes();
    const EventLogRecord record = RecordFrom(bytes);
    std::ranges::fill(bytes, std::byte{0xFF});

    EXPECT_EQ(record.GetMessageId(), 0xC0040103);
    EXPECT_EQ(record.GetType(), EVENTLOG_WARNING_TYPE);
    EXPECT_EQ(record.GetNumberOfStrings(), 2);
    EXPECT_EQ(record.GetNumberOfSoundStrings(), 2);
    EXPECT_STREQ(record.GetVariableStringArray(), L"one");
    EXPECT_EQ(record.GetSourceName(), L"fenlu3");
}

TEST(EventLogRecord, NamesItsType) {
    const std::vector<std::pair<WORD, std::wstring>> names = {
        {1, L"EVENTLOG_ERROR_TYPE"},    {2, L"EVENTLOG_WARNING_TYPE"},   {4, L"EVENTLOG_INFORMATION_TYPE"},
        {8, L"EVENTLOG_AUDIT_SUCCESS"}, {16, L"EVENTLOG_AUDIT_FAILURE"}, {3, L"!! INVALID !!"},
        {0, L"!! INVALID !!"}};
    for (const auto& [type, name] : names) {
        EventRecord record;
        record.type = type;
        EXPECT_EQ(RecordFrom(record.Bytes()).GetEventTypeName(), name);
    }
}

TEST(EventLogRecord, PrintsItsFieldsWithTheLocalTime) {
    EventRecord raw;
    raw.id = 7;
    raw.number = 9;
    const Bytes bytes = raw.Bytes();
    TIME_ZONE_INFORMATION zone = {};
    ::GetTimeZoneInformation(&zone);
    ASSERT_EQ(zone.Bias, -330) << "the expected times are those of TZ=IST-5:30, with which ctest runs this";
    EXPECT_EQ(RecordFrom(bytes).Print(),
              L"{\"Length\":" + std::to_wstring(bytes.size()) +
                  L",\"Record Number\":9,\"EventID\":7,\"TimeGenerated\":\"1.1.1970 "
                  L"05:30:00\",\"EventType\":\"EVENTLOG_ERROR_TYPE\"}");
    raw.timeGenerated = 1795257005;  // 2026-11-21 10:30:05 UTC
    EXPECT_EQ(RecordFrom(raw.Bytes()).GetTimeStampFromRecord(), L"21.11.2026 16:00:05");
}

TEST(EventLogRecord, OfTheHeaderAloneIsAssertedAndReadFromItsStart) {
    Bytes bytes(sizeof(EVENTLOGRECORD), std::byte{0xFF});
    FieldsOf(bytes)->Length = sizeof(EVENTLOGRECORD);
    const EventLogRecord record = RecordFrom(bytes);
    const ModuleHooks hooks;
    EXPECT_EQ(record.GetSourceName(), L"8") << "the length, 56, read as text";
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"\"INVALID DATA IN RECORD!\" && (pos > 0)"}));
}

TEST(EventLogRecord, ShorterThanItsHeaderIsAssertedAndHasNothing) {
    Bytes bytes(20, std::byte{0xFF});
    FieldsOf(bytes)->Length = 20;
    const EventLogRecord record = RecordFrom(bytes);
    const ModuleHooks hooks;
    EXPECT_EQ(record.GetMessageId(), 0u);
    EXPECT_EQ(record.GetType(), 0);
    EXPECT_EQ(record.GetNumberOfSoundStrings(), 0);
    EXPECT_EQ(record.GetVariableStringArray(), nullptr);
    EXPECT_EQ(record.GetSourceName(), L"");
    EXPECT_EQ(hooks.AssertedExpressions()[0], L"rawData_.size() >= sizeof(EVENTLOGRECORD)");
    EXPECT_EQ(hooks.AssertedExpressions()[1], L"tmpPtr != nullptr");
    EXPECT_EQ(hooks.AssertedExpressions().back(), L"pos < rawData_.size()");
}

TEST(EventLogRecord, SourceNameWithoutAnEndIsNone) {
    Bytes bytes = EventRecord().Bytes();
    bytes.resize(sizeof(EVENTLOGRECORD) + 6 * sizeof(wchar_t));  // "fenlu3" and no zero
    FieldsOf(bytes)->Length = static_cast<DWORD>(bytes.size());
    EXPECT_EQ(RecordFrom(bytes).GetSourceName(), L"");
}

TEST(EventLogRecord, StringsOutsideOfItAreNone) {
    EventRecord raw;
    raw.strings = {L"one", L"two"};
    Bytes bytes = raw.Bytes();
    for (const DWORD offset : {static_cast<DWORD>(bytes.size()), DWORD{0xFFFFFFFE}}) {
        FieldsOf(bytes)->StringOffset = offset;
        EXPECT_EQ(RecordFrom(bytes).GetVariableStringArray(), nullptr);
        EXPECT_EQ(RecordFrom(bytes).GetNumberOfSoundStrings(), 0);
    }
    bytes = raw.Bytes();
    FieldsOf(bytes)->StringOffset = static_cast<DWORD>(bytes.size() - 1);
    EXPECT_EQ(RecordFrom(bytes).GetNumberOfSoundStrings(), 0);
}

TEST(EventLogRecord, OnlyStringsThatEndInsideCount) {
    EventRecord raw;
    raw.strings = {L"one", L"two", L"three"};
    Bytes bytes = raw.Bytes();
    bytes.resize(FieldsOf(bytes)->StringOffset + 11 * sizeof(wchar_t));  // cut off within "three"
    FieldsOf(bytes)->Length = static_cast<DWORD>(bytes.size());
    EXPECT_EQ(RecordFrom(bytes).GetNumberOfSoundStrings(), 2);
    FieldsOf(bytes)->NumStrings = 0xFFFF;
    EXPECT_EQ(RecordFrom(bytes).GetNumberOfSoundStrings(), 2);
}

TEST_F(Parser, NeedsAChain) {
    EXPECT_EQ(TextOf<std::invalid_argument>([] { EventRecordParser(nullptr); }), "No Filterchain provided!");
}

TEST_F(Parser, EmptyBufferLeavesTheMessagesAlone) {
    messages_ = {{3, L"before", L"ours"}};
    parser_.Process({}, messages_);
    ASSERT_EQ(messages_.size(), 1u);
    EXPECT_EQ(messages_[0].message, L"before");
}

TEST_F(Parser, OnlyOurRecordsBecomeMessages) {
    messages_ = {{3, L"99", L"of an earlier buffer"}};
    EXPECT_EQ(IdsOf(Joined({Record(1, L"other"), Record(2), Record(3, L"another")})),
              (std::vector<DWORD>{2}));
    EXPECT_EQ(IdsOf(Joined({Record(4), Record(5)})), (std::vector<DWORD>{4, 5}));
}

TEST_F(Parser, FirstFilterThatAcceptsMakesTheOneMessage) {
    chain_->push_back(std::make_shared<SourceFilter>(L"ours", 1));
    parser_.Process(Record(1), messages_);
    ASSERT_EQ(messages_.size(), 1u);
    EXPECT_EQ(messages_[0].severity, 3u);
}

TEST_F(Parser, EmptyChainIsAsserted) {
    chain_->clear();
    const ModuleHooks hooks;
    EXPECT_TRUE(IdsOf(Record(1)).empty());
    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"!filterChain_->empty()"}));
}

TEST_F(Parser, ImpossibleLengthsEndTheBuffer) {
    Bytes bytes = Joined({Record(1), Record(2), Record(3)});
    const std::size_t second = Record(1).size();
    auto* length = reinterpret_cast<DWORD*>(bytes.data() + second);
    *length = 0x10001;
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { parser_.Process(bytes, messages_); }),
              "EVENTLOGRECORD Length is > 64Kb! Really?");
    EXPECT_EQ(messages_.size(), 1u);
    *length = 0;
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { parser_.Process(bytes, messages_); }),
              "EVENTLOGRECORD Length is 0");
}

TEST_F(Parser, RecordShorterThanItsHeaderIsSkipped) {
    Bytes stump(24);
    FieldsOf(stump)->Length = 24;
    EXPECT_EQ(IdsOf(Joined({Record(1), stump, Record(2)})), (std::vector<DWORD>{1, 2}));
}

TEST_F(Parser, RecordThatIsCutOffIsSkipped) {
    Bytes bytes = Joined({Record(1), Record(2)});
    for (const std::size_t missing : {std::size_t{1}, Record(2).size() - 4, Record(2).size() - 1}) {
        Bytes cut = bytes;
        cut.resize(bytes.size() - missing);
        EXPECT_EQ(IdsOf(cut), (std::vector<DWORD>{1})) << missing;
    }
}

TEST_F(Parser, DamagedSourceNameDoesNotHideTheNextRecord) {
    Bytes damaged = Record(1);
    std::fill(damaged.begin() + sizeof(EVENTLOGRECORD), damaged.end(), std::byte{'x'});
    EXPECT_EQ(IdsOf(Joined({damaged, Record(2)})), (std::vector<DWORD>{2}));
}

TEST(MessageFile, NameHasOneTo260Characters) {
    EXPECT_EQ(TextOf<std::invalid_argument>([] { MessageRessource(L""); }), "Parameter FileName is EMPTY");
    EXPECT_EQ(TextOf<std::invalid_argument>([] { MessageRessource(std::wstring(261, L'x')); }),
              "Parameter FileName is > MAX_PATH");
    EXPECT_NO_THROW(MessageRessource(std::wstring(260, L'x')));
}

TEST(MessageFile, WantsTheRightSequence) {
    MessageRessource messages(kDriverFile);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { messages.ReadMessage(kErrorId, 0, nullptr); }),
              "Invalid Sequence! Open first");
    messages.Open();
    EXPECT_EQ(TextOf<std::runtime_error>([&] { messages.Open(); }), "Invalid Sequence! Already open");
    messages.Close();
    EXPECT_NO_THROW(messages.Open());
}

TEST(MessageFile, MissingFileIsNamed) {
    MessageRessource messages(L"C:\\no such folder\\no such file.sys");
    const std::string text = TextOf<CWindowsApiExcp>([&] { messages.Open(); });
    EXPECT_TRUE(text.starts_with("FAILED! LoadLibraryEx()! LE(")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: C:\\no such folder\\no such file.sys\n")) << text;
}

TEST(MessageFile, TextsAreFilledIn) {
    MessageRessource messages(kDriverFile);
    messages.Open();
    EXPECT_EQ(messages.ReadMessage(kErrorId, 2, L"port 0\0no voltage\0"),
              L"The adapter Fennlink U3 (port 0) has failed: no voltage\r\n");
    EXPECT_EQ(messages.ReadMessage(kErrorId, 0, nullptr), L"The adapter Fennlink U3 (%1) has failed: %2\r\n")
        << "inserts are ignored";
    EXPECT_EQ(messages.ReadMessage(0xC0040999, 0, nullptr), L"ERROR: NO STRING FOR EVENT ID");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { messages.ReadMessage(kErrorId, 1, nullptr); }),
              "If argc > 0 => provide argv");
}

TEST(MessageFile, NinetyNineStringsAreAssertedAndNoMoreAreTouched) {
    MessageRessource messages(kDriverFile);
    messages.Open();
    const std::wstring strings(98, L'\0');
    const ModuleHooks hooks;
    messages.ReadMessage(kErrorId, 98, strings.c_str());
    EXPECT_TRUE(hooks.Assertions().empty());
    messages.ReadMessage(kErrorId, 99, strings.c_str());
    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"argc < 99"}));
    EXPECT_NO_THROW(messages.ReadMessage(kErrorId, 5000, strings.c_str()));
}

TEST(DriverFilter, AcceptsTheDriversRecordsOnly) {
    Fenlu3 filter;
    for (const auto& [source, accepted] : std::vector<std::pair<std::wstring, bool>>{
             {L"fenlu3", true}, {L"fenlu3x", false}, {L"fenlu", false}, {L"FENLU3", false}, {L"", false}}) {
        EventRecord record;
        record.source = source;
        EXPECT_EQ(filter.Validate(RecordFrom(record.Bytes())), accepted);
    }
}

TEST(DriverFilter, MakesAMessageOfEachType) {
    EventRecord record;
    record.strings = {L"port 0", L"no voltage"};
    for (const auto& [type, id, severity, text] : std::vector<std::tuple<WORD, DWORD, DWORD, std::wstring>>{
             {WORD{EVENTLOG_ERROR_TYPE}, kErrorId, 3,
              L"The adapter Fennlink U3 (port 0) has failed: no voltage\r\n"},
             {WORD{EVENTLOG_WARNING_TYPE}, kWarningId, 2,
              L"The adapter Fennlink U3 (port 0) works, but not as it should: no voltage\r\n"},
             {WORD{EVENTLOG_INFORMATION_TYPE}, kInformationId, 1,
              L"The adapter Fennlink U3 (port 0) reports: no voltage\r\n"},
             {WORD{EVENTLOG_AUDIT_SUCCESS}, kErrorId, 4,
              L"The adapter Fennlink U3 (port 0) has failed: no voltage\r\n"},
             {WORD{EVENTLOG_AUDIT_FAILURE}, kErrorId, 4,
              L"The adapter Fennlink U3 (port 0) has failed: no voltage\r\n"}}) {
        record.type = type;
        record.id = id;
        const UserMessage message = DriverMessage(record);
        EXPECT_EQ(message.severity, severity);
        EXPECT_EQ(message.message, text);
        EXPECT_EQ(message.source, L"fenlu3");
    }
}

TEST(DriverFilter, UnknownMessageIsSaid) {
    EventRecord record;
    record.id = 0xC0040999;
    EXPECT_EQ(DriverMessage(record).message, L"ERROR: NO STRING FOR EVENT ID");
}

TEST(DriverFilter, InvalidTypeIsAsserted) {
    EventRecord record;
    record.type = 3;
    record.id = kErrorId;
    const ModuleHooks hooks;
    EXPECT_EQ(DriverMessage(record).severity, 0u);
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"!\"Invalid EventType in EVENTLOGRECORD\""}));
}

TEST(DriverFilter, StringsOutsideOfTheRecordAreLeftOut) {
    EventRecord raw;
    raw.id = kErrorId;
    raw.strings = {L"port 0", L"no voltage"};
    Bytes bytes = raw.Bytes();
    FieldsOf(bytes)->StringOffset = 0xFFFF0000;
    Fenlu3 filter(std::make_unique<MessageRessource>(kDriverFile));
    EXPECT_EQ(filter.CreateMessageFrom(RecordFrom(bytes)).message,
              L"The adapter Fennlink U3 (%1) has failed: %2\r\n");
}

TEST(DriverFilter, ClosesTheFileAlsoAfterAFailure) {
    class Failing : public MessageRessource {
      public:
        explicit Failing(int& closed) : MessageRessource(L"x"), closed_(closed) {}
        void Open() override {}
        void Close() override { ++closed_; }
        std::wstring ReadMessage(DWORD, DWORD, const wchar_t*) override {
            throw std::runtime_error("unreadable");
        }

      private:
        int& closed_;
    };
    int closed = 0;
    Fenlu3 filter(std::make_unique<Failing>(closed));
    EXPECT_THROW(filter.CreateMessageFrom(RecordFrom(EventRecord().Bytes())), std::runtime_error);
    EXPECT_EQ(closed, 1);
}
