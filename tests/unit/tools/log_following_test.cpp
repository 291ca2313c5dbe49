#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "event_log_entries.h"
#include "test_event_log.h"
#include "text.h"
#include "wine_gap_fixture.h"

// A log of the test's own, read and followed.
namespace {

using tessactl::EventLogFollower;
using tessactl::LogEntry;
using test_support::EventLogSetting;
using test_support::RunCommand;

constexpr wchar_t kLog[] = L"FollowTest";
constexpr wchar_t kSource[] = L"FollowTestSource";
constexpr DWORD kStarted = 0x100;
constexpr DWORD kNotRunning = 0x80000104;
using Numbers = std::vector<DWORD>;

class FollowedLog : public WineGap {
  protected:
    FollowedLog() {
        log_.AddSource(kSource);
        log_.AddSource(L"FollowTestOther");
    }
    void Write(DWORD id, WORD type = EVENTLOG_INFORMATION_TYPE, const wchar_t* source = kSource) {
        const HANDLE writer = ::RegisterEventSourceW(nullptr, source);
        EXPECT_TRUE(::ReportEventW(writer, type, 0, id, nullptr, 0, 0, nullptr, nullptr));
        ::DeregisterEventSource(writer);
    }
    void Clear() {
        const HANDLE log = ::OpenEventLogW(nullptr, kLog);
        EXPECT_TRUE(::ClearEventLogW(log, nullptr));
        ::CloseEventLog(log);
    }
    /// Registers files for the source's sentences, with variables.
    void Register(const std::wstring& files) {
        const std::wstring key =
            std::wstring(L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\") + kLog + L"\\" + kSource;
        EXPECT_EQ(
            ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"EventMessageFile", REG_EXPAND_SZ,
                              files.c_str(), static_cast<DWORD>((files.length() + 1) * sizeof(wchar_t))),
            ERROR_SUCCESS);
    }
    static Numbers Ids(EventLogFollower& follower) {
        Numbers ids;
        for (const LogEntry& entry : follower.ReadNew())
            ids.push_back(entry.eventId);
        return ids;
    }
    static test_support::CommandResult Tool(const std::wstring& arguments) {
        return RunCommand(std::wstring(L"tessactl.exe log --log ") + kLog + L" --source " + kSource + L" " +
                          arguments);
    }
    test_support::TestEventLog log_{kLog};
    EventLogFollower follower_{kLog, kSource};
};

bool Contains(const test_support::CommandResult& result, const std::string& text) {
    return result.output.find(text) != std::string::npos;
}

}  // namespace

TEST_F(FollowedLog, GivesEachEntryOfTheSourceOnce) {
    EXPECT_EQ(Ids(follower_), Numbers{});
    Write(1);
    Write(2, EVENTLOG_ERROR_TYPE, L"FollowTestOther");
    Write(3);
    EXPECT_EQ(Ids(follower_), (Numbers{1, 3}));
    EXPECT_EQ(Ids(follower_), Numbers{});
    Write(4);
    EXPECT_EQ(Ids(follower_), Numbers{4});
}

TEST_F(FollowedLog, GoesOnWhenItIsCleared) {
    Write(1);
    EXPECT_EQ(Ids(follower_), Numbers{1});
    Clear();
    EXPECT_EQ(Ids(follower_), Numbers{});
    Write(2);
    EXPECT_EQ(Ids(follower_), Numbers{2});
    Clear();
    Write(3);
    EXPECT_EQ(Ids(follower_), Numbers{3}) << "cleared and written to at once";
}

TEST_F(FollowedLog, GoesOnBehindARestartOfItsService) {
    Write(1);
    EXPECT_EQ(Ids(follower_), Numbers{1});
    Write(2);
    const EventLogSetting restarted(wine_gap::kServiceRestarts, 1);
    EXPECT_EQ(Ids(follower_), Numbers{2}) << "what was read does not come again";
    EXPECT_EQ(Ids(follower_), Numbers{});
}

TEST_F(FollowedLog, WhoseNumbersBeginAgainIsReadWhole) {
    Write(1);
    Write(2);
    EXPECT_EQ(Ids(follower_), (Numbers{1, 2}));
    ::DeleteFileW((wine_gap::DataFolder() + L"\\" + kLog + L".log").c_str());
    for (const DWORD id : Numbers{11, 12, 13})
        Write(id);
    const EventLogSetting restarted(wine_gap::kServiceRestarts, 1);
    EXPECT_EQ(Ids(follower_), (Numbers{11, 12, 13}));
}

TEST_F(FollowedLog, ThatCannotBeReadIsToldAndReadOnAfterwards) {
    Write(1);
    EXPECT_EQ(Ids(follower_), Numbers{1});
    {
        const EventLogSetting stopped(wine_gap::kServiceIsStopped, 1);
        EXPECT_THROW(follower_.ReadNew(), tessactl::ToolError);
        EXPECT_THROW(follower_.ReadNew(), tessactl::ToolError);
    }
    Write(2);
    EXPECT_EQ(Ids(follower_), Numbers{2});
}

