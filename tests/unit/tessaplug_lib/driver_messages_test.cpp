#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "event_record.h"
#include "evlog_check.h"
#include "message_calls.h"
#include "module_hooks.h"
#include "program_folder.h"
#include "structured_exception.h"
#include "text_of.h"
#include "windows_api_excp.h"

// The driver's message file, and the filter that makes messages of the driver's records.
using modul_exception::CWindowsApiExcp;
using operating_system::EventLogRecord;
using operating_system::Fenlu3;
using operating_system::ForeignException;
using operating_system::MessageRessource;
using operating_system::UserMessage;
using test_support::EventRecord;
using test_support::FieldsOf;
using test_support::MessageCalls;
using test_support::ModuleHooks;
using test_support::TextOf;

namespace {

using Bytes = std::vector<std::byte>;

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

constexpr DWORD kCppExceptionOfAnotherRunTime = 0xE06D7363;

void RaiseForeignException() {
    ::RaiseException(kCppExceptionOfAnotherRunTime, 0, 0, nullptr);
}

[[gnu::noinline]] void ReadFromNull() {
    static_cast<void>(*static_cast<volatile int*>(nullptr));  // NOLINT: the fault is what is tested
}

}  // namespace

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

TEST(MessageFile, IsMappedAsResourcesOnly) {
    const MessageCalls calls;
    MessageRessource messages(kDriverFile);
    EXPECT_TRUE(calls.loaded.empty()) << "not before it is opened";
    messages.Open();
    ASSERT_EQ(calls.loaded.size(), 1u);
    EXPECT_EQ(calls.loaded[0].file, kDriverFile);
    EXPECT_EQ(calls.loaded[0].reserved, nullptr);
    EXPECT_EQ(calls.loaded[0].flags, 0x22u);
}

TEST(MessageFile, IsFreedWhenItIsClosed) {
    const MessageCalls calls;
    {
        MessageRessource messages(kDriverFile);
        messages.Open();
        EXPECT_NE(::FindResourceW(calls.loaded.at(0).result, MAKEINTRESOURCEW(1), RT_MESSAGETABLE), nullptr);
    }
    EXPECT_EQ(::FindResourceW(calls.loaded.at(0).result, MAKEINTRESOURCEW(1), RT_MESSAGETABLE), nullptr);
}

TEST(MessageFile, InsertionStringsGoInAsAnArray) {
    MessageRessource messages(kDriverFile);
    messages.Open();
    MessageCalls calls;
    messages.ReadMessage(kErrorId, 3, L"port 0\0\0no voltage\0");
    ASSERT_EQ(calls.formatted.size(), 1u);
    EXPECT_EQ(calls.formatted[0].flags, 0x3900u);
    EXPECT_EQ(calls.formatted[0].messageId, kErrorId);
    EXPECT_EQ(calls.formatted[0].languageId, 0u);
    EXPECT_EQ(calls.formatted[0].arguments, (std::vector<std::wstring>{L"port 0", L"", L"no voltage"}));
}

TEST(MessageFile, TextThatWindowsAllocatesIsFreed) {
    MessageRessource messages(kDriverFile);
    messages.Open();
    const MessageCalls calls;
    messages.ReadMessage(0xC0040999, 0, nullptr);
    EXPECT_TRUE(calls.freed.empty()) << "there is none";
    messages.ReadMessage(kErrorId, 0, nullptr);
    ASSERT_EQ(calls.freed.size(), 1u);
    EXPECT_NE(calls.freed[0], nullptr);
}

TEST(MessageFile, InsertsAreIgnoredWithoutStrings) {
    MessageRessource messages(kDriverFile);
    messages.Open();
    MessageCalls calls;
    EXPECT_EQ(messages.ReadMessage(kErrorId, 0, L"not looked at"),
              L"The adapter Fennlink U3 (%1) has failed: %2\r\n");
    ASSERT_EQ(calls.formatted.size(), 1u);
    EXPECT_EQ(calls.formatted[0].flags, 0x1B00u);
    EXPECT_EQ(calls.formatted[0].languageId, 0u);
    EXPECT_FALSE(calls.formatted[0].hasArguments);
}

TEST(MessageFile, SystemsOwnMessagesAreTheFallBack) {
    MessageRessource messages(kDriverFile);
    messages.Open();
    for (const DWORD count : {DWORD{0}, DWORD{1}}) {
        const std::wstring text = messages.ReadMessage(ERROR_FILE_NOT_FOUND, count, L"");
        EXPECT_NE(text, L"ERROR: NO STRING FOR EVENT ID");
        EXPECT_TRUE(text.ends_with(L"\r\n")) << testing::PrintToString(text);
    }
}

TEST(MessageFile, AtMost98StringsAreFilledIn) {
    MessageRessource messages(kDriverFile);
    messages.Open();
    std::wstring strings;
    for (int i = 0; i < 98; ++i)
        strings += std::wstring(L"x") + L'\0';
    MessageCalls calls;
    messages.ReadMessage(kErrorId, 98, strings.c_str());
    EXPECT_EQ(calls.formatted.at(0).arguments.size(), 98u);
    EXPECT_TRUE(calls.formatted.at(0).lastArgumentIsNull);
    const ModuleHooks hooks;
    for (const DWORD count : {DWORD{99}, DWORD{5000}}) {
        messages.ReadMessage(kErrorId, count, strings.c_str());
        EXPECT_EQ(calls.formatted.back().arguments.size(), 98u) << "of " << count;
        EXPECT_TRUE(calls.formatted.back().lastArgumentIsNull);
    }
}

TEST(MessageFile, WhatWindowsRaisesOverItIsAnException) {
    for (const auto& raise : {&RaiseForeignException, &ReadFromNull}) {
        MessageRessource messages(kDriverFile);
        MessageCalls calls;
        calls.onLoad = raise;
        EXPECT_THROW(messages.Open(), ForeignException);
        calls.onLoad = nullptr;
        messages.Open();
        calls.onFormat = raise;
        EXPECT_THROW(messages.ReadMessage(kErrorId, 1, L"x"), ForeignException);
        calls.onFormat = nullptr;
        EXPECT_EQ(messages.ReadMessage(kErrorId, 2, L"x\0y\0"),
                  L"The adapter Fennlink U3 (x) has failed: y\r\n")
            << "the next one is read";
    }
}

TEST(DriverFilter, ReadsTheDriversOwnFileInTheSystemFolder) {
    const MessageCalls calls;
    Fenlu3 filter;
    EventRecord record;
    record.id = kErrorId;
    try {
        filter.CreateMessageFrom(RecordFrom(record.Bytes()));
    } catch (const CWindowsApiExcp&) {
        SUCCEED() << "the driver is not installed";
    }
    ASSERT_EQ(calls.loaded.size(), 1u);
    EXPECT_EQ(::_wcsicmp(calls.loaded[0].file.c_str(), L"C:\\windows\\system32\\drivers\\fenlu3.sys"), 0);
}

TEST(DriverFilter, HoldsTheFileOnlyWhileItMakesAMessage) {
    const MessageCalls calls;
    Fenlu3 filter(std::make_unique<MessageRessource>(kDriverFile));
    EXPECT_TRUE(calls.loaded.empty());
    EventRecord record;
    record.id = kErrorId;
    filter.CreateMessageFrom(RecordFrom(record.Bytes()));
    filter.CreateMessageFrom(RecordFrom(record.Bytes()));
    EXPECT_EQ(calls.loaded.size(), 2u) << "opened for each";
}
