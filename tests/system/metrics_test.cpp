#include <windows.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "build_info.h"
#include "event_log_file.h"
#include "process_list.h"
#include "station.h"
#include "tool.h"

// What the tool tells a monitoring system of stations that are well and of such that are not.
namespace {

using adapter_control::Plug;
using adapter_control::Report;
using adapter_control::Unplug;
using system_tests::Contains;
using system_tests::Tool;
using test_support::CommandResult;
using test_support::ConfigurationLibraryLocation;
using test_support::Eventually;
using test_support::FaultyLibrary;
using test_support::ProcessRuns;

const std::vector<std::string> kSources = {"service",       "plug_in",    "exceptions",      "adapters",
                                           "access_points", "system_log", "application_log", "dumps"};

class Metrics : public system_tests::Station {
  protected:
    Metrics() {
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directory(folder_);
    }
    ~Metrics() override { std::filesystem::remove_all(folder_); }

    /// Metrics of this station, with dumps of its own. The backslash that ends their folder has to be told to
    /// the processes of the sources as well.
    CommandResult Run(const std::wstring& arguments = L"") const {
        return Tool(L"metrics --dumps \"" + folder_.wstring() + L"\\\\\" " + arguments);
    }

    const std::filesystem::path folder_ = L"C:\\windows\\temp\\metrics test";
};

/// The value of a sample; -1 if there is none.
double Value(const CommandResult& result, const std::string& sample) {
    const std::size_t at = result.output.find("\n" + sample + " ");
    return at == std::string::npos ? -1 : std::stod(result.output.substr(at + sample.length() + 2));
}

/// The sources that are told to be down.
std::vector<std::string> Down(const CommandResult& result) {
    std::vector<std::string> down;
    for (const std::string& source : kSources) {
        const double value = Value(result, "tessaplug_source_up{source=\"" + source + "\"}");
        EXPECT_TRUE(value == 0 || value == 1) << source << "\n" << result.output;
        if (value == 0) down.push_back(source);
    }
    return down;
}

std::string OfModel(const char* metric, const char* more = "") {
    return std::string("tessaplug_") + metric + "{model=\"NX4120\"" + more + "}";
}

void WriteLogEntry(DWORD id, WORD type) {
    wine_gap::Event event;
    event.source = L"tessaplug";
    event.type = type;
    event.id = id;
    EXPECT_EQ(wine_gap::EventLogFile(L"Application").Append({event}), ERROR_SUCCESS);
}

using Names = std::vector<std::string>;

}  // namespace

TEST_F(Metrics, FollowServiceAndAdapter) {
    const CommandResult before = Run();
    EXPECT_EQ(before.exitCode, 0u);
    EXPECT_EQ(Down(before), Names{});
    EXPECT_EQ(Value(before, "tessaplug_service_up{service=\"tessahost\"}"), 0);
    EXPECT_EQ(Value(before, "tessaplug_plugin_running"), 0);
    EXPECT_EQ(Value(before, "tessaplug_recent_exceptions"), -1) << "there is no plug-in that could have any";
    StartService();
    Plug(nx4120_);
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
    const CommandResult running = Run();
    EXPECT_EQ(Down(running), Names{}) << running.output;
    EXPECT_EQ(Value(running, "tessaplug_service_up{service=\"tessahost\"}"), 1);
    EXPECT_EQ(Value(running, "tessaplug_plugin_running"), 1);
    EXPECT_GE(Value(running, "tessaplug_recent_exceptions"), 0) << running.output;
    EXPECT_EQ(Value(running, OfModel("adapters_present")), 1);
    EXPECT_EQ(Value(running, OfModel("access_points", ",state=\"visible\"")), 5);
    EXPECT_EQ(Value(running, OfModel("access_points", ",state=\"hidden\"")), 0);
    EXPECT_EQ(Value(running, OfModel("access_points_mismatched")), 0);
    const std::string build =
        "tessaplug_build_info{version=\"" TESSA_VERSION_TEXT "\",commit=\"" TESSA_COMMIT "\"}";
    EXPECT_EQ(Value(running, build), 1) << running.output;
    EXPECT_NEAR(Value(running, "tessaplug_metrics_timestamp_seconds"),
                static_cast<double>(std::time(nullptr)), 30);
}

TEST_F(Metrics, LastExceptionIsToldWithItsTime) {
    StartService();
    store_.Delete(L"NX4120.XLI.1");  // and the panel that would make it is not there
    for (int round = 0; round < 2; ++round) {
        const auto begin = static_cast<double>(std::time(nullptr));
        Unplug(nx4120_);
        Plug(nx4120_);
        CommandResult told;
        const auto last = [&told] { return Value(told, "tessaplug_last_exception_timestamp_seconds"); };
        EXPECT_TRUE(Eventually([&] {
            told = Tool(L"metrics-source service");
            return last() >= begin;
        })) << told.output;
        EXPECT_LE(last(), static_cast<double>(std::time(nullptr)));
        EXPECT_FALSE(Contains(told, "tessaplug_recent_exceptions 0\n"));
        ::Sleep(1000);  // the next one is of another second
    }
}

