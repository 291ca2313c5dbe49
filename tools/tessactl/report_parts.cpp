#include "report_parts.h"

#include <condition_variable>
#include <cstdio>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "limited_process.h"
#include "text.h"

namespace tessactl {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

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

/// What a command of this program prints as JSON.
Json Ask(const std::wstring& command, milliseconds limit, Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
    if (left <= milliseconds(0)) return Failed("not looked at: the other parts took all the time");
    const milliseconds allowed = std::min(limit, left);
    const LimitedResult result = RunThisProgram(command, allowed);
    if (!result.ended)
        return Failed("no answer within " +
                      std::to_string(std::chrono::duration_cast<std::chrono::seconds>(allowed).count()) +
                      " seconds");
    const std::string words = WordsOf(result.errors);
    Json data = Json::parse(result.output, nullptr, false);
    if (data.is_discarded()) return Failed(words.empty() ? EndInWords(result.exitCode) : words);
    Json part = {{"data", std::move(data)}};
    if (!words.empty()) part["note"] = words;
    return part;
}

/// The last of a log's records; one more is asked for to know whether there are more.
Json AskLog(const std::wstring& which, Clock::time_point deadline) {
    constexpr auto kLimit = std::chrono::seconds(12);
    const std::wstring count = L" --count " + std::to_wstring(kMostRecords + 1);
    Json part = Ask(L"log --json" + count + which, kLimit, deadline);
    if (part.contains("data") && part["data"].size() > kMostRecords) {
        part["data"].erase(part["data"].begin());
        part["note"] = "There are more: these are the newest " + std::to_string(kMostRecords) + ".";
    }
    return part;
}

/// The dumps of a folder, and what the newest of them tell.
Json AskDumps(const std::wstring& folder, Clock::time_point deadline) {
    constexpr auto kLimit = std::chrono::seconds(4);
    const std::wstring where = folder.empty() ? L"" : L" --folder " + Quoted(folder);
    Json part = Ask(L"dump list --json" + where, kLimit, deadline);
    if (!part.contains("data")) return part;
    std::size_t number = 0;
    for (Json& dump : part["data"]) {
        if (++number > kMostDumps) break;
        const std::wstring file = Quoted(Widened(dump["file"].get<std::string>(), CP_UTF8));
        dump["info"] = Ask(L"dump info --json " + file, kLimit, deadline);
        dump["history"] = Ask(L"dump history --json " + file, kLimit, deadline);
    }
    if (part["data"].size() > kMostDumps)
        part["note"] = "Only the newest " + std::to_string(kMostDumps) + " were looked into.";
    return part;
}

std::wstring OptionText(const wchar_t* name, const std::wstring& value) {
    return value.empty() ? L"" : std::wstring(L" ") + name + L" " + Quoted(value);
}

}  // namespace

Json GatherParts(const ReportRequest& request, Clock::time_point deadline,
                 const std::function<void(std::size_t done, std::size_t all)>& tell) {
    constexpr milliseconds kStep{100};
    constexpr auto kLimit = std::chrono::seconds(12);
    const std::wstring service =
        OptionText(L"--service", request.service) + OptionText(L"--plugin", request.plugIn);
    const auto ask = [&](const std::wstring& command) {
        return [=] { return Ask(command, kLimit, deadline); };
    };
    const std::vector<std::pair<const char*, std::function<Json()>>> sources = {
        {"findings", ask(L"doctor --json --timeout 5" + service)},
        {"station", ask(L"report-part station")},
        {"components", ask(L"report-part components")},
        {"service", ask(L"report-part service" + service)},
        {"applicationLog", [&] { return AskLog(L"", deadline); }},
        {"systemLog", [&] { return AskLog(L" --log System --source fenlu3", deadline); }},
        {"hostLog", ask(L"report-part host-log" + service)},
        {"recording", ask(L"report-part recording" + OptionText(L"--recording", request.recording) +
                          OptionText(L"--tmf", request.tmf))},
        {"recordingNow", ask(L"trace status --json")},
        {"exceptions", ask(L"exceptions --json" + service)},
        {"dumps", [&] { return AskDumps(request.dumps, deadline); }},
        {"files", ask(L"report-part files" + service)},
    };
    std::vector<Json> results(sources.size());
    {
        std::mutex lock;  // guards the number
        std::condition_variable isDone;
        std::size_t done = 0;
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < sources.size(); ++i)
            threads.emplace_back([&, i] {
                try {
                    results[i] = sources[i].second();
                } catch (const std::exception& error) {
                    results[i] = Failed(error.what());
                }
                const std::lock_guard guard(lock);
                ++done;
                isDone.notify_one();
            });
        for (std::unique_lock guard(lock); done < sources.size();) {
            tell(done, sources.size());
            isDone.wait_for(guard, kStep);
        }
    }
    Json parts = Json::object();
    for (std::size_t i = 0; i < sources.size(); ++i)
        parts[sources[i].first] = std::move(results[i]);
    return parts;
}

}  // namespace tessactl
