#include "evlog_check.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <cwchar>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "allocations.h"
#include "event_record.h"
#include "module_hooks.h"
#include "text_of.h"
#include "toolbox.h"
#include "trace_recorder.h"

// Records and the parser. The reader: event_log_reader_test.cpp; the driver's messages:
// driver_messages_test.cpp.
using operating_system::EventLogFilterIf;
using operating_system::EventLogRecord;
using operating_system::EventRecordParser;
using operating_system::FilterChain;
using operating_system::UserMessage;
using test_support::EventRecord;
using test_support::FieldsOf;
using test_support::Joined;
using test_support::ModuleHooks;
using test_support::SetLength;
using test_support::TextOf;

namespace {

using Bytes = std::vector<std::byte>;

/// A time as this machine's clock would show it: all times by the zone's difference of today. ctest runs this
/// where that is not zero.
/// @param utc seconds since 1970
std::wstring ClockTime(long long utc) {
    using std::chrono::floor;
    TIME_ZONE_INFORMATION zone = {};
    const bool isSummer = ::GetTimeZoneInformation(&zone) == TIME_ZONE_ID_DAYLIGHT;
    const std::chrono::minutes west(zone.Bias + (isSummer ? zone.DaylightBias : zone.StandardBias));
    const auto local = std::chrono::sys_seconds(std::chrono::seconds(utc)) - west;
    const auto midnight = floor<std::chrono::days>(local);
    const std::chrono::year_month_day date(midnight);
    const std::chrono::hh_mm_ss time(local - midnight);
    wchar_t text[32] = {};
    std::swprintf(text, std::size(text), L"%u.%u.%d %02d:%02d:%02d", static_cast<unsigned>(date.day()),
                  static_cast<unsigned>(date.month()), static_cast<int>(date.year()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()));
    return text;
}

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
    /// The texts that begin with a brace, of what is traced while a buffer is processed.
    std::vector<std::string> LinesTracedAt(UCHAR level, const Bytes& buffer) {
        constexpr ULONG kMessages = 1;
        constexpr TRACEHANDLE kLogger = 5;
        const test_support::Tracing tracing;
        test_support::EnableTracing(test_support::kModuleGuid, level, kMessages, kLogger);
        parser_.Process(buffer, messages_);
        test_support::DisableTracing(test_support::kModuleGuid);
        std::vector<std::string> lines;
        for (const test_support::TraceRecord& record : test_support::TakeTraceRecords())
            if (record.arguments.size() == 1 && record.arguments[0].size() > 8 &&
                record.Text(0).starts_with("{"))
                lines.push_back(record.Text(0));
        return lines;
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
    EXPECT_EQ(record.SourceName(), L"fenlu3");
    EXPECT_EQ(static_cast<const void*>(record.SourceName().data()), record.GetEventLogPtr() + 1)
        << "not copied once more";
}

TEST(EventLogRecord, InTheMemoryOfAnotherOneIsItselfAlone) {
    Bytes bytes = EventRecord().Bytes();
    bytes.resize(sizeof(EVENTLOGRECORD) + 6 * sizeof(wchar_t));  // "fenlu3" and no zero
    FieldsOf(bytes)->Length = static_cast<DWORD>(bytes.size());
    Bytes memory(0x1000);  // zeros behind it
    const std::byte* place = memory.data();
    EventLogRecord record(reinterpret_cast<const EVENTLOGRECORD*>(bytes.data()), std::move(memory));
    EXPECT_EQ(record.SourceName(), L"");
    EXPECT_EQ(static_cast<const void*>(record.GetEventLogPtr()), place) << "no new memory";
    EXPECT_EQ(record.TakeMemory(), bytes);
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
    EXPECT_EQ(RecordFrom(bytes).Print(), L"{\"Length\":" + std::to_wstring(bytes.size()) +
                                             L",\"Record Number\":9,\"EventID\":7,\"TimeGenerated\":\"" +
                                             ClockTime(0) + L"\",\"EventType\":\"EVENTLOG_ERROR_TYPE\"}");
    raw.timeGenerated = 1795257005;  // 2026-11-21 10:30:05 UTC
    EXPECT_EQ(RecordFrom(raw.Bytes()).GetTimeStampFromRecord(), ClockTime(1795257005));
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
    SetLength(bytes, 20);
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
    EXPECT_EQ(hooks.Assertions()[0].sourcePath, L"tessaplug_lib\\src\\evlog_check");
}

TEST(EventLogRecord, ShorterThanItsHeaderIsAssertedByEachOfItsGetters) {
    Bytes bytes(20, std::byte{0xFF});
    SetLength(bytes, 20);
    const EventLogRecord record = RecordFrom(bytes);
    const auto assertedBy = [](const auto& get) {
        const ModuleHooks hooks;
        get();
        return hooks.AssertedExpressions();
    };
    const std::vector<std::wstring> expected = {L"rawData_.size() >= sizeof(EVENTLOGRECORD)",
                                                L"tmpPtr != nullptr"};
    EXPECT_EQ(assertedBy([&] { record.GetMessageId(); }), expected);
    EXPECT_EQ(assertedBy([&] { record.GetType(); }), expected);
    EXPECT_EQ(assertedBy([&] { record.GetNumberOfStrings(); }), expected);
    EXPECT_EQ(assertedBy([&] { record.GetVariableStringArray(); }), expected);
    EXPECT_EQ(assertedBy([&] { record.GetTimeStampFromRecord(); }),
              (std::vector<std::wstring>{expected[0], L"EvRec != NULL"}));
}

TEST(EventLogRecord, TimeStampHasDayAndMonthWithoutAndTheRestWithLeadingZeros) {
    EventRecord raw;
    raw.timeGenerated = 1775083509;  // 2026-04-01 22:45:09 UTC
    EXPECT_EQ(RecordFrom(raw.Bytes()).GetTimeStampFromRecord(), ClockTime(1775083509));
    raw.timeGenerated = 0xFFFFFFFF;  // 2106-02-07 06:28:15 UTC
    EXPECT_EQ(RecordFrom(raw.Bytes()).GetTimeStampFromRecord(), ClockTime(0xFFFFFFFF));
}

TEST(EventLogRecord, SourceNameWithoutAnEndIsNone) {
    Bytes bytes = EventRecord().Bytes();
    bytes.resize(sizeof(EVENTLOGRECORD) + 6 * sizeof(wchar_t));  // "fenlu3" and no zero
    FieldsOf(bytes)->Length = static_cast<DWORD>(bytes.size());
    EXPECT_EQ(RecordFrom(bytes).GetSourceName(), L"");
    EXPECT_TRUE(RecordFrom(bytes).SourceName().empty());
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

TEST_F(Parser, RecordsOfOthersTakeNoMemoryOfTheirOwn) {
    struct RefusesAll : SourceFilter {
        RefusesAll() : SourceFilter(L"", 3) {}
        bool Validate(const EventLogRecord& /*record*/) override { return false; }
    };
    *chain_ = {std::make_shared<RefusesAll>()};
    const auto allocationsFor = [&](std::size_t records) {
        const Bytes buffer = Joined(std::vector<Bytes>(records, Record(1)));
        test_support::TakeAllocations();
        parser_.Process(buffer, messages_);
        return test_support::TakeAllocations().count;
    };
    EXPECT_EQ(allocationsFor(100), allocationsFor(1));
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

TEST_F(Parser, TailOfAnImpossibleLengthIsRefusedLikeARecord) {
    for (const unsigned size : {4u, 30u, 55u}) {
        Bytes tail(size);
        EXPECT_EQ(
            TextOf<std::invalid_argument>([&] { parser_.Process(Joined({Record(1), tail}), messages_); }),
            "EVENTLOGRECORD Length is 0");
        const DWORD tooLong = 0x10001;
        std::memcpy(tail.data(), &tooLong, sizeof tooLong);
        EXPECT_EQ(
            TextOf<std::invalid_argument>([&] { parser_.Process(Joined({Record(1), tail}), messages_); }),
            "EVENTLOGRECORD Length is > 64Kb! Really?");
        EXPECT_EQ(messages_.size(), 1u);
    }
    EXPECT_EQ(IdsOf(Joined({Record(1), Bytes(3)})), (std::vector<DWORD>{1}))
        << "of three bytes nothing is known";
}

TEST_F(Parser, RecordOf64KilobytesIsRead) {
    Bytes bytes = Record(1);
    bytes.resize(0x10000);
    FieldsOf(bytes)->Length = 0x10000;
    EXPECT_EQ(IdsOf(Joined({bytes, Record(2)})), (std::vector<DWORD>{1, 2}));
}

TEST_F(Parser, RecordsBehindOneOfAnOddLengthAreRead) {
    Bytes odd = Record(1);
    odd.resize(odd.size() + 1);
    FieldsOf(odd)->Length = static_cast<DWORD>(odd.size());
    EXPECT_EQ(IdsOf(Joined({odd, Record(2), odd, Record(3)})), (std::vector<DWORD>{1, 2, 1, 3}));
}

TEST_F(Parser, EachRecordIsPrintedWhenTracingIsVerbose) {
    EventRecord record;
    record.source = L"other";
    record.number = 4711;
    record.id = 0xC0040103;
    record.type = EVENTLOG_WARNING_TYPE;
    record.timeGenerated = 1795257005;
    const std::string length = std::to_string(record.Bytes().size());
    const std::string line =
        "{\"Length\":" + length + ",\"Record Number\":4711,\"EventID\":3221487875,\"TimeGenerated\":\"" +
        toolbox::WstringToString(ClockTime(1795257005)) + "\",\"EventType\":\"EVENTLOG_WARNING_TYPE\"}";
    EXPECT_EQ(LinesTracedAt(TRACE_LEVEL_VERBOSE, record.Bytes()), (std::vector<std::string>{line}));
    EXPECT_EQ(LinesTracedAt(TRACE_LEVEL_INFORMATION, record.Bytes()), std::vector<std::string>{});
}

TEST_F(Parser, RecordShorterThanItsHeaderIsSkipped) {
    Bytes stump(24);
    SetLength(stump, 24);
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

TEST_F(Parser, LongestRecordThatIsCutOffIsSkippedToo) {
    Bytes cut = Record(2);
    FieldsOf(cut)->Length = 0x10000;
    EXPECT_EQ(IdsOf(Joined({Record(1), cut})), (std::vector<DWORD>{1}));
}

TEST_F(Parser, DamagedSourceNameDoesNotHideTheNextRecord) {
    Bytes damaged = Record(1);
    std::fill(damaged.begin() + sizeof(EVENTLOGRECORD), damaged.end(), std::byte{'x'});
    EXPECT_EQ(IdsOf(Joined({damaged, Record(2)})), (std::vector<DWORD>{2}));
}
