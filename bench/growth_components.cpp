#include <windows.h>

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "adapter_control.h"
#include "component_store.h"
#include "measure.h"
#include "running_station.h"
#include "subjects.h"

namespace bench {
namespace {

constexpr std::array<std::size_t, 6> kCounts = {1, 2, 4, 8, 16, 32};

/// The station manager's list is another one as long as this lives.
class OtherComponents {
  public:
    OtherComponents() = default;
    ~OtherComponents() { store_.SetComponents(own_); }
    OtherComponents(const OtherComponents&) = delete;
    OtherComponents& operator=(const OtherComponents&) = delete;

    /// The station itself, and as many running components of the NX4120 as are left.
    void Become(std::size_t count) const {
        std::vector<station_manager::Component> list = {
            station_manager::MakeComponent(1, "PC Station", "Station")};
        while (list.size() < count) {
            const auto virtualDevice = static_cast<LONG>(list.size() + 1);
            list.push_back(station_manager::MakeComponent(virtualDevice, "NX4120",
                                                          "NX4120 line " + std::to_string(virtualDevice)));
        }
        if (store_.SetComponents(list) != ERROR_SUCCESS)
            throw std::runtime_error("the station manager's list cannot be written");
    }
    void AllHaveStopped() const {
        for (const station_manager::Component& component : store_.Components())
            if (component.virtualDevice != 1 && component.status != station_manager::kStopped)
                throw std::runtime_error("a component was not stopped");
    }

  private:
    const station_manager::ComponentStore store_;
    const std::vector<station_manager::Component> own_ = store_.Components();
};

/// Milliseconds, by the number of components.
using Times = std::array<std::vector<double>, kCounts.size()>;

/// Every round has every number, so that what else the machine does meets all of them.
template <typename Station>
void AddTurn(Times& hidden, const OtherComponents& components) {
    const Station station;
    WaitUntilItListens();
    PlugAndUnplug([] {}, Station::kName);  // warm
    for (int round = 0; round < kGrowthRounds; ++round) {
        for (std::size_t i = 0; i < kCounts.size(); ++i) {
            const auto prepare = [&] { components.Become(kCounts[i]); };
            hidden[i].push_back(PlugAndUnplug(prepare, Station::kName).hidden);
            components.AllHaveStopped();
        }
    }
}

void Print(const char* station, const Times& hidden) {
    for (std::size_t i = 0; i < kCounts.size(); ++i)
        PrintPoint("unplug-to-hidden", station, kCounts[i], "components", hidden[i], "ms");
}

}  // namespace

void MeasureComponentGrowth() {
    adapter_control::Unplug(*adapter_control::FindModel(L"NX4120"));
    const OtherComponents components;
    const KeptStationManager kept;
    Times service;
    Times bare;
    for (int turn = 0; turn < kGrowthTurns; ++turn) {
        AddTurn<RunningService>(service, components);
        AddTurn<RunningBareStation>(bare, components);
    }
    Print(RunningService::kName, service);
    Print(RunningBareStation::kName, bare);
}

}  // namespace bench
