#include <cstddef>
#include <cstring>
#include <cwchar>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "event_record.h"
#include "evlog_check.h"
#include "module_hooks.h"
#include "mutation.h"
#include "windows_api_excp.h"

// What the event log hands out comes from drivers and programs of all makers, and from files that power
// failures damage.
namespace {

using operating_system::EventLogFilterIf;
using operating_system::EventLogRecord;
using operating_system::EventRecordParser;
using operating_system::Fenlu3;
using operating_system::FilterChain;
using operating_system::MessageRessource;
using operating_system::UserMessage;
using test_support::EventRecord;

std::size_t looked = 0;

/// Uses the insertion strings as the system's formatting would: each to its end.
class StringsThatAreRead : public MessageRessource {
  public:
    StringsThatAreRead() : MessageRessource(L"no file") {}
    void Open() override {}
    void Close() override {}
    std::wstring ReadMessage(DWORD, DWORD argc, const wchar_t* argv) override {
        std::wstring all;
        for (DWORD i = 0; i < argc; ++i) {
            std::wstring one;
            // The strings of a damaged record may begin at odd addresses.
            const auto* at = reinterpret_cast<const std::byte*>(argv) + all.length() * sizeof(wchar_t);
            wchar_t c = 0;
            do {
                std::memcpy(&c, at, sizeof c);
                at += sizeof c;
                one += c;
            } while (c != L'\0');
            all += one;
        }
        return all;
    }
};

/// Looks at everything that a record tells.
class LookingFilter : public EventLogFilterIf {
  public:
    bool Validate(const EventLogRecord& record) override {
        looked += record.GetSourceName().length() + record.GetNumberOfSoundStrings();
        looked += record.GetMessageId() + record.GetType() + std::wcslen(record.GetEventTypeName());
        looked += record.Print().length() + record.GetTimeStampFromRecord().length();
        return false;
    }
    UserMessage CreateMessageFrom(const EventLogRecord&) override { return {}; }
};

}  // namespace

TEST(DamagedEventRecords, AreReadWithinTheirBytesOrRefused) {
    const auto chain = std::make_shared<FilterChain>(FilterChain{
        std::make_shared<LookingFilter>(), std::make_shared<Fenlu3>(std::make_unique<StringsThatAreRead>())});
    EventRecordParser parser(chain);
    EventRecord error;
    error.id = 0xC0000001;
    error.strings = {L"first", L"second string", L""};
    EventRecord foreign;
    foreign.source = L"disk";
    foreign.strings = {L"x"};
    EventRecord warning;
    warning.id = 0x80000002;
    warning.timeGenerated = 1700000000;
    const auto sound = test_support::Joined({error.Bytes(), foreign.Bytes(), warning.Bytes()});
    std::vector<UserMessage> messages;
    parser.Process(sound, messages);
    ASSERT_EQ(messages.size(), 2u) << "the sound ones are understood";

    std::size_t understood = 0;
    std::size_t refused = 0;
    test_support::ForEachCase([&](test_support::Mutator& mutator) {
        const test_support::ModuleHooks hooks;  // damaged records are asserted
        const auto damaged = mutator.Damaged(sound);
        messages.clear();
        try {
            parser.Process(damaged, messages);
            ++understood;
        } catch (const std::invalid_argument&) {
            ++refused;
        } catch (const modul_exception::CWindowsApiExcp&) {
            ++refused;
        }
        std::size_t length = 0;
        for (const UserMessage& message : messages)
            length += message.message.length();
        EXPECT_LE(length, damaged.size()) << "no message has more than there was";
    });
    EXPECT_GT(understood, 0u);
    EXPECT_GT(refused, 0u);
    EXPECT_GT(looked, 0u);
}