TEST_F(Metrics, AccessPointsThatDoNotFollowAreCounted) {
    Plug(nx4120_);  // nobody looks
    EXPECT_EQ(Value(Run(), OfModel("access_points_mismatched")), 5);
    store_.Delete(L"NX4120.XLI.1");
    store_.SetValue(L"NX4120.AUTO.1", L"hidden", L"false");
    const CommandResult oneShown = Run();
    EXPECT_EQ(Value(oneShown, OfModel("access_points_mismatched")), 4) << "a missing one is to be made";
    EXPECT_EQ(Value(oneShown, OfModel("access_points", ",state=\"missing\"")), 1);
    Unplug(nx4120_);
    EXPECT_EQ(Value(Run(), OfModel("access_points_mismatched")), 1) << "the one that is shown";
    std::erase(entries_, L"LDT-NX4120.auto");
    store_.SetTemplateEntries(entries_);
    const CommandResult left = Run();
    EXPECT_EQ(Value(left, OfModel("access_points_mismatched")), 0) << "the plug-in leaves it alone";
    EXPECT_EQ(Value(left, OfModel("access_points", ",state=\"not installed\"")), 1);
}

TEST_F(Metrics, DriversRecordsAreCountedBySeverity) {
    const std::string errors = "tessaplug_driver_log_entries{driver=\"fenlu3\",severity=\"error\"}";
    const CommandResult before = Run();
    EXPECT_GE(Value(before, "tessaplug_driver_log_entries{driver=\"fenlu3\",severity=\"information\"}"), 0);
    Report(fennlinkU3_, 3, L"\"hot\"\n");
    Report(fennlinkU3_, 2, L"warm");
    EXPECT_TRUE(Eventually([&] { return Value(Run(), errors) == Value(before, errors) + 1; }));
    const CommandResult after = Run();
    for (const auto* severity : {"error", "warning"})
        EXPECT_NEAR(
            Value(after, std::string("tessaplug_driver_log_last_entry_timestamp_seconds{driver=\"fenlu3\""
                                     ",severity=\"") +
                             severity + "\"}"),
            static_cast<double>(std::time(nullptr)), 30)
            << severity;
}

TEST_F(Metrics, PlugInsEntriesAreCountedAndAMonitorThatEndedIsToldUntilTheNextStart) {
    const CommandResult before = Run();
    for (const auto* id : {"0x00000100", "0xC0000101", "0x80000104", "0x80000105"})
        EXPECT_GE(Value(before, std::string("tessaplug_log_entries{event_id=\"") + id + "\"}"), 0)
            << "also if there are none";
    const std::string ended = "tessaplug_log_entries{event_id=\"0x80000105\"}";
    const std::string other = "tessaplug_log_entries{event_id=\"other\"}";
    WriteLogEntry(0x80000105, EVENTLOG_WARNING_TYPE);
    WriteLogEntry(0x4711, EVENTLOG_INFORMATION_TYPE);
    WriteLogEntry(0x4712, EVENTLOG_INFORMATION_TYPE);
    const CommandResult after = Run();
    EXPECT_EQ(Value(after, ended), Value(before, ended) + 1);
    EXPECT_EQ(Value(after, other), std::max(Value(before, other), 0.0) + 2);
    EXPECT_FALSE(Contains(after, "4711")) << "a stranger's identifiers make no series";
    EXPECT_EQ(Value(after, "tessaplug_monitor_ended"), 1);
    WriteLogEntry(0x00000100, EVENTLOG_INFORMATION_TYPE);
    EXPECT_EQ(Value(Run(), "tessaplug_monitor_ended"), 0);
}

TEST_F(Metrics, DumpsAndTheirBytesAreCounted) {
    const CommandResult none = Run();
    EXPECT_EQ(Value(none, "tessaplug_dumps"), 0);
    EXPECT_EQ(Value(none, "tessaplug_last_dump_timestamp_seconds"), -1);
    std::ofstream(folder_ / L"tessaplug.dll_20261121-101112.dmp") << std::string(1000, 'x');
    std::ofstream(folder_ / L"tessaplug.dll_20261121-101113.dmp") << std::string(234, 'x');
    std::filesystem::last_write_time(folder_ / L"tessaplug.dll_20261121-101113.dmp",
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(2));
    std::ofstream(folder_ / L"another.dmp") << "x";
    const CommandResult two = Run();
    EXPECT_EQ(Value(two, "tessaplug_dumps"), 2);
    EXPECT_EQ(Value(two, "tessaplug_dump_bytes"), 1234);
    EXPECT_NEAR(Value(two, "tessaplug_last_dump_timestamp_seconds"), static_cast<double>(std::time(nullptr)),
                30);
}

