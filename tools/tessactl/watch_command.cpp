#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cwchar>
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
            std::printf("%s\n", JsonObject()
                                    .Add("time", time)
                                    .Add("event", event)
                                    .Add("what", what)
                                    .Add("text", text)
                                    .Text()
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

}  // namespace

ExitCode Watch(const Arguments& arguments) {
    Arguments rest = arguments;
    const bool json = TakeJson(rest);
    ULONGLONG seconds = 0;
    if (rest.size() == 2 && rest[0] == L"--seconds") {
        seconds = std::wcstoul(rest[1].c_str(), nullptr, 10);
        if (seconds == 0) return UsageError(L"the number of seconds is not understood: " + rest[1]);
    } else if (!rest.empty()) {
        return UsageError(L"not understood: " + rest[0]);
    }
    constexpr DWORD kStepMs = 100;
    const ULONGLONG end = ::GetTickCount64() + 1000 * seconds;
    Printer printer(json);
    const DriverMessages messages(printer);
    PlugInEntries plugInEntries(printer);
    std::string error;
    Models before = ReadModels(error);
    printer.Print("watching", error.empty() ? L"everything" : L"adapters and messages only",
                  Widened(error, CP_UTF8));
    std::string errorBefore = error;
    while (seconds == 0 || ::GetTickCount64() < end) {
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

}  // namespace tessactl
