#include "service_main.h"

#include <windows.h>
#include <winsvc.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>

#include "event_forwarder.h"
#include "library_search.h"
#include "plug_in.h"
#include "protected_folder.h"
#include "quelm_orvix.h"
#include "service_controls.h"
#include "status_log.h"
#include "stop_limit.h"
#include "system_error.h"
#include "toolbox.h"
#include "unique_handle.h"
#include "wine_gap_loader.h"

namespace host {
namespace {

/// How long a stop may take between two check points. They come once a second; a machine that is going down
/// is slow.
constexpr DWORD kStopHint = 5000;

/// How the service ends.
struct Outcome {
    DWORD exitCode = NO_ERROR;
    DWORD specificExitCode = 0;
};

/// The one service of the process.
class HostService {
  public:
    static HostService& Instance() {
        static HostService service;
        return service;
    }

    void SetOptions(const Options& options) { options_ = options; }
    /// Whether a thread is still in the plug-in when the service has stopped.
    bool LeavesThread() const { return leavesThread_; }

    void Run() {
        LoadWineGap();
        stop_.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        statusHandle_ = ::RegisterServiceCtrlHandlerExW(options_.name.c_str(), &HandleControl, this);
        if (statusHandle_ == nullptr) {
            Log().Write(L"The service handler cannot be registered: " +
                        operating_system::DescribeSystemError(::GetLastError()));
            return;
        }
        Report(SERVICE_START_PENDING, 1, 3000);
        Outcome outcome;
        try {
            outcome = Serve();
        } catch (const PlugInError& error) {
            Log().Write(error.Text());
            outcome.exitCode = error.Code();
        } catch (const std::exception& error) {
            Log().Write(L"The service ends: " + toolbox::Widened(error.what()));
            outcome.exitCode = ERROR_EXCEPTION_IN_SERVICE;
            // The plug-in may be as it was, with its threads: the process must not end in order around it.
            leavesThread_ = Events() != nullptr;
            SetEvents(nullptr);
        }
        // Last of all: the service manager may end the process from here on.
        ReportStopped(outcome);
    }

  private:
    Outcome Serve() {
        StopLimit stopLimit(
            std::chrono::seconds(options_.stopTimeOut),
            [this] { Report(SERVICE_STOP_PENDING, NextCheckPoint(), kStopHint); }, [this] { GiveUp(); });
        SearchLibraryFolder();
        Log().Write(L"Loading " + options_.plugIn);
        auto plugIn = std::make_shared<PlugIn>(options_.plugIn);
        const auto events =
            std::make_shared<EventForwarder>([this, plugIn](DWORD control, DWORD eventType, void* eventData) {
                HandOver(*plugIn, control, eventType, eventData);
            });
        SetEvents(events);
        Outcome outcome = Start(*plugIn);
        if (outcome.exitCode == NO_ERROR) {
            Report(SERVICE_RUNNING, 0, 0);
            ::WaitForSingleObject(stop_.get(), INFINITE);
        }
        stopLimit.Begin();
        Report(SERVICE_STOP_PENDING, 1, kStopHint);
        Cleanup(*plugIn, outcome);
        SetEvents(nullptr);
        // A call that does not return in a second is left alone; its reference keeps the library loaded.
        events->Close();
        plugIn.reset();
        const bool unloaded = ::GetModuleHandleW(options_.plugIn.c_str()) == nullptr;
        Log().Write(unloaded ? L"The plug-in is unloaded"
                             : L"The plug-in stays loaded: a thread is still in it");
        leavesThread_ = !unloaded;
        stopLimit.End();
        return outcome;
    }

    /// What the plug-in loads by its path, the configuration library, needs libraries of its own. It may be
    /// installed or moved while the service runs, and the plug-in looks for it anew with each device event.
    void SearchLibraryFolder() {
        if (!libraryFolder_.Set(registration_.Folder())) return;
        const DWORD error = libraryFolder_.Error();
        Log().Write(L"The configuration library's folder " + libraryFolder_.Folder() +
                    (error == ERROR_SUCCESS ? L" is searched for libraries"
                                            : L" cannot be searched for libraries: " +
                                                  operating_system::DescribeSystemError(error)));
    }

