#include "evlog_check.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "event_record.h"
#include "module_hooks.h"
#include "program_folder.h"
#include "text_of.h"
#include "windows_api_excp.h"

// Records, filters and messages. The reader: event_log_reader_test.cpp.
using modul_exception::CWindowsApiExcp;
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
