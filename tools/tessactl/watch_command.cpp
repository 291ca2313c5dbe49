#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "event_messages.h"
#include "evlog_check.h"
#include "json.h"
#include "log_filter.h"
#include "output.h"
#include "station_state.h"
#include "text.h"

namespace tessactl {
namespace {

using Models = std::vector<StationState::Model>;

/// Prints events, from any thread.
class Printer {
  public:
    explicit Printer(bool json) : json_(json) {}
    void Print(const char* event, const std::wstring& what, const std::wstring& text) {
        const std::lock_guard guard(lock_);
        SYSTEMTIME now = {};
        ::GetLocalTime(&now);
        char time[16] = {};
        std::snprintf(time, sizeof time, "%02d:%02d:%02d.%03d", now.wHour, now.wMinute, now.wSecond,
                      now.wMilliseconds);
        if (json_)
            std::printf("%s\n", JsonText({{"schema", 1},
                                          {"time", time},
                                          {"event", event},
                                          {"what", Utf8(what)},
                                          {"text", Utf8(text)}})
                                    .c_str());
        else
            std::printf("%s  %-12s  %-28s  %s\n", time, event, Utf8(what).c_str(), Utf8(text).c_str());
        std::fflush(stdout);
    }

  private:
    const bool json_;
    std::mutex lock_;
};

/// Prints the driver's records on a thread of its own, while it lives.
class DriverMessages {
  public:
    explicit DriverMessages(Printer& printer) : printer_(printer) {
        log_.Open();
        thread_ = std::thread([this] { Read(); });
    }
    ~DriverMessages() {
        ends_ = true;
        log_.CancelRead();
        thread_.join();
    }
    DriverMessages(const DriverMessages&) = delete;
    DriverMessages& operator=(const DriverMessages&) = delete;

  private:
    void Read() {
        operating_system::EventRecordParser parser(std::make_shared<operating_system::FilterChain>(
            operating_system::FilterChain{std::make_shared<operating_system::Fenlu3>()}));
        std::vector<operating_system::UserMessage> messages;
        while (!ends_) {
            try {
                const auto buffer = log_.BlockingRead();
                if (buffer.empty()) OpenAgain();
                parser.Process(buffer, messages);
            } catch (const std::exception& error) {
                printer_.Print("problem", L"driver messages", Widened(InWords(error), CP_UTF8));
            } catch (...) {
                printer_.Print("problem", L"driver messages", L"the driver's file raises an exception");
            }
            for (const auto& message : messages)
                printer_.Print("message", message.source,
                               SeverityName(message.severity) + WithoutLineEnd(message.message));
            messages.clear();
        }
    }
    /// The log cannot be read just now, or it was only the end that woke the reader.
    void OpenAgain() {
        constexpr DWORD kPauseMs = 1000;
        bool isOpen = false;
        while (!ends_ && !isOpen) {
            ::Sleep(kPauseMs);
            isOpen = log_.Reopen();
        }
    }
    static std::wstring SeverityName(DWORD severity) {
        switch (severity) {
            case 1:
                return L"information: ";
            case 2:
                return L"warning: ";
            case 3:
                return L"error: ";
            default:
                return L"";
        }
    }
    static std::wstring WithoutLineEnd(std::wstring text) {
        while (text.ends_with(L'\n') || text.ends_with(L'\r'))
            text.pop_back();
        return text;
    }

    Printer& printer_;
    operating_system::EventLog log_{L"System"};
    std::atomic<bool> ends_ = false;
    std::thread thread_;
};

/// Prints what the plug-in writes into the Application log from now on.
class PlugInEntries {
  public:
    explicit PlugInEntries(Printer& printer) : printer_(printer) { ReadNew(); }
    void PrintNew() {
        for (const LogEntry& entry : ReadNew())
            printer_.Print("log entry", entry.source,
                           Widened(TypeName(entry.type), CP_UTF8) + L": " + messages_.Sentence(entry));
    }

  private:
    std::vector<LogEntry> ReadNew() {
        try {
            auto entries = log_.ReadNew();
            error_.clear();
            if (!hasBegun_) entries.clear();
            hasBegun_ = true;
            return entries;
        } catch (const ToolError& error) {
            if (error_ != error.what())
                printer_.Print("problem", L"Application log", Widened(error.what(), CP_UTF8));
            error_ = error.what();
            return {};
        }
    }

    Printer& printer_;
    EventLogFollower log_{L"Application", L"tessaplug"};
    EventMessages messages_{L"Application", L"tessaplug"};
    std::string error_;
    bool hasBegun_ = false;  // what was there before is none of it
};

void PrintMissing(Printer& printer, const char* event, const std::wstring& model,
                  const std::vector<std::wstring>& paths, const std::vector<std::wstring>& without) {
    for (const std::wstring& path : paths)
        if (std::ranges::find(without, path) == without.end()) printer.Print(event, model, path);
}

void PrintChanges(Printer& printer, const Models& before, const Models& after) {
    for (std::size_t i = 0; i < after.size(); ++i) {
        PrintMissing(printer, "arrival", after[i].name, after[i].devicePaths, before[i].devicePaths);
        PrintMissing(printer, "removal", after[i].name, before[i].devicePaths, after[i].devicePaths);
        for (const auto& point : after[i].accessPoints)
            if (std::ranges::find(before[i].accessPoints, point) == before[i].accessPoints.end())
                printer.Print("access point", point.name, Widened(point.State(), CP_UTF8));
    }
}

/// What could not be read now counts as it was before: it has not changed for that.
void KeepWhatIsNotKnown(const Models& before, Models& after, bool accessPointsAreKnown) {
    for (std::size_t i = 0; i < after.size(); ++i) {
        if (!after[i].devicesError.empty()) after[i].devicePaths = before[i].devicePaths;
        if (!accessPointsAreKnown) after[i].accessPoints = before[i].accessPoints;
    }
}

struct Options {
    unsigned long seconds = 0;  // no end
    bool json = false;
};

ExitCode Watch(const Options& options) {
    constexpr DWORD kStepMs = 100;
    const ULONGLONG end = ::GetTickCount64() + 1000ULL * options.seconds;
    Printer printer(options.json);
    const DriverMessages messages(printer);
    PlugInEntries plugInEntries(printer);
    std::string error;
    Models before = ReadModels(error);
    printer.Print("watching", error.empty() ? L"everything" : L"adapters and messages only",
                  Widened(error, CP_UTF8));
    std::string errorBefore = error;
    const auto isOver = [&] { return options.seconds != 0 && ::GetTickCount64() >= end; };
    while (!isOver() && command_line::OutputIsTaken()) {
        ::Sleep(kStepMs);
        Models after = ReadModels(error);
        KeepWhatIsNotKnown(before, after, error.empty());
        if (error != errorBefore)
            printer.Print(error.empty() ? "well again" : "problem", L"configuration library",
                          Widened(error, CP_UTF8));
        errorBefore = error;
        PrintChanges(printer, before, after);
        plugInEntries.PrintNew();
        before = std::move(after);
    }
    return ExitCode::kSuccess;
}

}  // namespace

void AddWatch(command_line::Program& program) {
    constexpr unsigned long kWeek = 7 * 24 * 60 * 60;
    const auto define = [](command_line::Command& command, Options& options) {
        command.Number("--seconds", options.seconds, 1, kWeek, "NUMBER",
                       "how long; until Ctrl+C unless told otherwise");
        command.Switch("--json", options.json, "a line of JSON for each");
    };
    AddCommand<Options>(
        program, "watch",
        "prints arrivals, removals, changes of access points and messages of the driver as they happen",
        define, &Watch);
}

}  // namespace tessactl
