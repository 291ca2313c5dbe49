#include <windows.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

#include "component_store.h"
#include "process_list.h"
#include "station.h"
#include "tool.h"

// Single parts of a report, as the processes tell them that it asks.
namespace {

using station_manager::MakeComponent;
using system_tests::Contains;
using system_tests::Tool;
using test_support::CommandResult;
using test_support::RunCommand;

const std::wstring kRecording = L"C:\\windows\\temp\\tessactl_report_part.etl";

class ReportPart : public system_tests::Station {
  protected:
    ~ReportPart() override { ::DeleteFileW(kRecording.c_str()); }
    static void Write(const std::wstring& path, const std::string& content) {
        std::ofstream(std::filesystem::path(path), std::ios::binary) << content;
    }
    /// Lines of the service's log, each with a time.
    static std::string Lines(int count, const std::string& behind = "") {
        std::string lines;
        for (int i = 0; i < count; ++i)
            lines += "2026-11-21 10:11:12.131  line " + std::to_string(i) + behind + "\r\n";
        return lines;
    }
};

}  // namespace

TEST_F(ReportPart, StationHasTheCatalogNameOfEachModelAndTheStateOfEachAccessPoint) {
    store_.Delete(L"NX4120.XLI.1");
    const CommandResult told = Tool(L"report-part station");
    for (const auto* text :
         {R"j("catalogName":"NX4120")j", R"j("catalogName":""},{"model":"NX4120")j",
          R"j("name":"NX4120(XLI)","installed":true,"exists":false,"hidden":false,"state":"missing")j"})
        EXPECT_TRUE(Contains(told, text)) << text << told.output;
}

TEST_F(ReportPart, ComponentsHaveTheirStates) {
    station_manager::ComponentStore components;
    components.Wipe();
    components.SetComponents({MakeComponent(1, "PC Station", "Station"),
                              MakeComponent(2, "NX4120", "Line 1", station_manager::kStopped),
                              MakeComponent(3, "OTHER", "\xc4", station_manager::kRunningDisturbed),
                              MakeComponent(4, "OTHER", "Line 2", 0x299)});
    EXPECT_EQ(RunCommand(L"stationmgr.exe register").exitCode, 0U);
    EXPECT_EQ(Tool(L"report-part components").output,
              R"j([{"number":1,"catalogName":"PC Station","name":"Station","state":"running"},)j"
              R"j({"number":2,"catalogName":"NX4120","name":"Line 1","state":"stopped"},)j"
              "{\"number\":3,\"catalogName\":\"OTHER\",\"name\":\"\xc3\x84\",\"state\":\"disturbed\"},"
              R"j({"number":4,"catalogName":"OTHER","name":"Line 2","state":"0x299"}])j"
              "\n");
    EXPECT_TRUE(test_support::ProgramEnds(L"stationmgr.exe"));
    RunCommand(L"stationmgr.exe unregister");
    components.Wipe();
}

TEST_F(ReportPart, HostLogIsToldLineByLine) {
    Write(log_, "torn\r\n2026-11-21 10:11:12.131  STOPPED\r\n\r\n2026-11-21 no time");
    EXPECT_TRUE(Contains(Tool(L"report-part host-log"),
                         R"j("lines":[{"time":"","text":"torn"},)j"
                         R"j({"time":"2026-11-21 10:11:12.131","text":"STOPPED"},)j"
                         R"j({"time":"","text":"2026-11-21 no time"}]})j"))
        << Tool(L"report-part host-log").output;
}

TEST_F(ReportPart, HostLogThatIsLongIsToldFromItsEnd) {
    Write(log_, Lines(5000));
    const CommandResult newest = Tool(L"report-part host-log");
    EXPECT_TRUE(Contains(newest, "\"line 4999\"}]}"));
    EXPECT_TRUE(Contains(newest, "\"lines\":[{\"time\":\"2026-11-21 10:11:12.131\",\"text\":\"line 3000\"}"));
    Write(log_, Lines(500, std::string(1000, ' ') + "."));
    const CommandResult end = Tool(L"report-part host-log");
    EXPECT_TRUE(Contains(end, "\"text\":\"line 499 "));
    EXPECT_FALSE(Contains(end, "\"text\":\"line 0 ")) << "more than is read";
    EXPECT_FALSE(Contains(end, "\"time\":\"\"")) << "the first one is whole";
}

