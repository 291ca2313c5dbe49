#include "service_main.h"

#include <windows.h>
#include <winsvc.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>

#include "plug_in.h"
#include "status_log.h"
#include "toolbox.h"
#include "unique_handle.h"
#include "wine_gap_loader.h"

namespace host {
namespace {

/// What the service reports as its own exit code when the plug-in does not start.
enum ServiceExitCode : DWORD { kPlugInRefused = 1 };

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
            Log().Write(L"The service handler cannot be registered, error " +
                        std::to_wstring(::GetLastError()));
            return;
        }
        Report(SERVICE_START_PENDING, 1, 3000);
        try {
            Serve();
        } catch (const PlugInError& error) {
            Log().Write(toolbox::StringToWstring(error.what()));
            ReportStopped(error.Code(), 0);
        } catch (const std::exception& error) {
            Log().Write(L"The service ends: " + toolbox::StringToWstring(error.what()));
            ReportStopped(ERROR_EXCEPTION_IN_SERVICE, 0);
        }
    }

  private:
    void Serve() {
        Log().Write(L"Loading " + options_.plugIn);
        auto plugIn = std::make_shared<PlugIn>(options_.plugIn);
        SetPlugIn(plugIn);
        const bool started =
            plugIn->init(TESSAPLUG_API_VERSION, statusHandle_, &OnPlugInStatus, this, 0) == 1;
        if (started) {
            Log().Write(L"The plug-in has started");
            Report(SERVICE_RUNNING, 0, 0);
            ::WaitForSingleObject(stop_.get(), INFINITE);
            Report(SERVICE_STOP_PENDING, 1, 25000);
        } else {
            Log().Write(L"The plug-in refused to start; see the Application log");
        }
        plugIn->cleanup();
        SetPlugIn(nullptr);
        plugIn.reset();
        const bool unloaded = ::GetModuleHandleW(options_.plugIn.c_str()) == nullptr;
        Log().Write(unloaded ? L"The plug-in is unloaded"
                             : L"The plug-in stays loaded: a thread is still in it");
        leavesThread_ = !unloaded;
        // Last of all: the service manager may end the process from here on.
        if (started)
            ReportStopped(NO_ERROR, 0);
        else
            ReportStopped(ERROR_SERVICE_SPECIFIC_ERROR, kPlugInRefused);
    }

    /// The plug-in as the control handler sees it. The handler holds a reference of its own while it
    /// forwards, so that no lock is held across a call into the plug-in and the library stays loaded until
    /// the call is over.
    std::shared_ptr<PlugIn> CurrentPlugIn() {
        const std::lock_guard guard(plugInLock_);
        return plugIn_;
    }
    void SetPlugIn(std::shared_ptr<PlugIn> plugIn) {
        const std::lock_guard guard(plugInLock_);
        plugIn_ = std::move(plugIn);
    }

    static void WINAPI OnPlugInStatus(void* context, SERVICE_STATUS* status) {
        // The plug-in reports its start only; what it must not decide is filled in here.
        if (context == nullptr) return;
        static_cast<HostService*>(context)->Report(status->dwCurrentState, status->dwCheckPoint,
                                                   status->dwWaitHint);
    }

    static DWORD WINAPI HandleControl(DWORD control, DWORD eventType, void* eventData,
                                      void* context) noexcept {
        auto& service = *static_cast<HostService*>(context);
        switch (control) {
            case SERVICE_CONTROL_STOP:
            case SERVICE_CONTROL_SHUTDOWN:
                Log().Write(control == SERVICE_CONTROL_STOP ? L"Stop requested" : L"The machine shuts down");
                ::SetEvent(service.stop_.get());
                return NO_ERROR;
            case SERVICE_CONTROL_INTERROGATE:
                service.ReportAgain();
                return NO_ERROR;
            case SERVICE_CONTROL_DEVICEEVENT:
            case SERVICE_CONTROL_POWEREVENT:
                return service.Forward(control, eventType, eventData);
            default:
                return ERROR_CALL_NOT_IMPLEMENTED;
        }
    }

    DWORD Forward(DWORD control, DWORD eventType, void* eventData) {
        const std::shared_ptr<PlugIn> plugIn = CurrentPlugIn();
        wchar_t line[80] = {};
        std::swprintf(line, ARRAYSIZE(line), L"%ls 0x%04lx%ls",
                      control == SERVICE_CONTROL_DEVICEEVENT ? L"Device event" : L"Power event", eventType,
                      plugIn ? L"" : L" dropped: no plug-in");
        Log().Write(line);
        return plugIn ? plugIn->serviceCtrlHandler(control, eventType, eventData, nullptr) : NO_ERROR;
    }

    void Report(DWORD state, DWORD checkPoint, DWORD waitHint) {
        const std::lock_guard guard(statusLock_);
        status_.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        status_.dwCurrentState = state;
        status_.dwControlsAccepted =
            state == SERVICE_RUNNING
                ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_POWEREVENT
                : 0;
        status_.dwCheckPoint = checkPoint;
        status_.dwWaitHint = waitHint;
        wchar_t line[80] = {};
        std::swprintf(line, ARRAYSIZE(line), L"%-13ls  check point %lu, wait hint %lu ms", StateName(state),
                      checkPoint, waitHint);
        Log().Write(line);
        ::SetServiceStatus(statusHandle_, &status_);
    }

    void ReportStopped(DWORD exitCode, DWORD specificExitCode) {
        {
            const std::lock_guard guard(statusLock_);
            status_.dwWin32ExitCode = exitCode;
            status_.dwServiceSpecificExitCode = specificExitCode;
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
    std::mutex plugInLock_;  // guards plugIn_
    std::shared_ptr<PlugIn> plugIn_;
    std::atomic<bool> leavesThread_ = false;
};

void WINAPI ServiceMain(DWORD /*argc*/, wchar_t** /*argv*/) noexcept {
    HostService::Instance().Run();
}

}  // namespace

ExitCode RunService(const Options& options) {
    Log().Open(options.log);
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
        std::fwprintf(stderr, L"tessahost: the service cannot be run, error %lu\n", ::GetLastError());
    return ExitCode::kFailed;
}

}  // namespace host
