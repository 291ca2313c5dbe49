#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <io.h>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "build_version.h"
#include "commands.h"
#include "limited_process.h"
#include "metrics_answer.h"
#include "metrics_sources.h"
#include "output.h"
#include "replaced_file.h"
#include "text.h"

// Each partner is asked in a process of its own, which runs the hidden command "metrics-source": one that
// hangs or ends its caller takes nothing with it but what would have been asked of it next. They run side by
// side, so all together take as long as the slowest.
namespace tessactl {
namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    MetricsRequest request;
    std::wstring output;
    unsigned long every = 0;     // seconds; 0: once
    unsigned long timeOut = 10;  // seconds
};

struct SourceOptions {
    MetricsRequest request;
    std::wstring partner;
};

void DefineRequest(command_line::Command& command, MetricsRequest& request) {
    command.Text("--service", request.service, "NAME", "the service, tessahost unless told otherwise");
    command.Text("--plugin", request.plugIn, "FILE",
                 "file name of its plug-in, tessaplug.dll unless told otherwise");
    command.Text("--dumps", request.dumps, "FOLDER",
                 "where its memory dumps are, unless its account is LocalSystem");
}

std::wstring ArgumentsFor(std::string_view partner, const MetricsRequest& request) {
    std::wstring arguments = L"metrics-source " + Widened(std::string(partner), CP_UTF8) + L" --service " +
                             Quoted(request.service) + L" --plugin " + Quoted(request.plugIn);
    if (!request.dumps.empty()) arguments += L" --dumps " + Quoted(request.dumps);
    return arguments;
}

/// @return whether it told everything
bool PrintSource(const MetricsSource& source, const MetricsRequest& request) {
    Samples samples;
    std::string error;
    try {
        source.read(request, samples);
    } catch (const std::exception& failure) {
        error = InWords(failure);
    }
    for (const std::string& sample : samples)
        std::printf("%s\n", sample.c_str());
    std::printf("%s\n", EndOfSource(source.name, error.empty()).c_str());
    std::fflush(stdout);  // the next one may end the process
    if (!error.empty()) std::fprintf(stderr, "tessactl: %s: %s\n", source.name, error.c_str());
    return error.empty();
}

/// Runs in a process of its own.
ExitCode PrintSources(const SourceOptions& options) {
    bool isKnown = false;
    bool toldAll = true;
    for (const MetricsSource& source : MetricsSources()) {
        if (options.partner != Widened(source.partner, CP_UTF8)) continue;
        isKnown = true;
        toldAll = PrintSource(source, options.request) && toldAll;
    }
    if (!isKnown) throw command_line::UsageError("there is no such partner");
    return toldAll ? ExitCode::kSuccess : ExitCode::kFailed;
}

/// What came of a partner's process.
struct Answer {
    LimitedResult result;
    PartnerAnswer told;
};

Answer Ask(std::string_view partner, const Options& options) {
    Answer answer;
    try {
        answer.result =
            RunThisProgram(ArgumentsFor(partner, options.request), std::chrono::seconds(options.timeOut));
    } catch (const ToolError& error) {
        std::fprintf(stderr, "tessactl: %s: %s\n", std::string(partner).c_str(), error.what());
        answer.result.ended = true;
        answer.result.exitCode = static_cast<DWORD>(ExitCode::kFailed);
    }
    answer.told = PartnerAnswer(answer.result.output);
    return answer;
}

/// Says why a source's process came to no end of it.
void TellUnfinished(const MetricsSource& source, const LimitedResult& result) {
    if (!result.ended)
        std::fprintf(stderr, "tessactl: %s: no answer in time\n", source.name);
    else if (result.exitCode != static_cast<DWORD>(ExitCode::kFailed))
        std::fprintf(stderr, "tessactl: %s: the process that asked ended with 0x%08lX\n", source.name,
                     result.exitCode);
}

/// @return whether the source told everything
bool AddTo(Exposition& metrics, const MetricsSource& source, Answer& answer) {
    const PartnerAnswer::Told told = answer.told.AddTo(metrics, source.name);
    if (told == PartnerAnswer::Told::kUnfinished) TellUnfinished(source, answer.result);
    return told == PartnerAnswer::Told::kAll;
}

double SecondsSince1970() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<double>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

std::string Gather(const Options& options) {
    const auto start = Clock::now();
    const auto sources = MetricsSources();
    std::map<std::string_view, Answer> answers;
    for (const MetricsSource& source : sources)
        answers[source.partner];
    {
        std::vector<std::jthread> askers;
        for (auto& [partner, answer] : answers)
            askers.emplace_back(
                [&, &partner = partner, &answer = answer] { answer = Ask(partner, options); });
    }
    for (const auto& [partner, answer] : answers)
        std::fputs(answer.result.errors.c_str(), stderr);
    Exposition metrics;
    for (const MetricsSource& source : sources)
        metrics.Add(SampleLine("tessaplug_source_up", {{"source", source.name}},
                               AddTo(metrics, source, answers[source.partner])));
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
    command.Operand("PARTNER", options.partner, "which");
    DefineRequest(command, options.request);
    command.Hide();
}

}  // namespace

void AddMetrics(command_line::Program& program) {
    AddCommand<Options>(program, "metrics",
                        "tells the station's numbers in the text format of Prometheus\n"
                        "a source that refuses or hangs is told as tessaplug_source_up 0, the others stay",
                        &Define, &Metrics);
    AddCommand<SourceOptions>(program, "metrics-source", "reads one partner's sources; for metrics only",
                              &DefineSource, &PrintSources);
}

}  // namespace tessactl