TEST_F(FollowedLog, SentencesComeFromTheFirstOfSeveralFilesThatHasThem) {
    ::SetEnvironmentVariableW(L"TESSA_FOLDER", test_support::ProgramFolder().c_str());
    Write(kStarted);
    EXPECT_TRUE(Contains(Tool(L""), "(the sentence for this event is not installed)"));
    Register(std::wstring(300, L';') +
             L"C:\\no such.dll;%SystemRoot%\\system32\\setupapi.dll;%TESSA_FOLDER%tessaplug.dll");
    EXPECT_TRUE(Contains(Tool(L""), "0x00000100  The adapter service plug-in has started."))
        << Tool(L"").output;
}

TEST_F(FollowedLog, WhatAnEventSaysIsShownWithoutItsSentenceAsWell) {
    const HANDLE writer = ::RegisterEventSourceW(nullptr, kSource);
    const wchar_t* strings[] = {L"the device", L"hot"};
    EXPECT_TRUE(::ReportEventW(writer, EVENTLOG_ERROR_TYPE, 0, 7, nullptr, 2, 0, strings, nullptr));
    ::DeregisterEventSource(writer);
    EXPECT_TRUE(Contains(Tool(L""), "event is not installed) the device; hot")) << Tool(L"").output;
}

TEST_F(FollowedLog, IsShownInPart) {
    Register(test_support::ProgramFolder() + L"tessaplug.dll");
    Write(kStarted);
    Write(kNotRunning, EVENTLOG_WARNING_TYPE);
    Write(kStarted);
    EXPECT_FALSE(Contains(Tool(L"--level warning"), "has started"));
    EXPECT_TRUE(Contains(Tool(L"--level warning"), "0x80000104"));
    EXPECT_EQ(Tool(L"--count 0").output, "");
    EXPECT_FALSE(Contains(Tool(L"--count 1"), "0x80000104"));
    EXPECT_TRUE(Contains(Tool(L"--count 2"), "0x80000104"));
    EXPECT_TRUE(Contains(Tool(L"--since 1h"), "0x80000104"));
    EXPECT_EQ(Tool(L"--since 2100-01-01").output, "");
    EXPECT_EQ(Tool(L"--since 2100-01-01 --json").output, "[]\n");
}

TEST_F(FollowedLog, IsPrintedAsItGrowsAlsoBehindAClearing) {
    Register(test_support::ProgramFolder() + L"tessaplug.dll");
    Write(kStarted);
    test_support::CommandResult followed;
    std::thread tool([&] { followed = Tool(L"--follow --seconds 5 --count 0 --level warning --json"); });
    ::Sleep(1500);  // until it follows
    Write(kNotRunning, EVENTLOG_WARNING_TYPE);
    Write(kStarted);
    ::Sleep(1000);
    Clear();
    Write(0xC0000101, EVENTLOG_ERROR_TYPE);
    tool.join();
    EXPECT_EQ(followed.exitCode, 0u);
    const std::size_t first =
        followed.output.find(R"("type":"warning","id":2147483908,"text":"An adapter was)");
    const std::size_t second = followed.output.find(R"("type":"error","id":3221225729,"text":"The adapter)");
    ASSERT_NE(first, std::string::npos) << followed.output;
    ASSERT_NE(second, std::string::npos) << followed.output;
    EXPECT_LT(first, second);
    EXPECT_FALSE(Contains(followed, "has started")) << followed.output;
}

TEST_F(FollowedLog, WhoseServiceIsStoppedForAWhileIsFollowedOnAndThatIsToldOnce) {
    Register(test_support::ProgramFolder() + L"tessaplug.dll");
    test_support::CommandResult followed;
    std::thread tool([&] { followed = Tool(L"--follow --seconds 4 --count 0"); });
    ::Sleep(1000);  // until it follows
    {
        const EventLogSetting stopped(wine_gap::kServiceIsStopped, 1);
        ::Sleep(1000);
    }
    Write(kStarted);
    tool.join();
    EXPECT_EQ(followed.exitCode, 0u);
    const std::string told = "tessactl: The log FollowTest cannot be opened: ";
    EXPECT_TRUE(Contains(followed, told)) << followed.output;
    EXPECT_EQ(followed.output.find(told), followed.output.rfind(told)) << followed.output;
    EXPECT_TRUE(Contains(followed, "has started")) << followed.output;
}

TEST_F(FollowedLog, IsNotShownForWrongArguments) {
    for (const auto* arguments : {L"--since yesterday", L"--level x", L"--count x", L"--seconds 1",
                                  L"--follow --seconds 0", L"--follow --seconds", L"x"})
        EXPECT_EQ(Tool(arguments).exitCode, 2u) << arguments;
}
