#include "service_control.h"

#include <windows.h>

#include <cstdio>
#include <string>

#include "log_file.h"
#include "protected_folder.h"
#include "service_main.h"
#include "service_report.h"
#include "service_settings.h"
#include "status_log.h"
#include "system_error.h"
#include "unique_handle.h"
#include "win_convenience.h"

namespace host {
namespace {

/// Owns one handle of the service manager.
class ServiceHandle {
  public:
    ServiceHandle(windows_api::Advapi32& advapi32, SC_HANDLE handle) : advapi32_(advapi32), handle_(handle) {}
    ~ServiceHandle() {
        if (handle_ != nullptr) advapi32_.CloseServiceHandle(handle_);
    }
    ServiceHandle(const ServiceHandle&) = delete;
    ServiceHandle& operator=(const ServiceHandle&) = delete;

    SC_HANDLE get() const { return handle_; }
    explicit operator bool() const { return handle_ != nullptr; }

  private:
    windows_api::Advapi32& advapi32_;
    SC_HANDLE handle_;
};

ExitCode Failed(const Options& options, const wchar_t* what, DWORD error) {
    const wchar_t* name = options.name.c_str();
    switch (error) {
        case ERROR_ACCESS_DENIED:
            std::fwprintf(stderr, L"tessahost: %ls is not allowed; run it as administrator.\n", what);
            return ExitCode::kNoRights;
        case ERROR_SERVICE_DOES_NOT_EXIST:
            std::fwprintf(stderr,
                          L"tessahost: the service \"%ls\" is not installed; see \"tessahost install\".\n",
                          name);
            return ExitCode::kNotInstalled;
        case ERROR_SERVICE_EXISTS:
        case ERROR_DUPLICATE_SERVICE_NAME:
            std::fwprintf(stderr,
                          L"tessahost: a service \"%ls\" is installed already; remove it first with "
                          L"\"tessahost uninstall\".\n",
                          name);
            return ExitCode::kAlreadyInstalled;
        case ERROR_SERVICE_MARKED_FOR_DELETE:
            std::fwprintf(stderr,
                          L"tessahost: the service \"%ls\" is being removed; close the programs that "
                          L"show services and try again.\n",
                          name);
            return ExitCode::kFailed;
        case ERROR_SERVICE_ALREADY_RUNNING:
            std::fwprintf(stderr, L"tessahost: the service \"%ls\" is running already.\n", name);
            return ExitCode::kAlreadyRunning;
        case ERROR_SERVICE_CANNOT_ACCEPT_CTRL:
            std::fwprintf(stderr,
                          L"tessahost: the service \"%ls\" is just starting or stopping; try again.\n", name);
            return ExitCode::kFailed;
        case ERROR_SERVICE_NOT_ACTIVE:
            std::fwprintf(stderr, L"tessahost: the service \"%ls\" is not running.\n", name);
            return ExitCode::kNotRunning;
        default:
            std::fwprintf(stderr, L"tessahost: %ls failed: %ls.\n", what,
                          operating_system::DescribeSystemError(error).c_str());
            return ExitCode::kFailed;
    }
}

std::wstring FolderOfThisProgram() {
    const std::wstring self = windows_api::GetModuleFileNameW(nullptr);
    return self.substr(0, self.rfind(L'\\') + 1);
}

/// The plug-in's full path; a relative one is taken from the program's folder. Empty if there is no such
/// file.
std::wstring PlugInPath(const Options& options) {
    std::wstring path = options.plugIn.empty() ? L"tessaplug.dll" : options.plugIn;
    const bool isFull = path.starts_with(L"\\\\") || (path.length() > 2 && path[1] == L':');
    if (!isFull) path = FolderOfThisProgram() + path;
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    const bool isFile = attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
    if (isFile) return path;
    std::fwprintf(stderr, L"tessahost: there is no plug-in %ls; name it with --plugin.\n", path.c_str());
    return {};
}

/// Display names are unique on a machine as well.
std::wstring DisplayName(const Options& options) {
    if (!options.displayName.empty()) return options.displayName;
    return options.name == Options().name ? L"Tessaplug host" : L"Tessaplug host (" + options.name + L")";
}

/// The log's full path: the service runs in another folder. Empty if it cannot be written.
std::wstring LogPath(const Options& options) {
    wchar_t path[MAX_PATH] = {};
    const std::wstring given = options.log.empty() ? DefaultLogPath() : options.log;
    const DWORD length = ::GetFullPathNameW(given.c_str(), MAX_PATH, path, nullptr);
    std::wstring reason = L"its path is too long";
    try {
        if (length > 0 && length < MAX_PATH) {
            LogFile().Open(path, {});
            return path;
        }
    } catch (const operating_system::PathRefused& refused) {
        reason = refused.Text();
    }
    std::fwprintf(stderr,
                  L"tessahost: the log file %ls cannot be written: %ls. Another is named with --log.\n",
                  given.c_str(), reason.c_str());
    return {};
}

/// Quoted whole, so that a path with blanks cannot run another program.
std::wstring ServiceCommandLine(const Options& options, const std::wstring& plugIn, const std::wstring& log) {
    const auto quoted = [](const std::wstring& text) { return L"\"" + text + L"\""; };
    return quoted(windows_api::GetModuleFileNameW(nullptr)) + L" run --name " + quoted(options.name) +
           L" --plugin " + quoted(plugIn) + L" --stop-timeout " + std::to_wstring(options.stopTimeOut) +
           L" --log-size " + std::to_wstring(options.logSize) + L" --log-keep " +
           std::to_wstring(options.logKeep) + L" --log " + quoted(log);
}

void PrintState(const SERVICE_STATUS_PROCESS& status) {
    std::wprintf(L"%-13ls  check point %lu\n", StateName(status.dwCurrentState), status.dwCheckPoint);
}

/// Whether a service that has stopped had to end its own process; tells so.
bool WasEndedByForce(const SERVICE_STATUS_PROCESS& status) {
    if (status.dwWin32ExitCode != ERROR_SERVICE_SPECIFIC_ERROR ||
        status.dwServiceSpecificExitCode != kStopTimedOut)
        return false;
    std::fputws(
        L"tessahost: the plug-in did not stop in time, so that the service's process was ended; its log has "
        L"more. To the service manager this is a failure: it may start the service again.\n",
        stderr);
    return true;
}

/// Whether a service runs no more, as the end of a stop tells.
bool HasEnded(ExitCode stopped) {
    return stopped == ExitCode::kSuccess || stopped == ExitCode::kNotRunning ||
           stopped == ExitCode::kEndedByForce;
}

}  // namespace

template <typename Use>
ExitCode ServiceControl::WithManager(DWORD access, Use use) {
    const ServiceHandle manager(*advapi32_, advapi32_->OpenSCManagerW(nullptr, nullptr, access));
    if (!manager) return Failed({}, L"opening the service manager", ::GetLastError());
    return use(manager.get());
}

template <typename Use>
ExitCode ServiceControl::WithService(const Options& options, DWORD access, Use use) {
    return WithManager(SC_MANAGER_CONNECT, [&](SC_HANDLE manager) {
        const ServiceHandle service(*advapi32_,
                                    advapi32_->OpenServiceW(manager, options.name.c_str(), access));
        if (!service) return Failed(options, L"opening the service", ::GetLastError());
        return use(service.get());
    });
}

ExitCode ServiceControl::Install(const Options& options) {
    const std::wstring plugIn = PlugInPath(options);
    if (plugIn.empty()) return ExitCode::kFailed;
    const std::wstring log = LogPath(options);
    if (log.empty()) return ExitCode::kFailed;
    return WithManager(SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE, [&](SC_HANDLE manager) {
        const ServiceHandle service(*advapi32_,
                                    advapi32_->CreateServiceW_Reduced(
                                        manager, options.name.c_str(), DisplayName(options).c_str(),
                                        ServiceCommandLine(options, plugIn, log).c_str(),
                                        options.automaticStart ? SERVICE_AUTO_START : SERVICE_DEMAND_START));
        if (!service) return Failed(options, L"installing the service", ::GetLastError());
        for (const std::wstring& refusal : ApplySettings(*advapi32_, manager, service.get(), options))
            std::fwprintf(stderr, L"tessahost: %ls\n", refusal.c_str());
        std::wprintf(L"Service \"%ls\" installed with %ls\n", options.name.c_str(), plugIn.c_str());
        return ExitCode::kSuccess;
    });
}

ExitCode ServiceControl::Uninstall(const Options& options) {
    return WithService(options, DELETE | SERVICE_STOP | SERVICE_QUERY_STATUS, [&](SC_HANDLE service) {
        SERVICE_STATUS_PROCESS status = {};
        if (Query(service, status) && status.dwCurrentState != SERVICE_STOPPED) {
            const ExitCode stopped = StopAndWait(service, options);
            if (!HasEnded(stopped)) return stopped;
        }
        if (!advapi32_->DeleteService(service))
            return Failed(options, L"removing the service", ::GetLastError());
        std::wprintf(L"Service \"%ls\" removed\n", options.name.c_str());
        return ExitCode::kSuccess;
    });
}

ExitCode ServiceControl::Start(const Options& options) {
    return WithService(options, SERVICE_START | SERVICE_QUERY_STATUS, [&](SC_HANDLE service) {
        SERVICE_STATUS_PROCESS status = {};
        if (Query(service, status) && status.dwCurrentState == SERVICE_STOP_PENDING) {
            const ExitCode stopped = StopAndWait(service, options);
            if (stopped != ExitCode::kSuccess && stopped != ExitCode::kEndedByForce) return stopped;
        }
        return StartAndWait(service, options);
    });
}

ExitCode ServiceControl::StartAndWait(SC_HANDLE service, const Options& options, bool mayRunAlready) {
    if (!advapi32_->StartServiceW(service, 0, nullptr)) {
        const DWORD error = ::GetLastError();
        if (!mayRunAlready || error != ERROR_SERVICE_ALREADY_RUNNING)
            return Failed(options, L"starting the service", error);
    }
    SERVICE_STATUS_PROCESS status = {};
    return WaitFor(service, SERVICE_RUNNING, options, status);
}

ExitCode ServiceControl::Stop(const Options& options) {
    return WithService(options, SERVICE_STOP | SERVICE_QUERY_STATUS,
                       [&](SC_HANDLE service) { return StopAndWait(service, options); });
}

ExitCode ServiceControl::Restart(const Options& options) {
    const DWORD access = SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS;
    return WithService(options, access, [&](SC_HANDLE service) {
        SERVICE_STATUS_PROCESS status = {};
        if (!Query(service, status))
            return Failed(options, L"asking for the service's state", ::GetLastError());
        if (status.dwCurrentState != SERVICE_STOPPED) {
            const ExitCode stopped = StopAndWait(service, options);
            if (!HasEnded(stopped)) return stopped;
        }
        // After an end by force the service manager starts it as well, and may be faster.
        constexpr bool kMayRunAlready = true;
        return StartAndWait(service, options, kMayRunAlready);
    });
}

ExitCode ServiceControl::StopAndWait(SC_HANDLE service, const Options& options) {
    SERVICE_STATUS_PROCESS status = {};
    if (!Query(service, status)) return Failed(options, L"asking for the service's state", ::GetLastError());
    if (status.dwCurrentState == SERVICE_START_PENDING) {
        SERVICE_STATUS_PROCESS started = {};
        const ExitCode running = WaitFor(service, SERVICE_RUNNING, options, started);  // no stop before
        if (running != ExitCode::kSuccess) return running;
    }
    const UniqueKernelHandle process(::OpenProcess(SYNCHRONIZE, FALSE, status.dwProcessId));
    SERVICE_STATUS ignored = {};
    if (status.dwCurrentState != SERVICE_STOP_PENDING &&
        !advapi32_->ControlService(service, SERVICE_CONTROL_STOP, &ignored))
        return Failed(options, L"stopping the service", ::GetLastError());
    const ExitCode stopped = WaitFor(service, SERVICE_STOPPED, options, status);
    // The process holds the plug-in's instance lock a little longer: a start right now would be refused.
    if (stopped == ExitCode::kSuccess && process)
        ::WaitForSingleObject(process.get(), static_cast<DWORD>(timeOut_.count()));
    return stopped == ExitCode::kSuccess && WasEndedByForce(status) ? ExitCode::kEndedByForce : stopped;
}

ExitCode ServiceControl::WaitFor(SC_HANDLE service, DWORD wanted, const Options& options,
                                 SERVICE_STATUS_PROCESS& status) {
    // The service manager has no event for a state; what it advises is to ask again. A service that gets on
    // is waited for: how long a stop may take is its own affair, and it ends one that takes longer.
    constexpr DWORD kPollInterval = 20;
    auto deadline = std::chrono::steady_clock::now() + timeOut_;
    DWORD lastState = 0;
    DWORD lastCheckPoint = 0;
    for (;;) {
        status = {};
        if (!Query(service, status))
            return Failed(options, L"asking for the service's state", ::GetLastError());
        if (status.dwCurrentState != lastState || status.dwCheckPoint != lastCheckPoint) {
            PrintState(status);
            deadline = std::chrono::steady_clock::now() + timeOut_;
        }
        lastState = status.dwCurrentState;
        lastCheckPoint = status.dwCheckPoint;
        if (lastState == wanted) return ExitCode::kSuccess;
        if (lastState == SERVICE_STOPPED) {
            std::fwprintf(
                stderr,
                L"tessahost: the service ended with error %lu (its own code: %lu); the reason is in "
                L"its log file and in the Application log.\n",
                status.dwWin32ExitCode, status.dwServiceSpecificExitCode);
            return ExitCode::kFailed;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            std::fwprintf(stderr, L"tessahost: the service is still in state %ls; look into its log file.\n",
                          StateName(lastState));
            return ExitCode::kTimedOut;
        }
        ::Sleep(kPollInterval);
    }
}

bool ServiceControl::Query(SC_HANDLE service, SERVICE_STATUS_PROCESS& status) {
    DWORD needed = 0;
    return advapi32_->QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                                           sizeof status, &needed) != FALSE;
}

ExitCode ServiceControl::Status(const Options& options) {
    return WithService(options, SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG, [&](SC_HANDLE service) {
        SERVICE_STATUS_PROCESS status = {};
        if (!Query(service, status))
            return Failed(options, L"asking for the service's state", ::GetLastError());
        const ServiceSettings settings = ReadSettings(*advapi32_, service);
        if (options.json)
            std::puts(StatusAsJson(options.name, status, settings).c_str());
        else
            std::fputws(StatusAsText(options.name, status, settings).c_str(), stdout);
        return ExitCode::kSuccess;
    });
}

ExitCode ServiceControl::Run(const Options& options) {
    Options complete = options;
    if (complete.log.empty()) complete.log = DefaultLogPath();
    if (complete.plugIn.empty()) complete.plugIn = FolderOfThisProgram() + L"tessaplug.dll";
    return RunService(complete);
}

}  // namespace host