TEST_F(ReportPart, FilesAreThoseOfTheProductsFolderAndTheServicesLog) {
    const std::wstring folder = L"C:\\ProgramData\\Tessaplug";
    const bool wasThere = std::filesystem::exists(folder);
    std::filesystem::create_directories(folder + L"\\a folder.etl");
    Write(folder + L"\\report_part.etl", "12345");
    Write(log_, "1");
    const CommandResult told = Tool(L"report-part files");
    std::filesystem::remove(folder + L"\\a folder.etl");
    ::DeleteFileW((folder + L"\\report_part.etl").c_str());
    if (!wasThere) std::filesystem::remove_all(folder);
    const std::size_t at =
        told.output.find(R"j("file":"C:\\ProgramData\\Tessaplug\\report_part.etl","bytes":5,)j");
    ASSERT_NE(at, std::string::npos) << told.output;
    constexpr char kAge[] = "\"ageSeconds\":";
    EXPECT_LT(std::stoi(told.output.substr(told.output.find(kAge, at) + sizeof kAge - 1)), 60);
    EXPECT_TRUE(Contains(told, "tessahost_test.log\",\"bytes\":1,")) << told.output;
    EXPECT_FALSE(Contains(told, "a folder"));
}

TEST_F(ReportPart, RecordingThatIsCutOffIsToldUpToThere) {
    EXPECT_EQ(Tool(L"trace start --file " + kRecording).exitCode, 0U);
    StartService();
    EXPECT_EQ(Tool(L"trace stop").exitCode, 0U);
    const std::wstring part = L"report-part recording --recording " + kRecording;
    EXPECT_TRUE(Contains(Tool(part), R"j("damage":"","isCut":false)j"));
    std::filesystem::resize_file(kRecording, std::filesystem::file_size(kRecording) / 2);
    const CommandResult cut = Tool(part);
    EXPECT_TRUE(Contains(cut, "is cut off or damaged; ")) << cut.output;
    EXPECT_TRUE(Contains(cut, R"j("calls":[[)j"));
}

TEST_F(ReportPart, AnonymousPageBearsNoNameAndItsTextsAreNotTooLong) {
    Write(log_, "2026-11-21 10:11:12.131  " + std::string(5000, 'x'));
    const CommandResult made = Tool(L"report --anonymous --recording nowhere.etl");
    EXPECT_EQ(made.exitCode, 0U) << made.output;
    EXPECT_TRUE(Contains(made, ":\\")) << made.output;
    EXPECT_FALSE(Contains(made, " nowhere.etl does not exist")) << "it is told in full\n" << made.output;
    const std::filesystem::path page = made.output.substr(0, made.output.find("  "));
    constexpr char kName[] = "tessaplug-report-20001231-235959.html";
    EXPECT_EQ(page.filename().string().length(), sizeof kName - 1) << page;
    std::ifstream file(page, std::ios::binary);
    const std::string content(std::istreambuf_iterator<char>(file), {});
    EXPECT_NE(content.find('"' + std::string(2000, 'x') + "...\""), std::string::npos);
    file.close();
    EXPECT_TRUE(std::filesystem::remove(page));
}

TEST_F(ReportPart, AccountOfTheServiceIsLeftOutOfAnAnonymousReport) {
    const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    const SC_HANDLE service = ::OpenServiceW(manager, L"tessahost", SERVICE_CHANGE_CONFIG);
    EXPECT_TRUE(::ChangeServiceConfigW(service, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                                       nullptr, nullptr, nullptr, nullptr, L"PLANT\\svc", L"", nullptr));
    ::CloseServiceHandle(service);
    ::CloseServiceHandle(manager);
    const CommandResult told = Tool(L"report --json --anonymous");
    EXPECT_TRUE(Contains(told, R"j("account":"<computer>\\<user>")j")) << told.output;
}
