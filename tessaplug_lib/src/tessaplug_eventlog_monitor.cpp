#include "tessaplug_eventlog_monitor.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "structured_exception.h"
#include "tessaplug.h"
#include "trace_point.h"
#include "windows_api_excp.h"

TRACE_SOURCE("tessaplug_lib\\src\\tessaplug_eventlog_monitor", "d3c58e19-7b04-4a62-95fe-2b6a0d8c4f48",
             trace::kModule);

using modul_exception::CWindowsApiExcp;
using operating_system::EventRecordParser;
using operating_system::Fenlu3;
using operating_system::FilterChain;
using operating_system::UserMessage;

namespace tessaplug {

std::atomic<bool> monitorReleased = false;

EventLogMonitor::EventLogMonitor(EventLogMonitorCollaborators collaborators)
    : kernel32_(std::move(collaborators.kernel32)),
      sleep_(std::move(collaborators.sleep)),
      eventLog_(std::move(collaborators.eventLog)),
      messageBox_(std::move(collaborators.messageBox)) {
    FUNCTION_TRACE();
    threadState_ = kernel32_->CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (threadState_ == nullptr) MODUL_THROW(CWindowsApiExcp("CreateEventW()", "Insufficient rights?"));
}

EventLogMonitor::~EventLogMonitor() {
    FUNCTION_TRACE();
    if (!kernel32_->CloseHandle(threadState_))
        TRACE_WARNING(10, "CloseHandle(threadState_) failed, LE(%u)", ::GetLastError());
}

DWORD EventLogMonitor::Run() {
    FUNCTION_TRACE();
    bool watches = false;
    try {
        // What partners raise is caught where they are called; this is for the rest.
        operating_system::CallForeign([&] { Watch(watches); });
        return 0;
    } catch (const std::exception& error) {
        TRACE_ERROR(13, "The monitor ends: %s", error.what());
    } catch (...) {
        TRACE_ERROR(14, "The monitor ends: unknown exception");
    }
    // A start that fails is reported by the one who started; an end that was asked for is none to report.
    if (watches && IsWanted()) ReportEnd();
    return 0;
}

/// @param watches whether the log is being watched, also when it is left by an exception
void EventLogMonitor::Watch(bool& watches) {
    FUNCTION_TRACE();
    if (RunningInstance >= 1) {
        TRACE_WARNING(11, "The monitor runs already");
        return;
    }
    monitorReleased = false;
    // After the flag was cleared: Abandon sets it last.
    if (abandoned_) return;
    eventLog_->Open();
    ThreadChangeState(State::kRunning);
    watches = true;
    RunInternal();
    watches = false;
    if (monitorReleased) TRACE_WARNING(12, "The monitor was released");
    HandleThreadStop();
}

bool EventLogMonitor::IsWanted() const {
    FUNCTION_TRACE();
    return RunningInstance > 0 && !monitorReleased;
}

/// Says in the Application log what nobody would learn otherwise: that drivers' errors are shown no longer.
void EventLogMonitor::ReportEnd() {
    FUNCTION_TRACE();
    constexpr unsigned int kWarning = 2;
    try {
        operating_system::CallForeign([] { _ModulSysLog_00(kWarning, TESSAPLUG_EVENT_MONITOR_ENDED); });
    } catch (...) {
        TRACE_ERROR(21, "The end of the monitor could not be reported");
    }
}

void EventLogMonitor::RunInternal() {
    FUNCTION_TRACE();
    EventRecordParser parser(std::make_shared<FilterChain>(FilterChain{std::make_shared<Fenlu3>()}));
    std::vector<UserMessage> messages;
    do {
        if (monitorReleased) return;
        const std::vector<std::byte> buffer = eventLog_->BlockingRead();
        if (monitorReleased) return;
        parser.Process(buffer, messages);
        if (monitorReleased) return;
        Show(messages);
        messages.clear();
        if (buffer.empty()) RecoverFromFailedRead();
    } while (RunningInstance > 0);
}

/// A read that was not cancelled returned nothing: the log cannot be read just now, because its service was
/// restarted or its file is damaged. It is opened again for as long as it takes.
void EventLogMonitor::RecoverFromFailedRead() {
    FUNCTION_TRACE();
    bool isOpen = false;
    while (!isOpen && IsWanted()) {
        PauseAfterFailedRead();
        if (IsWanted()) isOpen = eventLog_->Reopen();
    }
}

/// Tried again at once, it would take a whole processor for as long as it lasts. In steps, because a stop
/// does not wait.
void EventLogMonitor::PauseAfterFailedRead() const {
    FUNCTION_TRACE();
    constexpr DWORD kStepMs = 50;
    constexpr DWORD kShortestMs = 1000;
    constexpr DWORD kLongestMs = 60000;
    constexpr DWORD kMostDoublings = 6;
    const DWORD doublings = std::min(std::max(eventLog_->FailedReads(), DWORD{1}) - 1, kMostDoublings);
    const DWORD pause = std::min(kShortestMs << doublings, kLongestMs);
    TRACE_WARNING(22, "The log is opened again in %u ms", pause);
    for (DWORD waited = 0; waited < pause && IsWanted(); waited += kStepMs)
        sleep_(kStepMs);
}

void EventLogMonitor::Show(const std::vector<UserMessage>& messages) {
    FUNCTION_TRACE();
    constexpr DWORD kError = 3;
    for (const UserMessage& message : messages) {
        if (message.severity != kError) continue;
        TRACE_VERBOSE(15, "Showing %S: %S", message.source, message.message);
        messageBox_->Show(message.source.c_str(), message.message.c_str(), MB_ICONINFORMATION);
    }
}

void EventLogMonitor::HandleThreadStop() {
    FUNCTION_TRACE();
    constexpr DWORD kStepMs = 100;
    eventLog_->Close();
    ThreadChangeState(State::kStopped);
    if (!stopFlag_) return;
    TRACE_WARNING(16, "Waiting to be released");
    while (!monitorReleased)
        sleep_(kStepMs);
    TRACE_WARNING(17, "Released");
}

void EventLogMonitor::ThreadChangeState(State state) {
    FUNCTION_TRACE();
    if (state == State::kRunning) {
        const long val = ++RunningInstance;
        MODUL_ASSERT("Incremented RunningInstance" && (val == 1));
    }
    if (!kernel32_->SetEvent(threadState_))
        MODUL_THROW(CWindowsApiExcp("SetEvent(threadState_)", state == State::kRunning ? "UP" : "DOWN"));
}

void EventLogMonitor::Stop(bool stopFlag) {
    FUNCTION_TRACE();
    if (RunningInstance == 0) {
        TRACE_WARNING(18, "The monitor does not run");
        return;
    }
    stopFlag_ = stopFlag;
    const long val = --RunningInstance;
    MODUL_ASSERT("Decremented RunningInstance" && (val == 0));
    eventLog_->CancelRead();
}

void EventLogMonitor::Abandon() {
    FUNCTION_TRACE();
    abandoned_ = true;
    monitorReleased = true;
    eventLog_->CancelRead();
}

bool EventLogMonitor::WaitBlockingForStateChange(DWORD timeout) {
    FUNCTION_TRACE();
    switch (kernel32_->WaitForSingleObject(threadState_, timeout)) {
        case WAIT_OBJECT_0:
            TRACE_INFO(19, "The monitor has changed its state");
            return true;
        case WAIT_TIMEOUT:
            TRACE_WARNING(20, "The monitor has not changed its state in %u ms", timeout);
            return false;
        case WAIT_ABANDONED:
            MODUL_THROW(std::runtime_error("WaitForSingleObject(EventLogMonitor) --> WAIT_ABANDONED"));
        default:
            MODUL_THROW(CWindowsApiExcp("WaitForSingleObject(EventLogMonitor)", ""));
    }
}

}  // namespace tessaplug
