#include <windows.h>
#include <dbt.h>

#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "idle_host.h"
#include "measure.h"
#include "subjects.h"
#include "tessaplug_intern.h"
#include "unique_handle.h"

namespace bench {
namespace {

constexpr int kCalls = 100;
constexpr int kManyRounds = 301;

/// The median of some calls, each of which finds the worker asleep.
double NanosecondsOfOne(const std::function<void()>& call) {
    std::vector<double> times;
    for (int i = 0; i < kCalls; ++i) {
        ::Sleep(1);
        times.push_back(NanosecondsOf(1, call));
    }
    return Median(times);
}

class IdleNotifier : public tessaplug::DeviceNotifier {
  public:
    void Initialize(SERVICE_STATUS_HANDLE) override {}
    void Register(const tessaplug::ModelRecord&) override {}
    void OnDeviceArrival(const GUID&, DWORD) override {
        if (busy) ::WaitForSingleObject(busy, INFINITE);
    }
    HANDLE busy = nullptr;
};

/// One lock, one small allocation, one SetEvent; and a worker that takes what is there, as soon as it is
/// woken.
class BareHandler {
  public:
    BareHandler()
        : wake_(::CreateEventW(nullptr, FALSE, FALSE, nullptr)),
          release_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
          worker_([this] { Work(); }) {}
    ~BareHandler() {
        {
            const std::lock_guard guard(lock_);
            ends_ = true;
        }
        ::SetEvent(release_.get());
        ::SetEvent(wake_.get());
        worker_.join();
    }
    BareHandler(const BareHandler&) = delete;
    BareHandler& operator=(const BareHandler&) = delete;

    void Handle() {
        auto request = std::make_unique<tessaplug::Request>();
        const std::lock_guard guard(lock_);
        std::swap(next_, request);
        ::SetEvent(wake_.get());
    }
    void MakeBusy() {
        {
            const std::lock_guard guard(lock_);
            busy_ = true;
        }
        ::SetEvent(wake_.get());
    }

  private:
    void Work() {
        for (;;) {
            ::WaitForSingleObject(wake_.get(), INFINITE);
            std::unique_ptr<tessaplug::Request> taken;
            bool busy = false;
            {
                const std::lock_guard guard(lock_);
                if (ends_) return;
                taken = std::move(next_);
                busy = busy_;
            }
            if (busy) ::WaitForSingleObject(release_.get(), INFINITE);
        }
    }

    std::mutex lock_;  // guards the members up to busy_
    std::unique_ptr<tessaplug::Request> next_;
    bool ends_ = false;
    bool busy_ = false;
    const UniqueKernelHandle wake_;
    const UniqueKernelHandle release_;
    std::thread worker_;
};

}  // namespace

void MeasureControlHandler() {
    const auto notifier = std::make_shared<IdleNotifier>();
    tessaplug::ServiceCollaborators collaborators;
    collaborators.deviceNotifier = notifier;
    tessaplug::Service service(std::move(collaborators));
    if (service.init(TESSAPLUG_API_VERSION, reinterpret_cast<SERVICE_STATUS_HANDLE>(1), &IgnoreStatus,
                     nullptr, 0) != 1)
        throw std::runtime_error("the service does not start");
    DEV_BROADCAST_DEVICEINTERFACE_W data = {};
    data.dbcc_size = sizeof data;
    data.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    data.dbcc_classguid = tessaplug::kNx4120InterfaceGuid;
    const auto event = [&] {
        service.service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr);
    };
    BareHandler bare;
    const auto handle = [&bare] { bare.Handle(); };
    Print("one lock, one allocation, one SetEvent, worker idle", "control handler, worker idle", "ns",
          Alternate([&] { return NanosecondsOfOne(event); }, [&] { return NanosecondsOfOne(handle); }));
    const UniqueKernelHandle release(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    notifier->busy = release.get();
    event();
    bare.MakeBusy();
    Print("one lock, one allocation, one SetEvent, worker busy", "control handler, worker busy", "ns",
          Alternate([&] { return NanosecondsOf(kCalls, event); },
                    [&] { return NanosecondsOf(kCalls, handle); }, kManyRounds));
    ::SetEvent(release.get());
    service.cleanup();
}

}  // namespace bench
