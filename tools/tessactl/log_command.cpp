#include "log_command.h"

#include <cstdio>
#include <ctime>
#include <string>

#include "commands.h"
#include "event_messages.h"
#include "json.h"
#include "output.h"
#include "text.h"

namespace tessactl {
namespace {

Json JsonOf(const LogEntry& entry, const std::wstring& sentence) {
    return {{"schema", 1},
            {"time", LocalTimeText(entry.time)},
            {"type", TypeName(entry.type)},
            {"id", entry.eventId},
            {"text", Utf8(sentence)}};
}

std::string LineOf(const LogEntry& entry, const std::wstring& sentence) {
    char head[64] = {};
    std::snprintf(head, sizeof head, "  %-11s  0x%08lX  ", TypeName(entry.type), entry.eventId);
    return LocalTimeText(entry.time) + head + Utf8(sentence);
}

void Print(const LogEntry& entry, const std::wstring& sentence, const LogRequest& request) {
    std::printf("%s\n", (request.json ? JsonText(JsonOf(entry, sentence)) : LineOf(entry, sentence)).c_str());
}

/// Prints the new entries that pass, one line each.
void Follow(EventLogFollower& log, const EventMessages& messages, const LogRequest& request) {
    constexpr DWORD kStepMs = 250;
    const ULONGLONG end = ::GetTickCount64() + 1000 * ULONGLONG{request.seconds};
    std::string toldError;
    while ((request.seconds == 0 || ::GetTickCount64() < end) && command_line::OutputIsTaken()) {
        ::Sleep(kStepMs);
        try {
            for (const LogEntry& entry : Filtered(log.ReadNew(), request.filter)) {
                Print(entry, messages.Sentence(entry), request);
            }
            std::fflush(stdout);
            toldError.clear();
        } catch (const ToolError& error) {
            // The log's service may be started again, so it is tried on.
            if (toldError != error.what()) std::fprintf(stderr, "tessactl: %s\n", error.what());
            toldError = error.what();
        }
    }
}

struct Options {
    LogRequest request;
    std::wstring since;
    std::wstring level = L"information";
    unsigned long count = ULONG_MAX;  // all
};

ExitCode Log(const Options& options) {
    LogRequest request = options.request;
    if (!options.since.empty()) {
        const auto time = ParseSince(options.since, static_cast<DWORD>(std::time(nullptr)));
        if (!time)
            throw command_line::UsageError(
                "the value of --since is like 2026-11-21T10:11, or how long ago, like 10m, 2h or 3d");
        request.filter.since = *time;
    }
    request.filter.level = TypeNamed(options.level).value_or(request.filter.level);
    if (options.count != ULONG_MAX) request.count = options.count;
    if (request.seconds != 0 && !request.follow)
        throw command_line::UsageError("--seconds belongs to --follow");
    return ShowLog(request);
}

void Define(command_line::Command& command, Options& options) {
    constexpr unsigned long kMost = 999999;
    command.Text("--source", options.request.source, "NAME",
                 "whose entries, tessaplug unless told otherwise");
    command.Text("--log", options.request.logName, "NAME", "of which log, Application unless told otherwise");
    command.Text("--since", options.since, "TIME",
                 "the oldest that are shown: local time like 2026-11-21T10:11, UTC with a Z behind it, or "
                 "how long ago, "
                 "like 10m, 2h or 3d");
    command.Choice("--level", options.level, {"error", "warning", "information"},
                   "the least grave that are shown");
    command.Number("--count", options.count, 0, kMost, "N", "only the last of them");
    command.Switch("--follow", options.request.follow,
                   "also those that are written from now on, until Ctrl+C");
    command.Number("--seconds", options.request.seconds, 1, kMost, "N", "for how long they are followed");
    command.Switch("--json", options.request.json, "as JSON; with --follow one object a line");
}

}  // namespace

ExitCode ShowLog(const LogRequest& request) {
    const EventMessages messages(request.logName, request.source);
    EventLogFollower log(request.logName, request.source);
    Json elements = Json::array();
    for (const LogEntry& entry : Filtered(log.ReadNew(), request.filter, request.count)) {
        const std::wstring sentence = messages.Sentence(entry);
        // What is followed has no end, so it is no array.
        if (request.json && !request.follow)
            elements.push_back(JsonOf(entry, sentence));
        else
            Print(entry, sentence, request);
    }
    if (request.json && !request.follow) std::printf("%s\n", JsonLines(elements).c_str());
    std::fflush(stdout);
    if (request.follow) Follow(log, messages, request);
    return ExitCode::kSuccess;
}

void AddLog(command_line::Program& program) {
    AddCommand<Options>(program, "log", "shows the plug-in's entries of the Application log as sentences",
                        &Define, &Log);
}

}  // namespace tessactl
