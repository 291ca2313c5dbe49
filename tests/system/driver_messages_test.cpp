#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <utility>

#include "event_log_file.h"
#include "machine_sessions.h"
#include "message_window.h"
#include "station.h"
#include "test_event_log.h"

// From the adapter's driver to the person at the screen: the driver's record, the System event log, the
// plug-in's monitor and a window on the display of the machine.
namespace {

using adapter_control::Report;
using test_support::Answer;
using test_support::FindMessageBox;
using test_support::MachineSessions;
using test_support::MessageOf;
using test_support::Notification;
using test_support::RunCommand;
using test_support::WaitForMessageBox;

constexpr wchar_t kTitle[] = L"fenlu3";
constexpr DWORD kLongestWaitMs = 5000;  // of the monitor
constexpr DWORD kBoxMs = 4000;          // until a box is on the screen of a busy machine
enum Severity : DWORD { kInformation = 1, kWarning = 2, kError = 3 };

/// How large the System log may grow, of its lifetime.
class LogSizeLimit {
  public:
    explicit LogSizeLimit(DWORD bytes) {
        EXPECT_EQ(::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, L"MaxSize", REG_DWORD, &bytes, sizeof bytes),
                  ERROR_SUCCESS);
    }
    ~LogSizeLimit() { ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kKey, L"MaxSize"); }
    LogSizeLimit(const LogSizeLimit&) = delete;
    LogSizeLimit& operator=(const LogSizeLimit&) = delete;

  private:
    static constexpr wchar_t kKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\System";
};

/// A file that has another name in its lifetime.
class HiddenFile {
  public:
    explicit HiddenFile(std::wstring path) : path_(std::move(path)) {
        EXPECT_TRUE(::MoveFileExW(path_.c_str(), Elsewhere().c_str(), MOVEFILE_REPLACE_EXISTING));
    }
    ~HiddenFile() {
        EXPECT_TRUE(::MoveFileExW(Elsewhere().c_str(), path_.c_str(), MOVEFILE_REPLACE_EXISTING));
    }
    HiddenFile(const HiddenFile&) = delete;
    HiddenFile& operator=(const HiddenFile&) = delete;

  private:
    std::wstring Elsewhere() const { return path_ + L".hidden"; }
    std::wstring path_;
};

std::size_t WarningsOfTheMonitorsEnd() {
    const std::string log = RunCommand(L"tessactl.exe log").output;
    const std::string sentence = "no longer shows the errors that the adapters' drivers report";
    std::size_t count = 0;
    for (std::size_t at = log.find(sentence); at != std::string::npos; at = log.find(sentence, at + 1))
        ++count;
    return count;
}

class DriverMessages : public system_tests::Station, public testing::WithParamInterface<Notification> {
  protected:
    ~DriverMessages() override {
        while (HWND box = FindMessageBox(kTitle))
            if (!Answer(box)) break;
    }
    void ReportFromDriver(Severity severity, const std::wstring& text) {
        Report(fennlinkU3_, severity, text);
    }
    void WriteFlood(std::size_t count) const {
        wine_gap::Event foreign;
        foreign.source = L"somebody";
        foreign.type = EVENTLOG_ERROR_TYPE;
        ASSERT_EQ(systemLog_.Append(std::vector(count, foreign)), static_cast<DWORD>(ERROR_SUCCESS));
    }
    /// The next box says `text`, and is answered.
    static void ExpectBox(const std::wstring& text) {
        const HWND box = WaitForMessageBox(kTitle);
        ASSERT_NE(box, nullptr);
        EXPECT_EQ(MessageOf(box),
                  L"The adapter Fennlink U3 (\\Device\\TessaAdapterFenlu3) has failed: " + text + L"\r\n");
        EXPECT_TRUE(Answer(box));
    }
    /// What has been written until now shows no box: the next one is of what is written now.
    void ExpectNoBox() {
        ReportFromDriver(kError, L"nothing in between");
        ExpectBox(L"nothing in between");
    }

    const test_support::EventLogSetting notification_{wine_gap::kNotificationSets,
                                                      static_cast<DWORD>(GetParam())};
    const wine_gap::EventLogFile systemLog_{L"System"};
};

/// Who is logged on, and where. A change of the log is told at once, so that half a second shows that there
/// is no box.
class DriverMessagesAndSessions : public DriverMessages {
  protected:
    static void ExpectNothingShown() {
        ::Sleep(500);
        EXPECT_EQ(FindMessageBox(kTitle), nullptr);
    }
};

