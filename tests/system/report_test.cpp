#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

#include "common_files_folder.h"
#include "component_store.h"
#include "event_log_file.h"
#include "process_list.h"
#include "program_folder.h"
#include "station.h"
#include "test_event_log.h"
#include "tool.h"

// The report of a real station.
namespace {

using system_tests::Contains;
using system_tests::Tool;
using test_support::CommandResult;

const std::wstring kPage = L"C:\\windows\\temp\\tessactl_report.html";
const std::wstring kRecording = L"C:\\windows\\temp\\tessactl_report.etl";

class Report : public system_tests::Station {
  protected:
    ~Report() override {
        ::DeleteFileW(kPage.c_str());
        ::DeleteFileW(kRecording.c_str());
    }
    static std::string Page() {
        std::ifstream file(std::filesystem::path(kPage), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static void Write(const std::wstring& path, const std::string& content) {
        std::ofstream(std::filesystem::path(path), std::ios::binary) << content;
    }
    /// Has the running service show an adapter's access points while a recording is made.
    void RecordArrival() {
        StartService();
        EXPECT_EQ(Tool(L"trace start --file " + kRecording).exitCode, 0U);
        Plug(nx4120_);
        EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
        EXPECT_EQ(Tool(L"trace stop").exitCode, 0U);
    }
    /// Milliseconds that a report took.
    static ULONGLONG TimeOf(const std::wstring& arguments, CommandResult& result) {
        const ULONGLONG begin = ::GetTickCount64();
        result = Tool(L"report " + arguments);
        return ::GetTickCount64() - begin;
    }
};

}  // namespace

TEST_F(Report, HasWhatTheStationHas) {
    RecordArrival();
    Write(kPage, "an older page");
    const CommandResult made = Tool(L"report " + kPage + L" --recording " + kRecording);
    EXPECT_EQ(made.exitCode, 0U) << made.output;
    const std::string page = Page();
    for (const auto* text :
         {"<!DOCTYPE html>",
          R"j("name":"NX4120(XLI)","installed":true,"exists":true,"hidden":false,"state":"visible")j",
          R"j("road":"arrival")j", R"j("text":"RUNNING)j", R"j("text":"Device event)j",
          R"j("text":"The adapter service plug-in has started)j",
          R"j("what":"NX4120: access points visible")j", R"j("account":"LocalSystem")j"})
        EXPECT_NE(page.find(text), std::string::npos) << text << made.output;
    EXPECT_EQ(page.find("an older page"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(kPage + L".part"));
    EXPECT_LT(page.size(), 20U << 20);
}

TEST_F(Report, IsWrittenWithoutAnythingToTell) {
    EXPECT_EQ(test_support::RunCommand(L"tessahost.exe uninstall").exitCode, 0U);
    Write(kRecording, "no recording");
    CommandResult made;
    EXPECT_LT(TimeOf(kPage + L" --recording " + kRecording + L" --dumps C:\\nowhere", made), 20'000U);
    EXPECT_EQ(made.exitCode, 0U) << made.output;
    for (const auto* text : {"  without service: the service \"tessahost\" cannot be opened",
                             "  without recording: ", "  without dumps: ", "  without exceptions: "})
        EXPECT_TRUE(Contains(made, text)) << text << made.output;
    EXPECT_NE(Page().find("<!DOCTYPE html>"), std::string::npos);
}

TEST_F(Report, DamagedDumpCostsItsPartOnly) {
    const std::wstring folder = L"C:\\windows\\temp\\tessactl_report_dumps";
    std::filesystem::create_directory(folder);
    Write(folder + L"\\tessaplug.dll_20261121-101112.dmp", "MDMP, and nothing behind it");
    const CommandResult made = Tool(L"report --json --dumps " + folder);
    EXPECT_TRUE(Contains(made, R"j("info":{"error":")j")) << made.output;
    EXPECT_TRUE(Contains(made, R"j(20261121-101112.dmp","bytes":27)j")) << made.output;
    EXPECT_TRUE(Contains(made, R"j("findings":{"data")j"));
    std::filesystem::remove_all(folder);
}

TEST_F(Report, LibraryThatHangsKeepsNothingElse) {
    test_support::ConfigurationLibraryLocation::Set(test_support::FaultyLibrary(L"hangs"));
    CommandResult made;
    EXPECT_LT(TimeOf(kPage, made), 20'000U);
    EXPECT_EQ(made.exitCode, 0U) << made.output;
    EXPECT_NE(Page().find(R"j("libraryError":"no answer within 6 seconds")j"), std::string::npos)
        << made.output;
    EXPECT_NE(Page().find(R"j("account":"LocalSystem")j"), std::string::npos);
}

TEST_F(Report, StationManagerThatHangsKeepsNothingElse) {
    EXPECT_EQ(test_support::RunCommand(L"stationmgr.exe register").exitCode, 0U);
    const station_manager::ComponentStore components;
    EXPECT_EQ(components.SetFault(L"hang-in-getdata"), ERROR_SUCCESS);
    CommandResult made;
    EXPECT_LT(TimeOf(kPage, made), 20'000U);
    EXPECT_EQ(components.SetFault(L"exit-in-getdata"),
              ERROR_SUCCESS);  // ends the server, which goes on with it
    EXPECT_TRUE(test_support::ProgramEnds(L"stationmgr.exe"));
    EXPECT_EQ(components.SetFault(L""), ERROR_SUCCESS);
    EXPECT_EQ(test_support::RunCommand(L"stationmgr.exe unregister").exitCode, 0U);
    EXPECT_EQ(made.exitCode, 0U) << made.output;
    EXPECT_TRUE(Contains(made, "  without components: no answer within 1")) << made.output;
    EXPECT_FALSE(Contains(made, "without service")) << made.output;
    EXPECT_NE(Page().find(R"j("account":"LocalSystem")j"), std::string::npos);
}

TEST_F(Report, HundredThousandRecordsAreTheNewestOfThem) {
    constexpr DWORD kRecords = 100'000;
    const wine_gap::EventLogFile log(L"System");
    EXPECT_EQ(log.Clear(), ERROR_SUCCESS);
    const DWORD limit = 64 << 20;
    constexpr wchar_t kKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\System";
    EXPECT_EQ(::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, L"MaxSize", REG_DWORD, &limit, sizeof limit), 0);
    std::vector<wine_gap::Event> records(
        kRecords, {L"fenlu3", EVENTLOG_ERROR_TYPE, 0, 0xC0040103, {L"\\Device\\Fenlu3", L"\"hot\""}, {}});
    records.back().strings.back() = L"\"the last one </script><b>\"";
    EXPECT_EQ(log.Append(records), ERROR_SUCCESS);
    EXPECT_EQ(log.State().Count(), kRecords);
    CommandResult made;
    EXPECT_LT(TimeOf(kPage, made), 20'000U);
    EXPECT_EQ(log.Clear(), ERROR_SUCCESS);
    ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kKey, L"MaxSize");
    EXPECT_EQ(made.exitCode, 0U) << made.output;
    EXPECT_FALSE(Contains(made, "without systemLog")) << made.output;
    const std::string page = Page();
    EXPECT_LT(page.size(), 20U << 20);
    EXPECT_NE(page.find(R"j("note":"There are more: these are the newest 2000.")j"), std::string::npos);
    EXPECT_NE(page.find(R"j(the last one \u003c/script\u003e\u003cb\u003e)j"), std::string::npos);
}

TEST_F(Report, EventLogThatRefusesCostsItsPartsOnly) {
    const test_support::EventLogSetting stopped(wine_gap::kServiceIsStopped, 1);
    CommandResult made;
    EXPECT_LT(TimeOf(kPage, made), 20'000U);
    EXPECT_EQ(made.exitCode, 0U) << made.output;
    EXPECT_TRUE(Contains(made, "  without applicationLog: ")) << made.output;
    EXPECT_TRUE(Contains(made, "  without systemLog: ")) << made.output;
    EXPECT_FALSE(Contains(made, "without service")) << made.output;
    const CommandResult metrics = Tool(L"metrics");
    for (const auto* line : {R"j(tessaplug_source_up{source="system_log"} 0)j",
                             R"j(tessaplug_source_up{source="application_log"} 0)j",
                             R"j(tessaplug_source_up{source="service"} 1)j"})
        EXPECT_TRUE(Contains(metrics, line)) << line << metrics.output;
}

TEST_F(Report, FilesThatAreRefusedCostTheirPartsOnly) {
    const std::filesystem::path folder = L"C:\\windows\\temp\\tessactl_report_held";
    std::filesystem::create_directory(folder);
    const std::wstring dump = folder / L"tessaplug.dll_20261121-101112.dmp";
    std::vector<HANDLE> held;
    for (const std::wstring& path : {dump, kRecording, log_}) {
        Write(path, "nobody else may read this");
        held.push_back(::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_NE(held.back(), INVALID_HANDLE_VALUE);
    }
    const CommandResult made =
        Tool(L"report --json --recording " + kRecording + L" --dumps " + folder.wstring());
    std::ranges::for_each(held, &::CloseHandle);
    std::filesystem::remove_all(folder);
    EXPECT_EQ(made.exitCode, 0U);
    for (const auto* text :
         {R"j("hostLog":{"error":"C:\\windows\\temp\\tessahost_test.log cannot be read: )j",
          R"j("recording":{"error":"C:\\windows\\temp\\tessactl_report.etl )j", R"j("info":{"error":")j",
          R"j("history":{"error":")j", R"j("service":{"data")j"})
        EXPECT_TRUE(Contains(made, text)) << text << made.output;
}

TEST_F(Report, RecordingOfAnotherBuildIsToldAsSuch) {
    RecordArrival();
    // Formats that lack some of what the recording has, as those of another build do.
    const std::filesystem::path formats = L"C:\\windows\\temp\\tessactl_report_tmf";
    std::filesystem::copy(test_support::ProgramFolder() + L"tmf", formats);
    std::filesystem::remove(formats / L"a4c8e2b6-7f1d-4e35-8c90-2d6b9f3a1e12.tmf");  // of tessaplug_pnp.cpp
    Write(formats / L"build.txt", "version 9.8.7.6\ncommit 0123456789ab\ndate 2020-02-03\n");
    const CommandResult made =
        Tool(L"report --json --recording " + kRecording + L" --tmf " + formats.wstring());
    std::filesystem::remove_all(formats);
    EXPECT_EQ(made.exitCode, 0U);
    EXPECT_TRUE(Contains(made, "9.8.7.6")) << made.output;
    EXPECT_FALSE(Contains(made, R"j("unknownMessages":0)j")) << made.output;
    EXPECT_TRUE(Contains(made, R"j("road":"arrival")j")) << "all else is known" << made.output;
}

TEST_F(Report, AnonymousOneHasNoNames) {
    wchar_t computer[256] = {};
    DWORD length = ARRAYSIZE(computer);
    ASSERT_TRUE(::GetComputerNameExW(ComputerNameNetBIOS, computer, &length));
    const std::wstring file = std::wstring(computer) + L"-recording.etl";
    const auto needle = [&](const std::string& json) {
        return json.find("\"computer\":\"" + std::string(computer, computer + length) + "\"") !=
               std::string::npos;
    };
    EXPECT_TRUE(needle(Tool(L"report --json").output));
    const CommandResult made = Tool(L"report --json --anonymous --recording C:\\users\\otto\\" + file);
    EXPECT_FALSE(needle(made.output)) << made.output;
    EXPECT_TRUE(Contains(made, R"j(C:\\users\\<user>\\<computer>-recording.etl does not exist)j"))
        << made.output;
}

TEST_F(Report, FileThatCannotBeWrittenIsTold) {
    const CommandResult nowhere = Tool(L"report C:\\nowhere\\report.html");
    EXPECT_EQ(nowhere.exitCode, 1U);
    EXPECT_TRUE(Contains(nowhere, "tessactl: C:\\nowhere\\report.html cannot be written: "))
        << nowhere.output;
    EXPECT_EQ(Tool(L"report C:\\windows").exitCode, 1U) << "a folder";
    for (const auto& entry : std::filesystem::directory_iterator(L"C:\\"))
        EXPECT_NE(entry.path().extension(), L".part") << "nothing is left of it";
    EXPECT_EQ(Tool(L"report --json FILE").exitCode, 2U);
}