    Outcome Start(PlugIn& plugIn) {
        try {
            if (plugIn.Init(statusHandle_, &OnPlugInStatus, this) == 1) {
                Log().Write(L"The plug-in has started");
                return {};
            }
        } catch (const PlugInError& error) {
            plugIn.KeepLoaded();
            Log().Write(error.Text());
            return {error.Code()};
        }
        Log().Write(L"The plug-in refused to start; see the Application log");
        return {ERROR_SERVICE_SPECIFIC_ERROR, kPlugInRefused};
    }

    /// Init and clean-up belong to one thread, so the clean-up stays on this one; what has to go on meanwhile
    /// is done by the stop limit's.
    static void Cleanup(PlugIn& plugIn, Outcome& outcome) {
        try {
            plugIn.Cleanup();
        } catch (const PlugInError& error) {
            plugIn.KeepLoaded();
            Log().Write(error.Text());
            if (outcome.exitCode == NO_ERROR) outcome.exitCode = error.Code();
        }
    }

    /// The clean-up hangs in a partner, and nothing that it waits for can be trusted to come.
    void GiveUp() {
        Log().Write(L"The plug-in's clean-up has not returned within " +
                    std::to_wstring(options_.stopTimeOut) +
                    L" s: a partner (station manager, configuration library, interface panel) hangs, or a "
                    L"message box is open. The process is ended");
        ReportStopped({ERROR_SERVICE_SPECIFIC_ERROR, kStopTimedOut});
        // An orderly end would wait for the same partner.
        ::TerminateProcess(::GetCurrentProcess(), kStopTimedOut);
    }

    /// Where events go as the control handler sees it: it takes a reference of its own while it posts one.
    std::shared_ptr<EventForwarder> Events() {
        const std::lock_guard guard(eventsLock_);
        return events_;
    }
    void SetEvents(std::shared_ptr<EventForwarder> events) {
        const std::lock_guard guard(eventsLock_);
        events_ = std::move(events);
    }

    static void WINAPI OnPlugInStatus(void* context, SERVICE_STATUS* status) {
        // The plug-in reports its start only; what it must not decide is filled in here.
        if (context == nullptr || status == nullptr) return;
        static_cast<HostService*>(context)->Report(status->dwCurrentState, status->dwCheckPoint,
                                                   status->dwWaitHint);
    }

    static DWORD WINAPI HandleControl(DWORD control, DWORD eventType, void* eventData,
                                      void* context) noexcept {
        auto& service = *static_cast<HostService*>(context);
        try {
            return service.Control(control, eventType, eventData);
        } catch (const std::exception&) {
            return ERROR_EXCEPTION_IN_SERVICE;
        }
    }

    DWORD Control(DWORD control, DWORD eventType, void* eventData) {
        if (const wchar_t* const reason = StopReason(control)) {
            Log().Write(reason);
            ::SetEvent(stop_.get());
            return NO_ERROR;
        }
        switch (control) {
            case SERVICE_CONTROL_INTERROGATE:
                ReportAgain();
                return NO_ERROR;
            case SERVICE_CONTROL_DEVICEEVENT:
            case SERVICE_CONTROL_POWEREVENT:
                return Forward(control, eventType, eventData);
            default:
                return ERROR_CALL_NOT_IMPLEMENTED;
        }
    }

    /// Grants every event: what the plug-in answers comes too late for that, and is 0 by its contract. The
    /// log comes last: whoever has plugged in an adapter does not wait for its disk.
    DWORD Forward(DWORD control, DWORD eventType, const void* eventData) {
        const std::shared_ptr<EventForwarder> events = Events();
        const bool isKept = !events || events->Post(control, eventType, eventData);
        wchar_t line[80] = {};
        std::swprintf(line, ARRAYSIZE(line), L"%ls 0x%04lx%ls",
                      control == SERVICE_CONTROL_DEVICEEVENT ? L"Device event" : L"Power event", eventType,
                      events ? L"" : L" dropped: no plug-in");
        Log().Write(line);
        if (!isKept)
            Log().Write(L"Too many events wait for the plug-in: one that is out of date was dropped");
        return NO_ERROR;
    }

