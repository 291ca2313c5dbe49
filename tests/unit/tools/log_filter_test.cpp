#include "log_filter.h"

#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "event_messages.h"

using tessactl::Filtered;
using tessactl::LogEntry;
using tessactl::LogFilter;
using tessactl::MessageFilesFrom;
using tessactl::ParseSince;
using tessactl::TypeNamed;

namespace {

constexpr DWORD kNow = 1'790'000'000;
constexpr DWORD kMidnight = 1'795'219'200;  // 2026-11-21T00:00:00Z

/// Of the numbers of entries that pass.
std::vector<DWORD> Passing(const LogFilter& filter, std::optional<ULONG> count = std::nullopt) {
    const std::vector<LogEntry> entries = {{1, 10, EVENTLOG_ERROR_TYPE, 0, L"", {}},
                                           {2, 20, EVENTLOG_WARNING_TYPE, 0, L"", {}},
                                           {3, 30, EVENTLOG_INFORMATION_TYPE, 0, L"", {}},
                                           {4, 40, EVENTLOG_AUDIT_FAILURE, 0, L"", {}}};
    std::vector<DWORD> numbers;
    for (const LogEntry& entry : Filtered(entries, filter, count))
        numbers.push_back(entry.number);
    return numbers;
}
using Numbers = std::vector<DWORD>;

}  // namespace

TEST(LogFilter, LetsPassWhatIsGraveAndLateEnough) {
    EXPECT_EQ(Passing({}), (Numbers{1, 2, 3, 4}));
    EXPECT_EQ(Passing({0, EVENTLOG_WARNING_TYPE}), (Numbers{1, 2}));
    EXPECT_EQ(Passing({0, EVENTLOG_ERROR_TYPE}), Numbers{1});
    EXPECT_EQ(Passing({20, EVENTLOG_INFORMATION_TYPE}), (Numbers{2, 3, 4}));
    EXPECT_EQ(Passing({20, EVENTLOG_ERROR_TYPE}), Numbers{});
}

TEST(LogFilter, CountTakesTheLastOfThosePassing) {
    EXPECT_EQ(Passing({0, EVENTLOG_WARNING_TYPE}, 1), Numbers{2});
    EXPECT_EQ(Passing({}, 0), Numbers{});
    EXPECT_EQ(Passing({}, 9), (Numbers{1, 2, 3, 4}));
}

TEST(LogLevel, HasAName) {
    EXPECT_EQ(TypeNamed(L"error"), EVENTLOG_ERROR_TYPE);
    EXPECT_EQ(TypeNamed(L"warning"), EVENTLOG_WARNING_TYPE);
    EXPECT_EQ(TypeNamed(L"information"), EVENTLOG_INFORMATION_TYPE);
    EXPECT_EQ(TypeNamed(L"other"), std::nullopt);
    EXPECT_STREQ(tessactl::TypeName(EVENTLOG_AUDIT_FAILURE), "other");
}

TEST(LogSince, MayBeHowLongAgo) {
    EXPECT_EQ(ParseSince(L"90s", kNow), kNow - 90);
    EXPECT_EQ(ParseSince(L"10m", kNow), kNow - 600);
    EXPECT_EQ(ParseSince(L"2h", kNow), kNow - 7200);
    EXPECT_EQ(ParseSince(L"3d", kNow), kNow - 3 * 86400);
    EXPECT_EQ(ParseSince(L"999999d", kNow), 0u) << "before there were any";
}

TEST(LogSince, MayBeATimeInUtc) {
    EXPECT_EQ(ParseSince(L"2026-11-21Z", kNow), kMidnight);
    EXPECT_EQ(ParseSince(L"2026-11-21T10:11Z", kNow), kMidnight + 10 * 3600 + 11 * 60);
    EXPECT_EQ(ParseSince(L"2026-11-21 10:11:12Z", kNow), kMidnight + 10 * 3600 + 11 * 60 + 12);
}

TEST(LogSince, MayBeALocalTime) {
    tm time = {};
    time.tm_year = 126;
    time.tm_mon = 10;
    time.tm_mday = 21;
    time.tm_hour = 10;
    time.tm_isdst = -1;
    EXPECT_EQ(ParseSince(L"2026-11-21T10:00", kNow), static_cast<DWORD>(std::mktime(&time)));
}

TEST(LogSince, InLocalTimeIsNotInUtc) {
    ::_putenv("TZ=TST-3");
    ::_tzset();
    EXPECT_EQ(ParseSince(L"2026-11-21T03:00", kNow), kMidnight);
    EXPECT_EQ(ParseSince(L"2026-11-21T03:00Z", kNow), kMidnight + 3 * 3600);
}

TEST(LogSince, ThatIsNoTimeIsRefused) {
    for (const auto* text : {L"", L"10", L"m", L"10y", L"-1m", L"1234567m", L"2026-11", L"2026-13-01",
                             L"2026-02-30", L"2026-11-21T24:00", L"2026-11-21T10:60", L"2026-11-21T10:59:60",
                             L"2026-11-21T99:00", L"1900-01-01", L"2200-01-01", L"2026-11-21T10:11:12x"})
        EXPECT_EQ(ParseSince(text, kNow), std::nullopt) << text;
}

TEST(MessageFiles, AreSeparatedBySemicolonsAndHaveVariables) {
    ::SetEnvironmentVariableW(L"TESSA_FOLDER", L"C:\\some folder");
    using Files = std::vector<std::wstring>;
    EXPECT_EQ(MessageFilesFrom(L"C:\\a.dll"), Files{L"C:\\a.dll"});
    EXPECT_EQ(MessageFilesFrom(L"%TESSA_FOLDER%\\a.dll;C:\\b.dll"),
              (Files{L"C:\\some folder\\a.dll", L"C:\\b.dll"}));
    EXPECT_EQ(MessageFilesFrom(L";C:\\a.dll; ; C:\\b.dll ;"), (Files{L"C:\\a.dll", L"C:\\b.dll"}));
    EXPECT_EQ(MessageFilesFrom(L"%TESSA_NONE%\\a.dll"), Files{L"%TESSA_NONE%\\a.dll"});
    EXPECT_EQ(MessageFilesFrom(L""), Files{});
}
