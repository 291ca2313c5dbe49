#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <utility>

#include "event_log_file.h"
#include "message_window.h"
#include "station.h"

// From the adapter's driver to the person at the screen: the driver's record, the System event log, the
// plug-in's monitor and a window on the display of the machine.
namespace {

using adapter_control::Report;
using test_support::Answer;
using test_support::FindMessageBox;
using test_support::MessageOf;
using test_support::RunCommand;
using test_support::WaitForMessageBox;

constexpr wchar_t kTitle[] = L"fenlu3";
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

class DriverMessages : public system_tests::Station {
  protected:
    ~DriverMessages() override {
        while (HWND box = FindMessageBox(kTitle))
            if (!Answer(box)) break;
    }
    void ReportFromDriver(Severity severity, const std::wstring& text) {
        Report(fennlinkU3_, severity, text);
    }
    /// The next box says `text`, and is answered.
    static void ExpectBox(const std::wstring& text) {
        const HWND box = WaitForMessageBox(kTitle);
        ASSERT_NE(box, nullptr);
        EXPECT_EQ(MessageOf(box),
                  L"The adapter Fennlink U3 (\\Device\\TessaAdapterFenlu3) has failed: " + text + L"\r\n");
        EXPECT_TRUE(Answer(box));
    }
    static void ExpectNoBox() {
        ::Sleep(500);
        EXPECT_EQ(FindMessageBox(kTitle), nullptr);
    }

    const wine_gap::EventLogFile systemLog_{L"System"};
};

}  // namespace

TEST_F(DriverMessages, ErrorIsShownOnceInWords) {
    StartService();
    ReportFromDriver(kInformation, L"all is well");
    ReportFromDriver(kWarning, L"a little warm");
    ReportFromDriver(kError, L"no bus voltage");
    ExpectBox(L"no bus voltage");
    ExpectNoBox();
}

TEST_F(DriverMessages, WarningAndInformationShowNothing) {
    StartService();
    ReportFromDriver(kInformation, L"all is well");
    ReportFromDriver(kWarning, L"a little warm");
    ExpectNoBox();
}

TEST_F(DriverMessages, ErrorsFromBeforeTheStartAreNotShown) {
    ReportFromDriver(kError, L"yesterday");
    StartService();
    ExpectNoBox();
}

TEST_F(DriverMessages, RecordsFromBeforeTheDriverWasInstalledAgainAreKept) {
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

TEST_F(DriverMessages, ErrorsWaitUntilTheBoxBeforeIsAnswered) {
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

TEST_F(DriverMessages, FloodOfOtherRecordsHidesNothing) {
    StartService();
    wine_gap::Event foreign;
    foreign.source = L"somebody";
    foreign.type = EVENTLOG_ERROR_TYPE;
    const std::vector<wine_gap::Event> flood(3000, foreign);
    for (int i = 0; i < 5; ++i)  // wraps the log
        ASSERT_EQ(systemLog_.Append(flood), static_cast<DWORD>(ERROR_SUCCESS));
    ReportFromDriver(kError, L"in the flood");
    ASSERT_EQ(systemLog_.Append(flood), static_cast<DWORD>(ERROR_SUCCESS));
    ExpectBox(L"in the flood");
}

TEST_F(DriverMessages, ClearedLogIsWatchedOn) {
    StartService();
    ASSERT_EQ(systemLog_.Clear(), static_cast<DWORD>(ERROR_SUCCESS));
    ::Sleep(500);  // until the monitor has opened it again: what is written meanwhile counts as old
    ReportFromDriver(kError, L"after clearing");
    ExpectBox(L"after clearing");
}

TEST_F(DriverMessages, ErrorBehindARecordOfMoreThanOneMegabyteIsShown) {
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

TEST_F(DriverMessages, MonitorThatHasEndedIsToldInTheApplicationLogOnce) {
    const std::size_t before = WarningsOfTheMonitorsEnd();
    const HiddenFile driver(L"C:\\windows\\system32\\drivers\\fenlu3.sys");
    StartService();
    ReportFromDriver(kError, L"without words");
    EXPECT_TRUE(test_support::Eventually([before] { return WarningsOfTheMonitorsEnd() == before + 1; }));
    EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);
    EXPECT_EQ(WarningsOfTheMonitorsEnd(), before + 1);
}

TEST_F(DriverMessages, OpenBoxDoesNotKeepTheServiceFromARestart) {
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

TEST_F(DriverMessages, StopIsSwift) {
    StartService();
    const ULONGLONG start = ::GetTickCount64();
    EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);
    EXPECT_LT(::GetTickCount64() - start, 3500u) << "two seconds are fixed";
}
