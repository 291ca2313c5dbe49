#include <windows.h>

#include <algorithm>
#include <chrono>
#include <initializer_list>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "adapter_control.h"
#include "event_log_tells.h"
#include "measure.h"
#include "subjects.h"
#include "tessaplug_eventlog_monitor.h"
#include "wine_gap_loader.h"

namespace bench {
namespace {

/// Tells when a box is asked for.
class TimedBox : public operating_system::SystemMessageBox {
  public:
    DWORD Show(const wchar_t*, const wchar_t*, DWORD) override {
        shownAt = Clock::now();
        ::SetEvent(shown);
        return IDOK;
    }
    Clock::time_point shownAt;
    const HANDLE shown = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
};

/// From the driver's record, which is written after a pause, to its box; in milliseconds.
double TimeToBox(TimedBox& timed, DWORD pause) {
    ::Sleep(pause);
    const auto start = Clock::now();
    adapter_control::Report(*adapter_control::FindModel(L"FennlinkU3"), 3, L"measured");
    ::WaitForSingleObject(timed.shown, INFINITE);
    return std::chrono::duration<double, std::milli>(timed.shownAt - start).count();
}

void PrintTimes(const char* what, const std::vector<double>& times) {
    Print(what, Median(times), "ms");
    Print("  at most", *std::ranges::max_element(times), "ms");
}

}  // namespace

void MeasureDriverMessages() {
    constexpr DWORD kToldMs = 5500;  // longer than Windows is quiet after a pulse
    LoadWineGap();
    auto box = std::make_unique<TimedBox>();
    TimedBox& timed = *box;
    tessaplug::EventLogMonitorCollaborators collaborators;
    collaborators.messageBox = std::move(box);
    tessaplug::EventLogMonitor monitor(std::move(collaborators));
    std::thread thread([&monitor] { monitor.Run(); });
    monitor.WaitBlockingForStateChange(INFINITE);
    ::Sleep(500);  // until it waits
    std::vector<double> set;
    std::vector<double> pulsed;
    std::vector<double> quiet;
    TellBySetting(true);
    for (int i = 0; i < 11; ++i)
        set.push_back(TimeToBox(timed, 50));
    TellBySetting(false);
    for (const DWORD pause : std::initializer_list<DWORD>{50, 500, 1000, 1500, 2000, 3000, 4000}) {
        pulsed.push_back(TimeToBox(timed, kToldMs));
        quiet.push_back(TimeToBox(timed, pause));
    }
    PrintTimes("the driver's record written to message box requested", set);
    PrintTimes("  by an event that is pulsed", pulsed);
    PrintTimes("  in the quiet five seconds after that", quiet);
    monitor.Stop(false);
    thread.join();
}

}  // namespace bench
