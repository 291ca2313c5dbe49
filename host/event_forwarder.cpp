#include "event_forwarder.h"

#include <dbt.h>
#include <winsvc.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

#include "slim_lock.h"

namespace host {
namespace {

struct Event {
    DWORD control;
    DWORD eventType;
    std::vector<BYTE> data;
};

/// The size of what a control's event data points to; 0 if the control has none.
std::size_t SizeOf(DWORD control, DWORD eventType, const void* eventData) {
    if (eventData == nullptr) return 0;
    if (control == SERVICE_CONTROL_DEVICEEVENT) {
        const auto* header = static_cast<const DEV_BROADCAST_HDR*>(eventData);
        return std::max(std::size_t{header->dbch_size}, sizeof *header);
    }
    if (control == SERVICE_CONTROL_POWEREVENT && eventType == PBT_POWERSETTINGCHANGE)
        return offsetof(POWERBROADCAST_SETTING, Data) +
               static_cast<const POWERBROADCAST_SETTING*>(eventData)->DataLength;
    return 0;
}

/// The class of a device event's interface; zero for everything else.
GUID ClassOf(const Event& event) {
    DEV_BROADCAST_DEVICEINTERFACE_W device = {};
    if (event.control != SERVICE_CONTROL_DEVICEEVENT || event.data.size() < sizeof device) return {};
    std::memcpy(&device, event.data.data(), sizeof device);
    return device.dbcc_devicetype == DBT_DEVTYP_DEVICEINTERFACE ? device.dbcc_classguid : GUID{};
}

/// The oldest event that a later one outdates, so that each model's last state stays; the oldest of all if
/// there is none.
void DropOne(std::deque<Event>& waiting) {
    auto dropped = std::ranges::find_if(waiting, [&waiting](const Event& event) {
        const GUID ofEvent = ClassOf(event);
        const auto isLater = [&](const Event& other) {
            return &other != &event && other.control == event.control && IsEqualGUID(ClassOf(other), ofEvent);
        };
        return std::ranges::any_of(waiting, isLater);
    });
    waiting.erase(dropped != waiting.end() ? dropped : waiting.begin());
}

}  // namespace

struct EventForwarder::Queue {
    explicit Queue(Receiver toBeCalled) : receiver(std::move(toBeCalled)) {}

    Receiver receiver;
    SlimLock lock;  // guards what follows; not held during a call
    SlimCondition changed;
    std::deque<Event> waiting;
    bool isCalling = false;
    bool isClosed = false;
};

EventForwarder::EventForwarder(Receiver receiver)
    : queue_(std::make_shared<Queue>(std::move(receiver))), thread_([queue = queue_] { Run(*queue); }) {}

EventForwarder::~EventForwarder() {
    Close();
}

bool EventForwarder::Post(DWORD control, DWORD eventType, const void* eventData) {
    const auto* bytes = static_cast<const BYTE*>(eventData);
    Event event{control, eventType, {bytes, bytes + SizeOf(control, eventType, eventData)}};
    bool isFull = false;
    {
        const std::lock_guard guard(queue_->lock);
        if (queue_->isClosed) return true;
        isFull = queue_->waiting.size() == kMostWaiting;
        if (isFull) DropOne(queue_->waiting);
        queue_->waiting.push_back(std::move(event));
    }
    queue_->changed.WakeAll();
    return !isFull;
}

bool EventForwarder::Close() {
    if (!thread_.joinable()) return queue_->receiver == nullptr;
    {
        std::unique_lock guard(queue_->lock);
        queue_->isClosed = true;
        queue_->waiting.clear();
        queue_->changed.WakeAll();
        if (!queue_->changed.WaitFor(guard, kTimeToReturn, [this] { return !queue_->isCalling; })) {
            thread_.detach();
            return false;
        }
    }
    thread_.join();
    queue_->receiver = nullptr;
    return true;
}

void EventForwarder::Run(Queue& queue) {
    std::unique_lock guard(queue.lock);
    for (;;) {
        queue.changed.Wait(guard, [&queue] { return queue.isClosed || !queue.waiting.empty(); });
        if (queue.isClosed) return;
        Event event = std::move(queue.waiting.front());
        queue.waiting.pop_front();
        queue.isCalling = true;
        guard.unlock();
        queue.receiver(event.control, event.eventType, event.data.empty() ? nullptr : event.data.data());
        guard.lock();
        queue.isCalling = false;
        queue.changed.WakeAll();
    }
}

}  // namespace host