INSTANTIATE_TEST_SUITE_P(Notification, DriverMessages,
                         testing::Values(Notification::kPulsed, Notification::kSet),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Notification, DriverMessagesAndSessions, testing::Values(Notification::kSet),
                         testing::PrintToStringParamName());

}  // namespace

TEST_P(DriverMessages, ErrorIsShownOnceInWords) {
    StartService();
    ReportFromDriver(kInformation, L"all is well");
    ReportFromDriver(kWarning, L"a little warm");
    ReportFromDriver(kError, L"no bus voltage");
    ExpectBox(L"no bus voltage");
    ExpectNoBox();
}

TEST_P(DriverMessages, WarningAndInformationShowNothing) {
    StartService();
    ReportFromDriver(kInformation, L"all is well");
    ReportFromDriver(kWarning, L"a little warm");
    ExpectNoBox();
}

TEST_P(DriverMessages, ErrorsFromBeforeTheStartAreNotShown) {
    ReportFromDriver(kError, L"yesterday");
    StartService();
    ExpectNoBox();
}

TEST_P(DriverMessages, RecordsFromBeforeTheDriverWasInstalledAgainAreKept) {
    systemLog_.Clear();
    ReportFromDriver(kError, L"of the old one");
    EXPECT_TRUE(adapter_control::Uninstall(fennlinkU3_));
    EXPECT_TRUE(adapter_control::Install(fennlinkU3_, test_support::ProgramFolder() + L"adapters.inf"));
    ReportFromDriver(kError, L"of the new one");
    const std::string log = RunCommand(L"tessactl.exe log --log System --source fenlu3").output;
    const std::size_t old = log.find("has failed: of the old one");
    EXPECT_NE(old, std::string::npos) << log;
    EXPECT_NE(log.find("has failed: of the new one", old), std::string::npos) << log;
}

TEST_P(DriverMessages, ErrorsWaitUntilTheBoxBeforeIsAnswered) {
    StartService();
    ReportFromDriver(kError, L"first");
    ASSERT_NE(WaitForMessageBox(kTitle), nullptr);
    ReportFromDriver(kError, L"second");
    ReportFromDriver(kError, L"third");
    ExpectBox(L"first");
    ExpectBox(L"second");
    ExpectBox(L"third");
    ExpectNoBox();
}

TEST_P(DriverMessages, FloodOfOtherRecordsHidesNothing) {
    StartService();
    for (int i = 0; i < 5; ++i)  // wraps the log
        WriteFlood(3000);
    ReportFromDriver(kError, L"in the flood");
    WriteFlood(3000);
    ExpectBox(L"in the flood");
}

TEST_P(DriverMessages, EveryErrorOfABurstOfMoreThan64KilobytesIsShown) {
    StartService();
    for (const wchar_t* text : {L"first", L"second", L"third"}) {
        WriteFlood(1000);
        ReportFromDriver(kError, text);
    }
    WriteFlood(1000);
    ExpectBox(L"first");
    ExpectBox(L"second");
    ExpectBox(L"third");
    ExpectNoBox();
}

TEST_P(DriverMessages, ErrorsBehindABoxThatIsOpenForEightSecondsAreShownAtOnce) {
    StartService();
    ReportFromDriver(kError, L"first");
    ASSERT_NE(WaitForMessageBox(kTitle), nullptr);
    ::Sleep(2000);
    ReportFromDriver(kError, L"of which nobody is told");
    ::Sleep(4000);
    ReportFromDriver(kError, L"of which is told when nobody waits");
    ::Sleep(2000);
    ExpectBox(L"first");
    for (const wchar_t* text : {L"of which nobody is told", L"of which is told when nobody waits"}) {
        const ULONGLONG start = ::GetTickCount64();
        ExpectBox(text);
        EXPECT_LT(::GetTickCount64() - start, kBoxMs) << "less than a wait for the log";
    }
    ExpectNoBox();
}

TEST_P(DriverMessages, ErrorInTheQuietFiveSecondsIsShownWithinFive) {
    StartService();
    ReportFromDriver(kError, L"told of");
    ExpectBox(L"told of");
    ::Sleep(500);  // until the monitor waits again
    const ULONGLONG start = ::GetTickCount64();
    ReportFromDriver(kError, L"not told of");
    ExpectBox(L"not told of");
    EXPECT_LT(::GetTickCount64() - start, kLongestWaitMs + kBoxMs);
}

