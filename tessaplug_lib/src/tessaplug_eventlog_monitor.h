#pragma once

#include <windows.h>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "evlog_check.h"
#include "ui_message_box.h"
#include "unique_handle.h"
#include "win_api.h"

namespace tessaplug {

/// Set by the service when the monitor does not acknowledge its stop in time: the monitor's loop ends at its
/// next check. Cleared when a monitor starts.
extern std::atomic<bool> monitorReleased;

/// What an EventLogMonitor works with.
struct EventLogMonitorCollaborators {
    std::unique_ptr<operating_system::EventLog> eventLog =
        std::make_unique<operating_system::EventLog>(L"System");
    std::unique_ptr<operating_system::SystemMessageBox> messageBox =
        std::make_unique<operating_system::SystemMessageBox>();
    std::shared_ptr<windows_api::CKernel32> kernel32 = std::make_shared<windows_api::CKernel32>();
    std::function<void(DWORD milliseconds)> sleep = ::Sleep;
};

/// Shows the errors that the adapters' drivers report into the System event log to the user, one after the
/// other: while a box is open, later records wait in the log.
///
/// Threads: Run is the body of the monitor's thread; Stop and WaitBlockingForStateChange belong to the thread
/// that starts and stops the service.
class EventLogMonitor {
  public:
    /// @throws modul_exception::CWindowsApiExcp if the event of its state cannot be created
    explicit EventLogMonitor(EventLogMonitorCollaborators collaborators = {});
    virtual ~EventLogMonitor();
    EventLogMonitor(const EventLogMonitor&) = delete;
    EventLogMonitor& operator=(const EventLogMonitor&) = delete;

    /// Watches the log until it is stopped; returns at once if it runs already. An exception on its way, also
    /// one of the log or of a message box and one that is no C++ exception, ends it without the state
    /// changing to stopped, and with a warning in the Application log. A log that cannot be read does not end
    /// it: it is opened again, at intervals that grow up to a minute. Never throws.
    /// @return 0
    virtual DWORD Run();
    /// @param stopFlag whether Run waits, at its end, until `monitorReleased` is set
    virtual void Stop(bool stopFlag);
    /// The monitor is not wanted any more, whether it has begun or will: Run ends at its next check, without
    /// being stopped.
    void Abandon();
    /// Waits until Run has begun, or until it has ended after Stop.
    /// @param timeout in milliseconds
    /// @return false if the time is over
    /// @throws std::runtime_error, modul_exception::CWindowsApiExcp if it cannot be waited for
    virtual bool WaitBlockingForStateChange(DWORD timeout);

  private:
    enum class State { kRunning = 0, kStopped = 1 };

    void ThreadChangeState(State state);
    bool IsWanted() const;
    void Watch(bool& watches);
    void RunInternal();
    void RecoverFromFailedRead();
    void PauseAfterFailedRead() const;
    void Show(const std::vector<operating_system::UserMessage>& messages);
    void HandleThreadStop();
    static void ReportEnd();

    std::shared_ptr<windows_api::CKernel32> kernel32_;
    std::function<void(DWORD milliseconds)> sleep_;
    HANDLE threadState_ = nullptr;  // auto-reset; signalled at each change
    std::atomic<long> RunningInstance = 0;
    std::atomic<bool> stopFlag_ = false;
    std::atomic<bool> abandoned_ = false;
    std::unique_ptr<operating_system::EventLog> eventLog_;
    std::unique_ptr<operating_system::SystemMessageBox> messageBox_;
};

}  // namespace tessaplug
