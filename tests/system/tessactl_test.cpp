#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <thread>

#include "common_files_folder.h"
#include "station.h"
#include "tool.h"
#include "wine_gap_loader.h"

// The operator's tool beside a real station.
namespace {

using adapter_control::Plug;
using adapter_control::Report;
using adapter_control::Unplug;
using system_tests::Contains;
using system_tests::Tool;
using test_support::CommandResult;
using test_support::CommonFilesFolder;
using test_support::ConfigurationLibraryLocation;
using test_support::ProgramFolder;
using test_support::RunCommand;

const std::wstring kFile = L"C:\\windows\\temp\\tessactl_test.etl";

class Tessactl : public system_tests::Station {
  protected:
    ~Tessactl() override { ::DeleteFileW(kFile.c_str()); }
    static std::string NarrowFile() { return {kFile.begin(), kFile.end()}; }
    static void WriteFile(const std::string& content) {
        std::ofstream(NarrowFile(), std::ios::binary) << content;
    }
    static std::string ReadFile() {
        std::ifstream file(NarrowFile(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

}  // namespace

TEST_F(Tessactl, StatusFollowsAPlug) {
    StartService();
    const CommandResult before = Tool(L"status");
    EXPECT_EQ(before.exitCode, 0u);
    EXPECT_TRUE(Contains(before, "plug-in runs on this machine   yes")) << before.output;
    EXPECT_TRUE(Contains(before, "NX4120(XLI)                   yes        yes     hidden")) << before.output;
    EXPECT_TRUE(Contains(before, "NX4120        -\n")) << before.output;
    EXPECT_TRUE(Contains(before, "Global\\NX3307_SHM__{9C4C3B75-CA8D-481E-92B8-0424C0B296F1}     yes"))
        << before.output;
    Plug(nx4120_);
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
    const CommandResult after = Tool(L"status");
    EXPECT_TRUE(Contains(after, "NX4120(XLI)                   yes        yes     visible")) << after.output;
    EXPECT_FALSE(Contains(after, "NX4120        -\n")) << after.output;
    EXPECT_TRUE(Contains(after, "its path comes from            the registry"));
}

TEST_F(Tessactl, StatusTellsWhatIsNotInstalledAndWhatIsMissing) {
    std::erase(entries_, L"LDT-NX4120.fwl");
    store_.SetTemplateEntries(entries_);
    store_.Delete(L"NX4120.XLI.1");
    const CommandResult status = Tool(L"status --json");
    EXPECT_TRUE(Contains(status, R"j({"name":"NX4120(FWL)","installed":false,"exists":true,"hidden":true})j"))
        << status.output;
    EXPECT_TRUE(
        Contains(status, R"j({"name":"NX4120(XLI)","installed":true,"exists":false,"hidden":false})j"))
        << status.output;
    EXPECT_TRUE(Contains(status, R"j({"schema":1,"plugInRuns":false,)j"));
}

TEST_F(Tessactl, ShowsAndHidesOneAccessPoint) {
    EXPECT_EQ(Tool(L"show NX4120(XLI)").output, "NX4120(XLI) is visible now.\n");
    EXPECT_EQ(State(L"NX4120.XLI.1"), L"visible");
    EXPECT_EQ(State(L"NX4120.AUTO.1"), L"hidden");
    EXPECT_EQ(Tool(L"hide NX4120(XLI)").output, "NX4120(XLI) is hidden now.\n");
    EXPECT_EQ(State(L"NX4120.XLI.1"), L"hidden");
    EXPECT_EQ(Tool(L"show NX4120(XLI) --json").output,
              "{\"schema\":1,\"name\":\"NX4120(XLI)\",\"hidden\":false}\n");
}

TEST_F(Tessactl, RefusesAccessPointsThatAreNotThere) {
    const CommandResult unknown = Tool(L"show nx4120(xli)");
    EXPECT_EQ(unknown.exitCode, 1u);
    EXPECT_TRUE(Contains(unknown, "tessactl: nx4120(xli) is not installed; ")) << unknown.output;
    store_.Delete(L"NX4120.XLI.1");
    const CommandResult missing = Tool(L"hide NX4120(XLI)");
    EXPECT_EQ(missing.exitCode, 1u);
    EXPECT_TRUE(Contains(missing, "is installed but does not exist; ")) << missing.output;
    EXPECT_EQ(Tool(L"show").exitCode, 2u);
    EXPECT_EQ(Tool(L"show A B").exitCode, 2u);
}

TEST_F(Tessactl, WatchPrintsWhatHappens) {
    LoadWineGap();  // on Windows there is nothing to load
    StartService();
    CommandResult watched;
    std::thread watcher([&watched] { watched = Tool(L"watch --seconds 5 --json"); });
    ::Sleep(2000);  // until it watches
    Plug(nx4120_);
    Report(fennlinkU3_, 2, L"hot");
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
    const HANDLE log = ::RegisterEventSourceW(nullptr, L"tessaplug");
    EXPECT_TRUE(::ReportEventW(log, EVENTLOG_WARNING_TYPE, 0, 0x80000104, nullptr, 0, 0, nullptr, nullptr));
    ::DeregisterEventSource(log);
    ::Sleep(500);
    Unplug(nx4120_);
    watcher.join();
    EXPECT_EQ(watched.exitCode, 0u);
    for (const auto* event : {R"j("event":"arrival","what":"NX4120")j",
                              R"j("event":"access point","what":"NX4120(XLI)","text":"visible")j",
                              R"j("event":"message","what":"fenlu3","text":"warning: The adapter)j",
                              R"j("event":"log entry","what":"tessaplug","text":"warning: An adapter was)j",
                              R"j("event":"removal","what":"NX4120")j"})
        EXPECT_TRUE(Contains(watched, event)) << event << watched.output;
    EXPECT_FALSE(Contains(watched, "has started")) << "that was before\n" << watched.output;
    EXPECT_FALSE(Contains(watched, R"(\n")")) << "sentences end without a new line\n" << watched.output;
}

TEST_F(Tessactl, WatchTellsOfALibraryThatFailsForAWhile) {
    CommandResult watched;
    std::thread watcher([&] { watched = Tool(L"watch --seconds 4"); });
    ::Sleep(1500);
    ConfigurationLibraryLocation::Set(L"C:\\no such folder");
    ::Sleep(1000);
    ConfigurationLibraryLocation::Set(ProgramFolder() + L"station");
    watcher.join();
    EXPECT_TRUE(Contains(watched, "problem       configuration library         FAILED! LoadLibraryW()!"))
        << watched.output;
    EXPECT_EQ(watched.output.find("problem  "), watched.output.rfind("problem  ")) << "it is told once\n"
                                                                                   << watched.output;
    EXPECT_TRUE(Contains(watched, "well again")) << watched.output;
    EXPECT_FALSE(Contains(watched, "access point  NX4120")) << "none has changed\n" << watched.output;
}

TEST_F(Tessactl, EveryCommandSaysThatTheLibraryIsMissing) {
    ConfigurationLibraryLocation::Set(L"C:\\no such folder");
    Plug(nx4120_);
    const CommandResult status = Tool(L"status");
    EXPECT_EQ(status.exitCode, 0u) << "the rest is shown";
    EXPECT_TRUE(Contains(status, "not known: FAILED! LoadLibraryW()!")) << status.output;
    const CommandResult doctor = Tool(L"doctor");
    EXPECT_EQ(doctor.exitCode, 3u);
    EXPECT_TRUE(Contains(doctor, "PROBLEM  configuration library found ")) << doctor.output;
    EXPECT_TRUE(Contains(doctor, "-> install the configuration library, or let HKEY_LOCAL_MACHINE"))
        << doctor.output;
    EXPECT_TRUE(Contains(doctor, "ok       NX4120: adapter present and active")) << doctor.output;
    EXPECT_FALSE(Contains(doctor, "access points visible")) << "it cannot know\n" << doctor.output;
    for (const auto* command : {L"show NX4120(XLI)", L"hide NX4120(XLI)"}) {
        const CommandResult refused = Tool(command);
        EXPECT_EQ(refused.exitCode, 1u);
        EXPECT_TRUE(Contains(refused, "FAILED! LoadLibraryW()!")) << refused.output;
    }
    const CommandResult watched = Tool(L"watch --seconds 1");
    EXPECT_EQ(watched.exitCode, 0u);
    EXPECT_TRUE(Contains(watched, "adapters and messages only")) << watched.output;
}

TEST_F(Tessactl, EveryCommandSaysThatTheLibrarysPathIsTooLong) {
    ConfigurationLibraryLocation::Remove();
    const CommonFilesFolder folder(CommonFilesFolder::ForPathOf(260));
    const std::string told = "the path of the configuration library has 260 characters";
    for (const auto* command : {L"status", L"doctor", L"show NX4120(XLI)", L"hide NX4120(XLI)"}) {
        const CommandResult result = Tool(command);
        EXPECT_TRUE(Contains(result, told)) << result.output;
    }
}

TEST_F(Tessactl, WorksWithoutTheService) {
    EXPECT_EQ(RunCommand(L"tessahost.exe uninstall").exitCode, 0u);
    EXPECT_EQ(Tool(L"status").exitCode, 0u);
    EXPECT_TRUE(Contains(Tool(L"doctor"), "PROBLEM  service installed")) << "and what to do";
    EXPECT_EQ(Tool(L"show NX4120(XLI)").exitCode, 0u);
    EXPECT_EQ(Tool(L"hide NX4120(XLI)").exitCode, 0u);
    EXPECT_EQ(Tool(L"watch --seconds 1").exitCode, 0u);
    EXPECT_EQ(Tool(L"log").exitCode, 0u);
    EXPECT_EQ(Tool(L"trace start").exitCode, 0u);
    EXPECT_EQ(Tool(L"trace start").exitCode, 1u) << "one recording at a time";
    EXPECT_EQ(Tool(L"trace stop").exitCode, 0u);
    EXPECT_TRUE(Contains(Tool(L"trace stop"), "no recording is running"));
    EXPECT_EQ(Tool(L"trace decode").exitCode, 0u);
}

TEST_F(Tessactl, RecordingThatRunsIsToldWithItsLimitWhoeverStartedIt) {
    EXPECT_EQ(Tool(L"trace status").output, "No recording is running.\n");
    EXPECT_EQ(Tool(L"trace status --json").output, "{\"schema\":1,\"running\":false}\n");
    EXPECT_EQ(Tool(L"trace start --size 3 --circular --file " + kFile).exitCode, 0u);
    const CommandResult circular = Tool(L"trace status");
    EXPECT_TRUE(Contains(circular, "recording into   " + NarrowFile())) << circular.output;
    EXPECT_TRUE(Contains(circular, "size limit       3 MB, circular: the oldest messages go"));
    EXPECT_TRUE(Contains(circular, "losses           no events were lost"));
    const CommandResult json = Tool(L"trace status --json");
    EXPECT_TRUE(Contains(json, R"("circular":true,"sizeLimitMegabytes":3,)")) << json.output;
    EXPECT_TRUE(Contains(json, R"("eventsLost":0)")) << json.output;
    const CommandResult second = Tool(L"trace start");
    EXPECT_EQ(second.exitCode, 1u);
    EXPECT_TRUE(Contains(second, "is running already, into " + NarrowFile())) << second.output;
    EXPECT_TRUE(Contains(second, "end it with \"tessactl trace stop\""));
    EXPECT_EQ(Tool(L"trace stop").output, "Recorded into " + NarrowFile() + "; no events were lost.\n");
    EXPECT_EQ(Tool(L"trace status").output, "No recording is running.\n");

    EXPECT_EQ(Tool(L"trace start --size 3 --file " + kFile).exitCode, 0u);
    EXPECT_TRUE(Contains(Tool(L"trace status"), "size limit       3 MB, at which it ends"));
    EXPECT_EQ(Tool(L"trace stop").exitCode, 0u);
    EXPECT_EQ(Tool(L"trace start --file " + kFile).exitCode, 0u);
    EXPECT_TRUE(Contains(Tool(L"trace status"), "size limit       none\n"));
    EXPECT_EQ(Tool(L"trace stop").exitCode, 0u);
}

TEST_F(Tessactl, CircularRecordingNeedsASize) {
    const CommandResult refused = Tool(L"trace start --circular");
    EXPECT_EQ(refused.exitCode, 2u);
    EXPECT_TRUE(Contains(refused, "a circular recording needs a size, at which it begins again: --size MB"))
        << refused.output;
    EXPECT_EQ(Tool(L"trace status").output, "No recording is running.\n");
}

TEST_F(Tessactl, RecordingTellsWhichFunctionsItHasInPart) {
    StartService();
    EXPECT_EQ(Tool(L"trace start --file " + kFile).exitCode, 0u);
    EXPECT_EQ(RunCommand(L"tessahost.exe stop").exitCode, 0u);
    EXPECT_EQ(Tool(L"trace stop").exitCode, 0u);
    const CommandResult text = Tool(L"trace decode " + kFile);
    EXPECT_TRUE(Contains(text, "tessactl: functions that were left but not entered in the recording: "))
        << "those of the worker and the monitor\n"
        << text.output;
    const CommandResult chrome = Tool(L"trace decode --format chrome " + kFile);
    for (const auto* name : {"service with tessaplug", "main", "worker", "monitor"})
        EXPECT_TRUE(Contains(chrome, R"("args":{"name":")" + std::string(name) + R"("}})")) << name;
}

TEST_F(Tessactl, RecordingsThatCannotBeReadAreTold) {
    EXPECT_EQ(Tool(L"trace decode \"C:\\no such.etl\"").exitCode, 1u);
    WriteFile("something else");
    EXPECT_TRUE(Contains(Tool(L"trace decode " + kFile), "is no trace recording"));
    WriteFile("");
    EXPECT_TRUE(Contains(Tool(L"trace decode " + kFile), "is no trace recording"));
}

TEST_F(Tessactl, RelativeRecordingIsMadeInTheCallersFolder) {
    const CommandResult started = Tool(L"trace start --file relative.etl");
    EXPECT_TRUE(started.output.starts_with("Recording into ")) << started.output;
    EXPECT_TRUE(started.output.find(":\\") != std::string::npos) << started.output;
    EXPECT_EQ(Tool(L"trace stop").exitCode, 0u);
    EXPECT_TRUE(::DeleteFileW(L"relative.etl"));
}

TEST_F(Tessactl, RecordingIsNotWrittenThroughALink) {
    const std::wstring folder = L"C:\\ProgramData\\Tessaplug";
    const std::wstring recording = folder + L"\\tessaplug.etl";
    ::CreateDirectoryW(folder.c_str(), nullptr);
    ::DeleteFileW(recording.c_str());
    WriteFile("somebody's own");
    ASSERT_TRUE(::CreateHardLinkW(recording.c_str(), kFile.c_str(), nullptr));
    const CommandResult refused = Tool(L"trace start");
    EXPECT_TRUE(::DeleteFileW(recording.c_str()));
    EXPECT_EQ(refused.exitCode, 1u);
    EXPECT_TRUE(Contains(refused, "tessaplug.etl has 2 names (hard links); ")) << refused.output;
    EXPECT_EQ(ReadFile(), "somebody's own");
    EXPECT_TRUE(Contains(Tool(L"trace stop"), "no recording is running"));
}

TEST_F(Tessactl, RecordingIsNotWrittenWhereItsFolderIsSomethingElse) {
    const std::wstring folder = L"C:\\ProgramData\\Tessaplug";
    const std::wstring aside = folder + L".aside";
    const bool wasThere = ::MoveFileW(folder.c_str(), aside.c_str());
    {
        const std::ofstream file(std::string(folder.begin(), folder.end()));
    }
    const CommandResult refused = Tool(L"trace start");
    EXPECT_TRUE(::DeleteFileW(folder.c_str()));
    EXPECT_EQ(refused.exitCode, 1u);
    EXPECT_TRUE(Contains(refused, "Tessaplug is a file, not a folder")) << refused.output;
    const CommandResult made = Tool(L"trace start");
    EXPECT_EQ(made.exitCode, 0u) << made.output;
    EXPECT_EQ(made.output, "Recording into C:\\ProgramData\\Tessaplug\\tessaplug.etl\n");
    EXPECT_EQ(Tool(L"trace stop").exitCode, 0u);
    std::filesystem::remove_all(folder);
    if (wasThere) EXPECT_TRUE(::MoveFileW(aside.c_str(), folder.c_str()));
}

TEST_F(Tessactl, RecordingThatIsCutOffIsShownUpToThere) {
    EXPECT_EQ(Tool(L"trace start --file " + kFile).exitCode, 0u);
    StartService();
    EXPECT_EQ(Tool(L"trace stop").exitCode, 0u);
    const CommandResult whole = Tool(L"trace decode " + kFile);
    EXPECT_EQ(whole.exitCode, 0u);
    const std::string recording = ReadFile();
    for (const std::size_t missing : {std::size_t{1}, recording.size() / 2}) {
        WriteFile(recording.substr(0, recording.size() - missing));
        const CommandResult cut = Tool(L"trace decode " + kFile);
        EXPECT_EQ(cut.exitCode, 1u);
        EXPECT_TRUE(Contains(cut, "is cut off or damaged; what comes before that is shown."));
        EXPECT_TRUE(Contains(cut, whole.output.substr(0, whole.output.find('\n'))));
    }
    EXPECT_TRUE(Contains(Tool(L"trace decode --format chrome " + kFile), "\"traceEvents\""));
}

TEST_F(Tessactl, RecordingOfMessagesThatTheFormatsLackIsOfAnotherBuild) {
    EXPECT_EQ(Tool(L"trace start --file " + kFile).exitCode, 0u);
    StartService();
    EXPECT_EQ(Tool(L"trace stop").exitCode, 0u);
    constexpr char kWarning[] = " messages are not known to the trace formats in ";
    EXPECT_FALSE(Contains(Tool(L"trace decode " + kFile), kWarning));
    const std::filesystem::path formats = L"C:\\windows\\temp\\other formats";
    std::filesystem::remove_all(formats);
    std::filesystem::create_directories(formats);
    const std::filesystem::path known = ProgramFolder() + L"tmf";
    const auto all = std::filesystem::directory_iterator(known);
    const auto one =
        std::ranges::find_if(all, [](const auto& entry) { return entry.path().extension() == L".tmf"; });
    std::filesystem::copy(one->path(), formats);
    const std::wstring decode = L"trace decode " + kFile + L" --tmf \"" + formats.wstring() + L"\"";
    const CommandResult unknown = Tool(decode);
    EXPECT_EQ(unknown.exitCode, 0u) << "what is decoded is printed";
    EXPECT_TRUE(Contains(unknown, kWarning)) << unknown.output;
    EXPECT_TRUE(
        Contains(unknown, "(of an unknown build, without build.txt): the recording is of another build"))
        << unknown.output;
    std::ofstream(formats / L"build.txt") << "version V7\ncommit c7\ndate d7\n";
    EXPECT_TRUE(Contains(Tool(decode), "(of V7, commit c7 of d7): the recording is of another build"));
    std::filesystem::remove_all(formats);
}

TEST_F(Tessactl, WhatIsNotUnderstoodIsSaid) {
    for (const auto* arguments : {L"",
                                  L"nonsense",
                                  L"status x",
                                  L"doctor x",
                                  L"watch --seconds x",
                                  L"trace",
                                  L"log x",
                                  L"trace start my.etl",
                                  L"trace start --level 1",
                                  L"trace start --level 5x",
                                  L"trace start --flags x",
                                  L"trace start --flags 0",
                                  L"trace start --flags -1",
                                  L"trace stop now",
                                  L"trace start --flags 0x100000000",
                                  L"trace decode --format xml",
                                  L"watch --seconds 5x",
                                  L"show",
                                  L"show a b",
                                  L"dump info",
                                  L"dump a.dmp",
                                  L"doctor --timeout 0",
                                  L"log --source",
                                  L"trace status x",
                                  L"trace start --size 0",
                                  L"trace start --size 5000",
                                  L"trace start --size x",
                                  L"probe nobody"})
        EXPECT_EQ(Tool(arguments).exitCode, 2u) << arguments;
    const CommandResult mistyped = Tool(L"trace strat");
    EXPECT_EQ(mistyped.output,
              "tessactl: unknown command strat; did you mean \"start\"?\nTry \"tessactl help trace\".\n");
    const CommandResult help = Tool(L"help");
    EXPECT_EQ(help.exitCode, 0u);
    EXPECT_FALSE(Contains(help, "probe")) << "that is for doctor itself";
    for (const auto* command :
         {"status", "doctor", "show", "hide", "watch", "exceptions", "dump", "trace", "log"})
        EXPECT_TRUE(Contains(help, std::string("  ") + command)) << command;
}
