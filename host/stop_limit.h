#pragma once

#include <windows.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "unique_handle.h"

namespace host {

/// Sees to it that a stop gets on and comes to an end: from Begin on it calls `report` once a second, and if
/// End has not been called when the limit is over, it calls `giveUp` instead. The calls come from a thread of
/// its own. That thread is started with the object, long before it is needed: a stop that hangs in the loader
/// lets no thread start any more.
class StopLimit {
  public:
    using Callback = std::function<void()>;

    /// @param limit counted in reports, so that a machine that sleeps meanwhile does not use it up
    /// @throws std::system_error if the thread cannot be started
    StopLimit(std::chrono::seconds limit, Callback report, Callback giveUp);
    ~StopLimit();
    StopLimit(const StopLimit&) = delete;
    StopLimit& operator=(const StopLimit&) = delete;

    void Begin();
    /// Neither is called any more when it returns; if `giveUp` is just being called, it waits for that.
    void End();

  private:
    void Watch();

    std::chrono::seconds limit_;
    Callback report_;
    Callback giveUp_;
    UniqueKernelHandle begun_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    UniqueKernelHandle ended_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::mutex lock_;  // held during the calls
    std::thread thread_;
};

}  // namespace host
