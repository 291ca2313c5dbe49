#include <windows.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

#include "common_files_folder.h"
#include "station.h"
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
    /// Milliseconds that a report took.
    static ULONGLONG TimeOf(const std::wstring& arguments, CommandResult& result) {
        const ULONGLONG begin = ::GetTickCount64();
        result = Tool(L"report " + arguments);
        return ::GetTickCount64() - begin;
    }
};

}  // namespace

TEST_F(Report, HasWhatTheStationHas) {
    StartService();
    EXPECT_EQ(Tool(L"trace start --file " + kRecording).exitCode, 0U);
    Plug(nx4120_);
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
    EXPECT_EQ(Tool(L"trace stop").exitCode, 0U);
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
