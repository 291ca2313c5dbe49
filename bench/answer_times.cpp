#include <windows.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "long_recording.h"
#include "measure.h"
#include "memory_dump.h"
#include "running_station.h"
#include "subjects.h"
#include "text.h"
#include "unique_handle.h"
#include "watched_run.h"
#include "wine_gap_loader.h"

// The operator's tool as its user meets it: each command in a process of its own.
namespace bench {
namespace {

using test_support::StartedProgram;

constexpr DWORD kDoctorFoundProblems = 3;
constexpr DWORD kNever = INFINITE;
constexpr int kFewRounds = 11;

std::wstring TemporaryFolder() {
    wchar_t folder[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, folder);
    return folder;
}

double MillisecondsOfProgram(const std::wstring& commandLine) {
    DWORD exitCode = 0;
    const double time = MillisecondsOf([&] {
        const StartedProgram program(commandLine);
        if (program.Error() != ERROR_SUCCESS)
            throw std::runtime_error(tessactl::Utf8(commandLine) +
                                     " cannot be started: " + tessactl::ErrorInWords(program.Error()));
        program.WaitFor(kNever);
        exitCode = program.ExitCode();
    });
    if (exitCode != 0 && exitCode != kDoctorFoundProblems)
        throw std::runtime_error(tessactl::Utf8(commandLine) + " ended with " + std::to_string(exitCode));
    return time;
}

/// A dump of this process with the plug-in in it, which is removed at the end.
class Dump {
  public:
    Dump() : plugIn_(::LoadLibraryW(L"tessaplug.dll")) {
        if (!plugIn_ || !dump_.Create(L"tessaplug.dll")) throw std::runtime_error("no dump can be written");
    }
    ~Dump() { ::DeleteFileW(File().c_str()); }
    Dump(const Dump&) = delete;
    Dump& operator=(const Dump&) = delete;
    std::wstring File() const { return dump_.GetMemoryDumpAbsFileName(); }

  private:
    UniqueModule plugIn_;
    operating_system::MemoryDump dump_;
};

/// @param when appended to the command, for what is printed
void MeasureAnswer(const std::wstring& command, const char* when = "") {
    constexpr double kWanted = 300;
    const Comparison times = Alternate([&] { return MillisecondsOfProgram(L"tessactl.exe " + command); },
                                       [] { return MillisecondsOfProgram(L"emptyprogram.exe"); }, kFewRounds);
    std::vector<double> more;
    for (std::size_t i = 0; i < times.measured.size(); ++i)
        more.push_back(times.measured[i] - times.bare[i]);
    const double median = Median(more);
    const std::string name = tessactl::Utf8(command.substr(0, command.find(L" \""))) + when;
    std::printf("%-40s %8.0f ms (%.0f to %.0f)%s\n", name.c_str(), median, Percentile(more, 10),
                Percentile(more, 90), median > kWanted ? "  above 300" : "");
}

void PrintRun(const char* what, const test_support::WatchedRun& run) {
    constexpr double kMegabyte = 1 << 20;
    if (run.exitCode != 0) throw std::runtime_error(std::string(what) + " failed");
    std::printf("%-40s %8.1f s, %6.1f MB in the largest process, %6.1f MB private in %zu\n", what,
                run.milliseconds / 1000, static_cast<double>(run.largestWorkingSet) / kMegabyte,
                static_cast<double>(run.privateBytes) / kMegabyte, run.processes);
}

}  // namespace

void MeasureAnswers() {
    LoadWineGap();
    const Dump dump;
    const std::wstring folder = std::filesystem::path(dump.File()).parent_path().wstring();
    const std::wstring commands[] = {
        L"--version",
        L"--help",
        L"help trace decode",
        L"completion",
        L"status",
        L"status --json",
        L"log",
        L"log --log System --source fenlu3",
        L"exceptions",
        L"trace status",
        L"dump list --folder \"" + folder + L"\"",
        L"dump info \"" + dump.File() + L"\"",
        L"dump history \"" + dump.File() + L"\"",
        L"metrics",
    };
    const std::wstring askStationManager[] = {
        L"doctor",
        L"report \"" + TemporaryFolder() + L"tessabench-report.html\"",
    };
    std::printf("%-40s %8.0f ms\n", "an empty program, whole", Median([] {
                    std::vector<double> times;
                    for (int i = 0; i < kFewRounds; ++i)
                        times.push_back(MillisecondsOfProgram(L"emptyprogram.exe"));
                    return times;
                }()));
    for (const std::wstring& command : commands)
        MeasureAnswer(command);
    for (const std::wstring& command : askStationManager)
        MeasureAnswer(command);
    const KeptStationManager kept;
    for (const std::wstring& command : askStationManager)
        MeasureAnswer(command, ", station manager running");
    ::DeleteFileW((TemporaryFolder() + L"tessabench-report.html").c_str());
}

void MeasureLongRecording() {
    constexpr std::size_t kMessages = 1'000'000;
    const std::wstring recording = TemporaryFolder() + L"tessabench.etl";
    const std::wstring output = TemporaryFolder() + L"tessabench.out";
    test_support::WriteLongRecording(recording, kMessages);
    std::printf("%-40s %8.1f MB\n", "a recording of a million messages",
                static_cast<double>(std::filesystem::file_size(recording)) / (1 << 20));
    const std::wstring from = L" \"" + recording + L"\" ";
    const std::wstring to = L" \"" + output + L"\"";
    PrintRun("trace decode",
             test_support::RunWatched(L"tessactl.exe trace decode" + from + L"--output" + to));
    PrintRun(
        "trace decode --format chrome",
        test_support::RunWatched(L"tessactl.exe trace decode --format chrome" + from + L"--output" + to));
    PrintRun("report", test_support::RunWatched(L"tessactl.exe report --recording" + from + to));
    ::DeleteFileW(recording.c_str());
    ::DeleteFileW(output.c_str());
}

}  // namespace bench