TEST_F(Metrics, SourceThatRefusesIsDownAndToldAndTheOthersStay) {
    std::filesystem::remove_all(folder_);
    const CommandResult noFolder = Run();
    EXPECT_EQ(noFolder.exitCode, 0u);
    EXPECT_EQ(Down(noFolder), Names{"dumps"});
    EXPECT_EQ(Value(noFolder, "tessaplug_dumps"), -1);
    EXPECT_TRUE(Contains(noFolder, "tessactl: dumps: the folder ")) << noFolder.output;
    std::filesystem::create_directory(folder_);

    ConfigurationLibraryLocation::Set(L"C:\\no such folder");
    const CommandResult noLibrary = Run();
    EXPECT_EQ(Down(noLibrary), Names{"access_points"});
    EXPECT_EQ(Value(noLibrary, OfModel("access_points_mismatched")), -1);
    EXPECT_EQ(Value(noLibrary, OfModel("adapters_present")), 0);

    ConfigurationLibraryLocation::Set(FaultyLibrary(L"ends"));
    const CommandResult ends = Run();
    EXPECT_EQ(Down(ends), Names{"access_points"});
    EXPECT_TRUE(Contains(ends, "access_points: the process that asked ended with 0x0000E0D5")) << ends.output;
}

TEST_F(Metrics, PartnersProcessTellsTheEndOfEachOfItsSources) {
    const CommandResult eventLog = Tool(L"metrics-source event_log");
    EXPECT_EQ(eventLog.exitCode, 0u);
    const std::size_t first = eventLog.output.find("# told system_log\n");
    const std::size_t second = eventLog.output.find("# told application_log\n");
    EXPECT_LT(first, second) << eventLog.output;
    EXPECT_NE(second, std::string::npos);

    StartService();
    const CommandResult service = Tool(L"metrics-source service --plugin another.dll");
    EXPECT_EQ(service.exitCode, 1u);
    EXPECT_TRUE(Contains(service, "# told service\n")) << service.output;
    EXPECT_TRUE(Contains(service, "# told plug_in\n"));
    EXPECT_TRUE(Contains(service, "# failed exceptions\n"));

    const CommandResult nobody = Tool(L"metrics-source nobody");
    EXPECT_EQ(nobody.exitCode, 2u);
    EXPECT_TRUE(Contains(nobody, "there is no such partner"));
}

TEST_F(Metrics, ServiceWithoutThePlugInIsNotTakenForOneWithoutExceptions) {
    StartService();
    const CommandResult result = Run(L"--plugin another.dll");
    EXPECT_EQ(Down(result), Names{"exceptions"});
    EXPECT_EQ(Value(result, "tessaplug_recent_exceptions"), -1);
}

TEST_F(Metrics, SourceThatHangsHoldsThemNoLongerThanTheTimeout) {
    ConfigurationLibraryLocation::Set(FaultyLibrary(L"hangs"));
    const ULONGLONG start = ::GetTickCount64();
    const CommandResult result = Run(L"--timeout 3");
    EXPECT_LT(::GetTickCount64() - start, 9000u) << "ten seconds unless told otherwise";
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_EQ(Down(result), Names{"access_points"});
    EXPECT_TRUE(Contains(result, "tessactl: access_points: no answer in time"));
    EXPECT_EQ(Value(result, OfModel("adapters_present")), 0);
    EXPECT_FALSE(ProcessRuns(L"tessactl.exe"));
}

TEST_F(Metrics, HostileNameOfAServiceStaysOneLabel) {
    const CommandResult result = Run(LR"(--service "a\" \"b")");
    EXPECT_EQ(Value(result, R"(tessaplug_service_up{service="a\" \"b"})"), 0) << result.output;
}

TEST_F(Metrics, OutputIsAFileThatIsReplacedWithUnixLineEnds) {
    const auto file = folder_ / L"tessaplug.prom";
    std::ofstream(file) << "old";
    EXPECT_EQ(Run(L"--output \"" + file.wstring() + L"\"").output, "");
    std::ifstream stream(file, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    EXPECT_TRUE(text.starts_with("# HELP tessaplug_build_info ")) << text;
    EXPECT_EQ(text.find('\r'), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(file.wstring() + L".new"));
}

TEST_F(Metrics, AreWrittenAgainAndAgainUntilThatFails) {
    const auto file = folder_ / L"tessaplug.prom";
    CommandResult repeated;
    std::thread tool([&] { repeated = Run(L"--every 1 --output \"" + file.wstring() + L"\""); });
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(Eventually([&] { return std::filesystem::exists(file); }));
        EXPECT_TRUE(Eventually([&] { return ::DeleteFileW(file.c_str()); }));
    }
    EXPECT_TRUE(Eventually([&] { return ::CreateDirectoryW((file.wstring() + L".new").c_str(), nullptr); }));
    tool.join();
    EXPECT_EQ(repeated.exitCode, 1u);
    EXPECT_TRUE(Contains(repeated, "tessaplug.prom.new ")) << repeated.output;
}

TEST_F(Metrics, FileThatCannotBeWrittenEndsTheRepetition) {
    const CommandResult result = Run(L"--every 1 --output \"C:\\no such folder\\x.prom\"");
    EXPECT_EQ(result.exitCode, 1u);
    EXPECT_TRUE(Contains(result, "tessactl: C:\\no such folder\\x.prom.new cannot be opened: "))
        << result.output;
}
