#include <windows.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "idle_host.h"
#include "measure.h"
#include "subjects.h"
#include "tessaplug_intern.h"

namespace bench {
namespace {

/// A monitor that does nothing.
class NoMonitor : public tessaplug::EventLogMonitor {
  public:
    DWORD Run() override { return 0; }
    void Stop(bool) override {}
    bool WaitBlockingForStateChange(DWORD) override { return true; }
};

class OwnLockName : public tessaplug::ServiceDb {
  public:
    const std::wstring& GlobalInstanceLockName() const override { return name_; }

  private:
    static inline int count_ = 0;
    std::wstring name_ = L"tessabench_" + std::to_wstring(++count_);
};

/// Milliseconds of one start and one stop.
std::pair<double, double> StartAndStop(bool withMonitor) {
    tessaplug::ServiceCollaborators collaborators;
    collaborators.settings = std::make_shared<OwnLockName>();
    if (!withMonitor) {
        collaborators.eventLogMonitor = std::make_shared<NoMonitor>();
        collaborators.sleep = [](DWORD) {};
    }
    tessaplug::Service service(std::move(collaborators));
    DWORD started = 0;
    const double start = MillisecondsOf([&] {
        started = service.init(TESSAPLUG_API_VERSION, reinterpret_cast<SERVICE_STATUS_HANDLE>(1),
                               &IgnoreStatus, nullptr, 0);
    });
    if (started == 0) throw std::runtime_error("the service does not start");
    return {start, MillisecondsOf([&] { service.cleanup(); })};
}

}  // namespace

void MeasureStartAndStop() {
    StartAndStop(false);  // warm
    std::vector<double> starts[2];
    std::vector<double> stops[2];
    for (int i = 0; i < 11; ++i) {
        for (const bool withMonitor : {false, true}) {
            const auto [start, stop] = StartAndStop(withMonitor);
            starts[withMonitor].push_back(start);
            stops[withMonitor].push_back(stop);
        }
    }
    Print("start without the monitor", Median(starts[false]), "ms");
    Print("start with the monitor", Median(starts[true]), "ms");
    Print("stop without the monitor", Median(stops[false]), "ms");
    Print("stop with the monitor, two seconds of it fixed", Median(stops[true]), "ms");
}

}  // namespace bench
