#include "log_command.h"

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "commands.h"
#include "event_messages.h"
#include "json.h"
#include "text.h"

namespace tessactl {
namespace {

std::string JsonOf(const LogEntry& entry, const std::wstring& sentence) {
    return JsonObject()
        .Add("time", LocalTimeText(entry.time))
        .Add("type", TypeName(entry.type))
        .Add("id", entry.eventId)
        .Add("text", sentence)
        .Text();
}

std::string LineOf(const LogEntry& entry, const std::wstring& sentence) {
    char head[64] = {};
    std::snprintf(head, sizeof head, "  %-11s  0x%08lX  ", TypeName(entry.type), entry.eventId);
    return LocalTimeText(entry.time) + head + Utf8(sentence);
}

/// Prints the new entries that pass, one line each.
void Follow(EventLogFollower& log, const EventMessages& messages, const LogRequest& request) {
    constexpr DWORD kStepMs = 250;
    const ULONGLONG end = ::GetTickCount64() + 1000 * ULONGLONG{request.seconds};
    std::string toldError;
    while (request.seconds == 0 || ::GetTickCount64() < end) {
        ::Sleep(kStepMs);
        try {
            for (const LogEntry& entry : Filtered(log.ReadNew(), request.filter)) {
                const std::wstring sentence = messages.Sentence(entry);
                std::printf("%s\n",
                            (request.json ? JsonOf(entry, sentence) : LineOf(entry, sentence)).c_str());
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

bool ParseNumber(const std::wstring& text, ULONG& number) {
    if (text.empty() || text.length() > 6 || text.find_first_not_of(L"0123456789") != std::wstring::npos)
        return false;
    number = std::stoul(text);
    return true;
}

}  // namespace

ExitCode ShowLog(const LogRequest& request) {
    const EventMessages messages(request.logName, request.source);
    EventLogFollower log(request.logName, request.source);
    std::vector<std::string> elements;
    for (const LogEntry& entry : Filtered(log.ReadNew(), request.filter, request.count)) {
        const std::wstring sentence = messages.Sentence(entry);
        elements.push_back(request.json ? JsonOf(entry, sentence) : LineOf(entry, sentence));
    }
    // What is followed has no end, so it is no array.
    if (request.json && !request.follow) {
        std::printf("%s\n", JsonArray(elements).c_str());
    } else {
        for (const std::string& element : elements)
            std::printf("%s\n", element.c_str());
        std::fflush(stdout);
    }
    if (request.follow) Follow(log, messages, request);
    return ExitCode::kSuccess;
}

ExitCode Log(const Arguments& arguments) {
    LogRequest request;
    Arguments rest = arguments;
    request.json = TakeJson(rest);
    request.follow = std::erase(rest, L"--follow") > 0;
    request.source = TakeValue(rest, L"--source").value_or(request.source);
    request.logName = TakeValue(rest, L"--log").value_or(request.logName);
    const auto since = TakeValue(rest, L"--since");
    const auto level = TakeValue(rest, L"--level");
    const auto count = TakeValue(rest, L"--count");
    const auto seconds = TakeValue(rest, L"--seconds");
    if (!rest.empty()) return UsageError(L"not understood: " + rest[0]);
    if (since) {
        const auto time = ParseSince(*since, static_cast<DWORD>(std::time(nullptr)));
        if (!time)
            return UsageError(
                L"the time is like 2026-11-21T10:11, or how long ago, like 10m, 2h or 3d, not " + *since);
        request.filter.since = *time;
    }
    if (level) {
        const auto type = TypeNamed(*level);
        if (!type) return UsageError(L"the level is error, warning or information, not " + *level);
        request.filter.level = *type;
    }
    ULONG number = 0;
    if (count && !ParseNumber(*count, number))
        return UsageError(L"the number of entries is not understood: " + *count);
    if (count) request.count = number;
    if (seconds && (!ParseNumber(*seconds, request.seconds) || request.seconds == 0))
        return UsageError(L"the number of seconds is not understood: " + *seconds);
    if (seconds && !request.follow) return UsageError(L"--seconds belongs to --follow");
    return ShowLog(request);
}

}  // namespace tessactl
