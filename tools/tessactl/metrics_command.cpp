#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <io.h>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "build_version.h"
#include "commands.h"
#include "limited_process.h"
#include "metrics_sources.h"
#include "output.h"
#include "replaced_file.h"
#include "text.h"

// Each source is read in a process of its own, which runs the hidden command "metrics-source": one that hangs
// or ends its caller takes nothing with it. They run side by side, so all together take as long as the
// slowest.
namespace tessactl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kWhole[] = "# whole";  // what a source's process prints last

struct Options {
    MetricsRequest request;
    std::wstring output;
    unsigned long every = 0;     // seconds; 0: once
    unsigned long timeOut = 10;  // seconds
};

struct SourceOptions {
    MetricsRequest request;
    std::wstring name;
};

void DefineRequest(command_line::Command& command, MetricsRequest& request) {
    command.Text("--service", request.service, "NAME", "the service, tessahost unless told otherwise");
    command.Text("--plugin", request.plugIn, "FILE",
                 "file name of its plug-in, tessaplug.dll unless told otherwise");
    command.Text("--dumps", request.dumps, "FOLDER",
                 "where its memory dumps are, unless its account is LocalSystem");
}

std::wstring ArgumentsFor(const MetricsSource& source, const MetricsRequest& request) {
    std::wstring arguments = L"metrics-source " + Widened(source.name, CP_UTF8) + L" --service " +
                             Quoted(request.service) + L" --plugin " + Quoted(request.plugIn);
    if (!request.dumps.empty()) arguments += L" --dumps " + Quoted(request.dumps);
    return arguments;
}

/// Runs in a process of its own.
ExitCode PrintSource(const SourceOptions& options) {
    for (const MetricsSource& source : MetricsSources()) {
        if (options.name != Widened(source.name, CP_UTF8)) continue;
        Samples samples;
        std::string error;
        try {
            source.read(options.request, samples);
        } catch (const std::exception& failure) {
            error = InWords(failure);
        }
        for (const std::string& sample : samples)
            std::printf("%s\n", sample.c_str());
        std::printf("%s\n", kWhole);
        if (error.empty()) return ExitCode::kSuccess;
        std::fprintf(stderr, "tessactl: %s: %s\n", source.name, error.c_str());
        return ExitCode::kFailed;
    }
    throw command_line::UsageError("there is no such source");
}

/// What a source told, if it did.
LimitedResult Ask(const MetricsSource& source, const Options& options) {
    try {
        return RunThisProgram(ArgumentsFor(source, options.request), std::chrono::seconds(options.timeOut));
    } catch (const ToolError& error) {
        std::fprintf(stderr, "tessactl: %s: %s\n", source.name, error.what());
        return {.ended = true, .exitCode = static_cast<DWORD>(ExitCode::kFailed), .output = {}, .errors = {}};
    }
}

/// Adds what a source told, unless its process was cut off, in the middle of who knows what.
/// @return whether it told everything
bool AddTo(Exposition& metrics, const MetricsSource& source, const LimitedResult& result) {
    std::fputs(result.errors.c_str(), stderr);
    std::vector<std::string> lines;
    std::istringstream output(result.output);
    for (std::string line; std::getline(output, line);) {
        std::erase(line, '\r');
        lines.push_back(line);
    }
    const bool isWhole = std::ranges::find(lines, kWhole) != lines.end();
    if (!result.ended)
        std::fprintf(stderr, "tessactl: %s: no answer in time\n", source.name);
    else if (!isWhole && result.exitCode != static_cast<DWORD>(ExitCode::kFailed))
        std::fprintf(stderr, "tessactl: %s: the process that asked ended with 0x%08lX\n", source.name,
                     result.exitCode);
    if (!result.ended || !isWhole) return false;
    for (const std::string& line : lines)
        metrics.Add(line);  // a library in that process may have printed something of its own
    return result.exitCode == static_cast<DWORD>(ExitCode::kSuccess);
}

double SecondsSince1970() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<double>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

std::string Gather(const Options& options) {
    const auto start = Clock::now();
    const auto sources = MetricsSources();
    std::vector<LimitedResult> results(sources.size());
    {
        std::vector<std::jthread> askers;
        for (std::size_t i = 0; i < sources.size(); ++i)
            askers.emplace_back([&, i] { results[i] = Ask(sources[i], options); });
    }
    Exposition metrics;
    for (std::size_t i = 0; i < sources.size(); ++i)
        metrics.Add(SampleLine("tessaplug_source_up", {{"source", sources[i].name}},
                               AddTo(metrics, sources[i], results[i])));
    const BuildVersion build = OwnBuild();
    metrics.Add(
        SampleLine("tessaplug_build_info", {{"version", build.version}, {"commit", build.commit}}, 1));
    metrics.Add(SampleLine("tessaplug_metrics_timestamp_seconds", {}, SecondsSince1970()));
    metrics.Add(SampleLine("tessaplug_metrics_duration_seconds", {},
                           std::chrono::duration<double>(Clock::now() - start).count()));
    return metrics.Text();
}

void Write(const Options& options) {
    const std::string text = Gather(options);
    if (!options.output.empty())
        ReplaceFileContent(options.output, text);
    else
        std::printf("%s", text.c_str());
    std::fflush(stdout);
}

ExitCode Metrics(const Options& options) {
    constexpr DWORD kStepMs = 250;
    // The format knows no carriage returns.
    ::_setmode(::_fileno(stdout), _O_BINARY);
    auto next = Clock::now();
    while (true) {
        Write(options);
        if (options.every == 0) return ExitCode::kSuccess;
        next = std::max(next + std::chrono::seconds(options.every), Clock::now());
        while (Clock::now() < next)
            ::Sleep(kStepMs);
        if (!command_line::OutputIsTaken()) return ExitCode::kSuccess;
    }
}

void Define(command_line::Command& command, Options& options) {
    constexpr unsigned long kDay = 24 * 60 * 60;
    command.Text("--output", options.output, "FILE",
                 "a file that is replaced whole, so that a collector may read it at any moment");
    command.Number("--every", options.every, 1, kDay, "SECONDS",
                   "again each time that so many have passed, until Ctrl+C; once unless told otherwise");
    DefineRequest(command, options.request);
    command.Number("--timeout", options.timeOut, 1, 3600, "SECONDS", "how long a source may take to answer");
}

void DefineSource(command_line::Command& command, SourceOptions& options) {
    command.Operand("SOURCE", options.name, "which");
    DefineRequest(command, options.request);
    command.Hide();
}

}  // namespace

void AddMetrics(command_line::Program& program) {
    AddCommand<Options>(program, "metrics",
                        "tells the station's numbers in the text format of Prometheus\n"
                        "a source that refuses or hangs is told as tessaplug_source_up 0, the others stay",
                        &Define, &Metrics);
    AddCommand<SourceOptions>(program, "metrics-source", "reads one source; for metrics only", &DefineSource,
                              &PrintSource);
}

}  // namespace tessactl
