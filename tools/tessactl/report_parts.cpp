#include "report_parts.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "limited_process.h"
#include "several_commands.h"
#include "text.h"

namespace tessactl {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::chrono::seconds kLimit(12);
constexpr std::chrono::seconds kDumpsLimit(4);  // of the list; twice that for what they hold

/// Standard error of a command without the program's name, on one line.
std::string WordsOf(std::string errors) {
    constexpr char kProgram[] = "tessactl: ";
    std::erase(errors, '\r');
    for (std::size_t at = errors.find(kProgram); at != std::string::npos; at = errors.find(kProgram, at))
        errors.erase(at, sizeof kProgram - 1);
    while (errors.ends_with('\n'))
        errors.pop_back();
    for (char& c : errors)
        if (c == '\n') c = ' ';
    return errors;
}

std::string EndInWords(DWORD exitCode) {
    char code[32] = {};
    std::snprintf(code, sizeof code, "0x%08lX", exitCode);
    return std::string("the process that looked ended with ") + code;
}

Json Failed(const std::string& why) {
    return {{"error", why}};
}

/// @param result of a command that prints JSON
/// @param allowed what it had
Json PartOf(const std::optional<LimitedResult>& result, milliseconds allowed) {
    if (!result) return Failed("not looked at: the other parts took all the time");
    if (!result->ended)
        return Failed("no answer within " +
                      std::to_string(std::chrono::duration_cast<std::chrono::seconds>(allowed).count()) +
                      " seconds");
    const std::string words = WordsOf(result->errors);
    Json data = Json::parse(result->output, nullptr, false);
    if (data.is_discarded()) return Failed(words.empty() ? EndInWords(result->exitCode) : words);
    Json part = {{"data", std::move(data)}};
    if (!words.empty()) part["note"] = words;
    return part;
}

/// What commands of this program print as JSON, one behind the other.
std::vector<Json> Ask(const std::vector<std::wstring>& commands, milliseconds limit,
                      Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
    const milliseconds allowed = std::min(limit, left);
    std::vector<Json> parts;
    for (const auto& result : RunTheseCommands(commands, allowed))
        parts.push_back(PartOf(result, allowed));
    return parts;
}

std::wstring LogCommand(const std::wstring& which) {
    // One more than is told, to know whether there are more.
    return L"log --json --count " + std::to_wstring(kMostRecords + 1) + which;
}

void KeepNewestRecords(Json& log) {
    if (!log.contains("data") || log["data"].size() <= kMostRecords) return;
    log["data"].erase(log["data"].begin());
    log["note"] = "There are more: these are the newest " + std::to_string(kMostRecords) + ".";
}

/// The dumps of a folder, and what the newest of them tell.
Json AskDumps(const std::wstring& folder, Clock::time_point deadline) {
    const std::wstring where = folder.empty() ? L"" : L" --folder " + Quoted(folder);
    Json part = Ask({L"dump list --json" + where}, kDumpsLimit, deadline).front();
    if (!part.contains("data")) return part;
    Json& dumps = part["data"];
    const std::size_t count = std::min(dumps.size(), kMostDumps);
    std::vector<std::wstring> commands;
    for (std::size_t i = 0; i < count; ++i) {
        const std::wstring file = Quoted(Widened(dumps[i]["file"].get<std::string>(), CP_UTF8));
        commands.push_back(L"dump info --json " + file);
        commands.push_back(L"dump history --json " + file);
    }
    const std::vector<Json> told = Ask(commands, 2 * kDumpsLimit, deadline);
    for (std::size_t i = 0; i < count; ++i) {
        dumps[i]["info"] = told[2 * i];
        dumps[i]["history"] = told[2 * i + 1];
    }
    if (dumps.size() > kMostDumps)
        part["note"] = "Only the newest " + std::to_string(kMostDumps) + " were looked into.";
    return part;
}

std::wstring OptionText(const wchar_t* name, const std::wstring& value) {
    return value.empty() ? L"" : std::wstring(L" ") + name + L" " + Quoted(value);
}

/// Parts that are asked one behind the other.
struct Group {
    std::vector<const char*> parts;
    std::function<std::vector<Json>()> ask;
};

/// @param request outlives them
std::vector<Group> GroupsOf(const ReportRequest& request, Clock::time_point deadline) {
    const std::wstring service =
        OptionText(L"--service", request.service) + OptionText(L"--plugin", request.plugIn);
    const auto ask = [deadline](const std::vector<std::wstring>& commands) {
        return [=] { return Ask(commands, kLimit, deadline); };
    };
    const auto askLogs = [deadline] {
        std::vector<Json> logs =
            Ask({LogCommand(L""), LogCommand(L" --log System --source fenlu3")}, kLimit, deadline);
        std::ranges::for_each(logs, &KeepNewestRecords);
        return logs;
    };
    const auto askDumps = [&request, deadline] {
        return std::vector<Json>{AskDumps(request.dumps, deadline)};
    };
    // A part whose partner nobody here wrote, or that may take long, has a process for itself.
    return {{{"findings"}, ask({L"doctor --json --timeout 5" + service})},
            {{"station"}, ask({L"report-part station"})},
            {{"components"}, ask({L"report-part components"})},
            {{"service", "hostLog", "recordingNow", "exceptions", "files"},
             ask({L"report-part service" + service, L"report-part host-log" + service, L"trace status --json",
                  L"exceptions --json" + service, L"report-part files" + service})},
            {{"applicationLog", "systemLog"}, askLogs},
            {{"recording"},
             ask({L"report-part recording" + OptionText(L"--recording", request.recording) +
                  OptionText(L"--tmf", request.tmf)})},
            {{"dumps"}, askDumps}};
}

}  // namespace

Json GatherParts(const ReportRequest& request, Clock::time_point deadline,
                 const std::function<void(std::size_t done, std::size_t all)>& tell) {
    constexpr milliseconds kStep{100};
    const std::vector<Group> groups = GroupsOf(request, deadline);
    std::size_t all = 0;
    for (const Group& group : groups)
        all += group.parts.size();
    std::vector<std::vector<Json>> results(groups.size());
    {
        std::mutex lock;  // guards the number
        std::condition_variable isDone;
        std::size_t done = 0;
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < groups.size(); ++i)
            threads.emplace_back([&, i] {
                try {
                    results[i] = groups[i].ask();
                } catch (const std::exception& error) {
                    results[i].assign(groups[i].parts.size(), Failed(error.what()));
                }
                const std::lock_guard guard(lock);
                done += groups[i].parts.size();
                isDone.notify_one();
            });
        std::unique_lock guard(lock);
        while (done < all) {
            tell(done, all);
            isDone.wait_for(guard, kStep);
        }
    }
    Json parts = Json::object();
    for (std::size_t i = 0; i < groups.size(); ++i)
        for (std::size_t k = 0; k < groups[i].parts.size(); ++k)
            parts[groups[i].parts[k]] = std::move(results[i][k]);
    return parts;
}

}  // namespace tessactl
