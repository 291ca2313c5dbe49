#include <windows.h>

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "adapter_control.h"
#include "log_device_store.h"
#include "measure.h"
#include "running_station.h"
#include "subjects.h"

namespace bench {
namespace {

constexpr std::array<std::size_t, 4> kSizes = {10, 100, 1000, 10000};

/// The template of the machine's configuration, filled up with entries of other products as long as this
/// lives.
class FilledTemplate {
  public:
    ~FilledTemplate() { store_.SetTemplateEntries(own_); }
    FilledTemplate() = default;
    FilledTemplate(const FilledTemplate&) = delete;
    FilledTemplate& operator=(const FilledTemplate&) = delete;

    void FillUpTo(std::size_t count) const {
        if (own_.empty() || own_.size() > count)
            throw std::runtime_error("the template is to be that of \"q5config init\"");
        std::vector<std::wstring> entries = own_;
        while (entries.size() < count)
            entries.push_back(L"LDT-Other product " + std::to_wstring(entries.size()) + L".profibus");
        if (store_.SetTemplateEntries(entries) != configuration_library::kOk)
            throw std::runtime_error("the template cannot be written");
        ::Sleep(100);  // the stand-in library reads a template that was just written anew for each entry
    }

  private:
    const configuration_library::LogDeviceStore store_;
    const std::vector<std::wstring> own_ = store_.TemplateEntries();
};

/// Milliseconds, by the size of the template.
struct Times {
    std::array<std::vector<double>, kSizes.size()> visible;
    std::array<std::vector<double>, kSizes.size()> hidden;
};

/// Every round has every size, so that what else the machine does meets all of them.
template <typename Station>
void AddTurn(Times& times, const FilledTemplate& entries) {
    const Station station;
    WaitUntilItListens();
    PlugAndUnplug(&LetComponentsRun, Station::kName);  // warm
    for (int round = 0; round < kGrowthRounds; ++round) {
        for (std::size_t i = 0; i < kSizes.size(); ++i) {
            entries.FillUpTo(kSizes[i]);
            const PlugTimes event = PlugAndUnplug(&LetComponentsRun, Station::kName);
            times.visible[i].push_back(event.visible);
            times.hidden[i].push_back(event.hidden);
        }
    }
    entries.FillUpTo(kSizes.front());
}

template <typename Station>
void Print(const Times& times) {
    for (std::size_t i = 0; i < kSizes.size(); ++i)
        PrintPoint("plug-to-visible", Station::kName, kSizes[i], "entries", times.visible[i], "ms");
    for (std::size_t i = 0; i < kSizes.size(); ++i)
        PrintPoint("unplug-to-hidden", Station::kName, kSizes[i], "entries", times.hidden[i], "ms");
}

}  // namespace

void MeasureTemplateGrowth() {
    adapter_control::Unplug(*adapter_control::FindModel(L"NX4120"));
    const FilledTemplate entries;
    const KeptStationManager kept;
    Times service;
    Times bare;
    for (int turn = 0; turn < kGrowthTurns; ++turn) {
        AddTurn<RunningService>(service, entries);
        AddTurn<RunningBareStation>(bare, entries);
    }
    Print<RunningService>(service);
    Print<RunningBareStation>(bare);
}

}  // namespace bench