TEST_P(DriverMessages, ClearedLogIsWatchedOn) {
    StartService();
    ASSERT_EQ(systemLog_.Clear(), static_cast<DWORD>(ERROR_SUCCESS));
    // Until the monitor has opened it again: what is written meanwhile counts as old.
    ::Sleep(kLongestWaitMs + 1000);
    ReportFromDriver(kError, L"after clearing");
    ExpectBox(L"after clearing");
}

TEST_P(DriverMessages, ErrorBehindARecordOfMoreThanOneMegabyteIsShown) {
    const LogSizeLimit limit(0x1000000);
    StartService();
    wine_gap::Event giant;
    giant.source = L"somebody";
    giant.type = EVENTLOG_ERROR_TYPE;
    giant.data.resize(0x110000);
    ASSERT_EQ(systemLog_.Append({giant}), static_cast<DWORD>(ERROR_SUCCESS));
    ReportFromDriver(kError, L"behind the giant");
    ExpectBox(L"behind the giant");
    ASSERT_EQ(systemLog_.Append({giant, giant}), static_cast<DWORD>(ERROR_SUCCESS));
    ReportFromDriver(kError, L"behind two");
    ExpectBox(L"behind two");
    ExpectNoBox();
}

TEST_P(DriverMessages, MonitorThatHasEndedIsToldInTheApplicationLogOnce) {
    const std::size_t before = WarningsOfTheMonitorsEnd();
    const HiddenFile driver(L"C:\\windows\\system32\\drivers\\fenlu3.sys");
    StartService();
    ReportFromDriver(kError, L"without words");
    EXPECT_TRUE(test_support::Eventually([before] { return WarningsOfTheMonitorsEnd() == before + 1; }));
    EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);
    EXPECT_EQ(WarningsOfTheMonitorsEnd(), before + 1);
}

TEST_P(DriverMessages, OpenBoxDoesNotKeepTheServiceFromARestart) {
    StartService();
    ReportFromDriver(kError, L"unanswered");
    ASSERT_NE(WaitForMessageBox(kTitle), nullptr);
    const ULONGLONG start = ::GetTickCount64();
    EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);
    EXPECT_LT(::GetTickCount64() - start, 5000u) << "one second for the monitor, two that are fixed";
    EXPECT_EQ(Count("The plug-in stays loaded"), 1u) << "the box's thread will come back into it\n"
                                                     << HostLog();
    StartService();
}

TEST_P(DriverMessages, StopIsSwift) {
    StartService();
    const ULONGLONG start = ::GetTickCount64();
    EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);
    EXPECT_LT(::GetTickCount64() - start, 3500u) << "two seconds are fixed";
}

TEST_P(DriverMessagesAndSessions, NobodyLoggedOnEndsTheMonitorAndAUserWhoComesLaterSeesNothing) {
    const std::size_t before = WarningsOfTheMonitorsEnd();
    const MachineSessions machine({L"1 connected"});
    StartService();
    ReportFromDriver(kError, L"to nobody");
    EXPECT_TRUE(test_support::Eventually([before] { return WarningsOfTheMonitorsEnd() == before + 1; }));
    machine.Become({L"1 active"});
    ReportFromDriver(kError, L"to somebody");
    ExpectNothingShown();
}

TEST_P(DriverMessagesAndSessions, ErrorsWaitForASessionThatIsLocked) {
    const MachineSessions machine({L"1 locked"});
    StartService();
    ReportFromDriver(kError, L"first");
    ReportFromDriver(kError, L"second");
    ExpectNothingShown();
    machine.Become({L"1 active"});
    ExpectBox(L"first");
    machine.Become({L"1 locked"});
    ExpectNothingShown();
    machine.Become({L"1 active"});
    ExpectBox(L"second");
}

TEST_P(DriverMessagesAndSessions, OfTwoUsersTheFirstThatIsActiveIsTold) {
    const MachineSessions machine({L"1 disconnected", L"2 locked", L"3 active"});
    StartService();
    ReportFromDriver(kError, L"to the first");
    ExpectNothingShown();
    machine.Become({L"1 disconnected", L"2 active", L"3 active"});
    ExpectBox(L"to the first");
    ExpectNothingShown();
}