    /// On the forwarder's thread.
    void HandOver(PlugIn& plugIn, DWORD control, DWORD eventType, void* eventData) noexcept {
        if (control == SERVICE_CONTROL_DEVICEEVENT) Attempt([this] { SearchLibraryFolder(); });
        Attempt([&] {
            try {
                plugIn.ServiceCtrlHandler(control, eventType, eventData);
            } catch (const PlugInError& error) {
                Log().Write(error.Text());
            }
        });
    }

    /// What fails here fails for want of memory, of which a line in the log needs some, too.
    template <typename Call>
    static void Attempt(Call call) noexcept {
        try {
            call();
        } catch (const std::exception&) {
            ::OutputDebugStringW(L"tessahost: no memory for an event\n");
        }
    }

    void Report(DWORD state, DWORD checkPoint, DWORD waitHint) {
        const std::lock_guard guard(statusLock_);
        status_.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        status_.dwCurrentState = state;
        status_.dwControlsAccepted = AcceptedControls(state);
        status_.dwCheckPoint = checkPoint;
        status_.dwWaitHint = waitHint;
        wchar_t line[80] = {};
        std::swprintf(line, ARRAYSIZE(line), L"%-13ls  check point %lu, wait hint %lu ms", StateName(state),
                      checkPoint, waitHint);
        Log().Write(line);
        ::SetServiceStatus(statusHandle_, &status_);
    }

    DWORD NextCheckPoint() {
        const std::lock_guard guard(statusLock_);
        return status_.dwCheckPoint + 1;
    }

    void ReportStopped(const Outcome& outcome) {
        {
            const std::lock_guard guard(statusLock_);
            status_.dwWin32ExitCode = outcome.exitCode;
            status_.dwServiceSpecificExitCode = outcome.specificExitCode;
        }
        Report(SERVICE_STOPPED, 0, 0);
    }

    void ReportAgain() {
        const std::lock_guard guard(statusLock_);
        ::SetServiceStatus(statusHandle_, &status_);
    }

    Options options_;
    SERVICE_STATUS_HANDLE statusHandle_ = nullptr;
    UniqueKernelHandle stop_;
    std::mutex statusLock_;  // guards status_
    SERVICE_STATUS status_ = {};
    // Before the events, whose thread uses both.
    quelm::LibraryRegistration registration_;
    operating_system::SearchedFolder libraryFolder_;
    std::mutex eventsLock_;  // guards events_
    std::shared_ptr<EventForwarder> events_;
    std::atomic<bool> leavesThread_ = false;
};

void WINAPI ServiceMain(DWORD /*argc*/, wchar_t** /*argv*/) noexcept {
    HostService::Instance().Run();
}

/// A log file that cannot be had does not keep the service from its work; why stands in the usual one.
void OpenLog(const Options& options) {
    const LogLimits limits = {options.logSize * ULONGLONG{1024}, options.logKeep};
    std::wstring reason;
    try {
        return Log().Open(options.log, limits);
    } catch (const operating_system::PathRefused& refused) {
        reason = refused.Text();
    }
    try {
        Log().Open(DefaultLogPath(), limits);
        Log().Write(L"The log file " + options.log + L" is not used. " + reason);
    } catch (const std::exception&) {
        ::OutputDebugStringW((L"tessahost: no log file. " + reason + L"\n").c_str());
    }
}

}  // namespace

ExitCode RunService(const Options& options) {
    OpenLog(options);
    HostService::Instance().SetOptions(options);
    std::wstring name = options.name;
    const SERVICE_TABLE_ENTRYW services[] = {{name.data(), &ServiceMain}, {nullptr, nullptr}};
    if (::StartServiceCtrlDispatcherW(services)) {
        // The thread ends with the process. An orderly end would have the plug-in wait for it once more and
        // keep its instance lock meanwhile: a restart would be refused.
        if (HostService::Instance().LeavesThread()) ::TerminateProcess(::GetCurrentProcess(), NO_ERROR);
        return ExitCode::kSuccess;
    }
    if (::GetLastError() == ERROR_FAILED_SERVICE_CONTROLLER_CONNECT)
        std::fputws(L"tessahost: \"run\" is for the service manager; use \"tessahost start\".\n", stderr);
    else
        std::fwprintf(stderr, L"tessahost: the service cannot be run: %ls.\n",
                      operating_system::DescribeSystemError(::GetLastError()).c_str());
    return ExitCode::kFailed;
}

}  // namespace host
