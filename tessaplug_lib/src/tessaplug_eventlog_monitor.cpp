#include "tessaplug_eventlog_monitor.h"

#include <stdexcept>
#include <utility>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
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
    try {
        if (RunningInstance >= 1) {
            TRACE_WARNING(11, "The monitor runs already");
            return 0;
        }
        monitorReleased = false;
        // After the flag was cleared: Abandon sets it last.
        if (abandoned_) return 0;
        eventLog_->Open();
        ThreadChangeState(State::kRunning);
        RunInternal();
        if (monitorReleased) TRACE_WARNING(12, "The monitor was released");
        HandleThreadStop();
    } catch (const std::exception& error) {
        TRACE_ERROR(13, "The monitor ends: %s", error.what());
    } catch (...) {
        TRACE_ERROR(14, "The monitor ends: unknown exception");
    }
    return 0;
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
        if (buffer.empty()) PauseAfterFailedRead();
    } while (RunningInstance > 0);
}

/// A read that was not cancelled returned nothing: the log cannot be read just now. Tried again at once, that
/// would take a whole processor for as long as it lasts.
void EventLogMonitor::PauseAfterFailedRead() const {
    FUNCTION_TRACE();
    constexpr DWORD kStepMs = 50;
    constexpr int kSteps = 20;
    for (int i = 0; i < kSteps && RunningInstance > 0 && !monitorReleased; ++i)
        ::Sleep(kStepMs);
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
        ::Sleep(kStepMs);
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
