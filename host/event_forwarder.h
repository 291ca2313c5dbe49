#pragma once

#include <windows.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <thread>

namespace host {

/// Passes events on to the plug-in on a thread of its own, one at a time and in order. All of a service's
/// controls come on one thread, the control dispatcher's: a plug-in that did not return from an event there,
/// as while a message box is open in it, would keep the stop from ever reaching the service.
class EventForwarder {
  public:
    /// Must not throw. The data is the forwarder's copy and valid during the call.
    using Receiver = std::function<void(DWORD control, DWORD eventType, void* eventData)>;

    /// How many events wait at most behind one that does not return; then the oldest that is out of date is
    /// dropped.
    static constexpr std::size_t kMostWaiting = 1000;

    /// @throws std::system_error if the thread cannot be started
    explicit EventForwarder(Receiver receiver);
    ~EventForwarder();
    EventForwarder(const EventForwarder&) = delete;
    EventForwarder& operator=(const EventForwarder&) = delete;

    /// Returns at once.
    /// @param eventData of a SERVICE_CONTROL_DEVICEEVENT or SERVICE_CONTROL_POWEREVENT; copied. May be null
    /// @return false if one that waited was dropped
    bool Post(DWORD control, DWORD eventType, const void* eventData);

    /// How long a call that is going on gets to return when the forwarder is closed.
    static constexpr std::chrono::milliseconds kTimeToReturn{1000};

    /// Drops the events that wait, and takes no more.
    /// @return true if the receiver is gone; false if a call of it has not returned in time: it is left alone
    ///     then, with its thread, which ends after that call
    bool Close();

  private:
    struct Queue;
    static void Run(Queue& queue);

    const std::shared_ptr<Queue> queue_;  // the thread's as well: it may outlive this object
    std::thread thread_;
};

}  // namespace host
