#include <windows.h>

#include <algorithm>
#include <functional>
#include <vector>

#include "adapter_control.h"
#include "measure.h"
#include "running_station.h"
#include "subjects.h"

namespace bench {
namespace {

/// The fastest of a few, behind one that warms up: what else the machine does only adds.
template <typename Station>
PlugTimes TimesWith(const std::function<void()>& prepare, int count) {
    const Station station;
    WaitUntilItListens();
    PlugAndUnplug(prepare, Station::kName);
    std::vector<double> visible;
    std::vector<double> hidden;
    for (int i = 0; i < count; ++i) {
        const PlugTimes times = PlugAndUnplug(prepare, Station::kName);
        visible.push_back(times.visible);
        hidden.push_back(times.hidden);
    }
    return {std::ranges::min(visible), std::ranges::min(hidden)};
}

/// Service and bare station take turns: both at once would get in each other's way.
/// @param visible, hidden what was measured is added
void Compare(Comparison& visible, Comparison& hidden, const std::function<void()>& prepare, int rounds,
             int count) {
    for (int round = 0; round < rounds; ++round) {
        const PlugTimes service = TimesWith<RunningService>(prepare, count);
        const PlugTimes bare = TimesWith<RunningBareStation>(prepare, count);
        visible.Add(service.visible, bare.visible);
        hidden.Add(service.hidden, bare.hidden);
    }
}

}  // namespace

void MeasurePlugEvents() {
    adapter_control::Unplug(*adapter_control::FindModel(L"NX4120"));
    Comparison visible;
    Comparison hidden;
    {
        const KeptStationManager kept;
        Compare(visible, hidden, &LetComponentsRun, kRounds, 9);
    }
    Print("plug to visible, by the bare station", "plug to visible", "ms", visible);
    Print("unplug to hidden, by the bare station", "unplug to hidden, station manager running", "ms", hidden);
    constexpr int kSlowRounds = 11;
    Comparison started;
    Compare(
        visible, started,
        [] {
            LetComponentsRun();
            ::Sleep(200);  // until the station manager used last has ended
        },
        kSlowRounds, 1);
    Print("unplug to hidden, by the bare station", "unplug to hidden, station manager started by COM", "ms",
          started);
}

}  // namespace bench
