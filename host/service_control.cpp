#include "service_control.h"

#include <windows.h>
#include <shellapi.h>

#include <cstdio>
#include <cwchar>
#include <iterator>
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

/// What a system call's failure means to the user.
struct Failure {
    ExitCode exitCode;
    std::wstring text;
};

Failure Explained(const Options& options, const std::wstring& what, DWORD error) {
    const std::wstring service = L"the service \"" + options.name + L"\"";
    switch (error) {
        case ERROR_ACCESS_DENIED:
            return {ExitCode::kNoRights, what + L" is not allowed; run it as administrator."};
        case ERROR_SERVICE_DOES_NOT_EXIST:
            return {ExitCode::kNotInstalled, service + L" is not installed; see \"tessahost install\"."};
        case ERROR_SERVICE_EXISTS:
        case ERROR_DUPLICATE_SERVICE_NAME:
            return {ExitCode::kAlreadyInstalled,
                    L"a service \"" + options.name +
                        L"\" is installed already; remove it first with \"tessahost uninstall\"."};
        case ERROR_SERVICE_MARKED_FOR_DELETE:
            return {ExitCode::kFailed,
                    service + L" is being removed; close the programs that show services and try again."};
        case ERROR_SERVICE_ALREADY_RUNNING:
            return {ExitCode::kAlreadyRunning, service + L" is running already."};
        case ERROR_SERVICE_CANNOT_ACCEPT_CTRL:
            return {ExitCode::kFailed, service + L" is just starting or stopping; try again."};
        case ERROR_SERVICE_NOT_ACTIVE:
            return {ExitCode::kNotRunning, service + L" is not running."};
        default:
            return {ExitCode::kFailed,
                    what + L" failed: " + operating_system::DescribeSystemError(error) + L"."};
    }
}

/// The program that the service runs.
std::wstring ProgramPath(const Options& options) {
    return options.program.empty() ? windows_api::GetModuleFileNameW(nullptr) : options.program;
}

/// The plug-in's full path; a relative one is taken from the program's folder.
std::wstring PlugInPath(const Options& options) {
    const std::wstring path = options.plugIn.empty() ? L"tessaplug.dll" : options.plugIn;
    const bool isFull = path.starts_with(L"\\\\") || (path.length() > 2 && path[1] == L':');
    const std::wstring program = ProgramPath(options);
    return isFull ? path : program.substr(0, program.rfind(L'\\') + 1) + path;
}

bool IsFile(const std::wstring& path) {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

/// Display names are unique on a machine as well.
std::wstring DisplayName(const Options& options) {
    if (!options.displayName.empty()) return options.displayName;
    return options.name == Options().name ? L"Tessaplug host" : L"Tessaplug host (" + options.name + L")";
}

bool WasEndedByForce(const SERVICE_STATUS_PROCESS& status) {
    return status.dwWin32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR &&
           status.dwServiceSpecificExitCode == kStopTimedOut;
}

DWORD StartType(const Options& options) {
    return options.automaticStart ? SERVICE_AUTO_START : SERVICE_DEMAND_START;
}

/// Whether a service runs no more, as the end of a stop tells.
bool HasEnded(ExitCode stopped) {
    return stopped == ExitCode::kSuccess || stopped == ExitCode::kNotRunning ||
           stopped == ExitCode::kEndedByForce;
}

}  // namespace

std::wstring CommandLineOf(const Options& options) {
    const auto quoted = [](const std::wstring& text) { return L"\"" + text + L"\""; };
    return quoted(ProgramPath(options)) + L" run --name " + quoted(options.name) + L" --plugin " +
           quoted(options.plugIn) + L" --stop-timeout " + std::to_wstring(options.stopTimeOut) +
           L" --log-size " + std::to_wstring(options.logSize) + L" --log-keep " +
           std::to_wstring(options.logKeep) + L" --log " + quoted(options.log);
}

std::optional<Options> OptionsOf(const std::wstring& commandLine) {
    struct Reader : CommandHandlersIf {
        ExitCode Install(const Options& /*options*/) override { return ExitCode::kUsage; }
        ExitCode Uninstall(const Options& /*options*/) override { return ExitCode::kUsage; }
        ExitCode Start(const Options& /*options*/) override { return ExitCode::kUsage; }
        ExitCode Stop(const Options& /*options*/) override { return ExitCode::kUsage; }
        ExitCode Restart(const Options& /*options*/) override { return ExitCode::kUsage; }
        ExitCode Status(const Options& /*options*/) override { return ExitCode::kUsage; }
        ExitCode Run(const Options& given) override {
            options = given;
            return ExitCode::kSuccess;
        }
        Options options;
    } reader;
    int count = 0;
    const std::unique_ptr<wchar_t*, decltype(&::LocalFree)> arguments(
        ::CommandLineToArgvW(commandLine.c_str(), &count), &::LocalFree);
    if (!arguments || count < 2 || std::wcscmp(arguments.get()[1], L"run") != 0) return std::nullopt;
    if (RunCommandLine({arguments.get() + 1, arguments.get() + count}, reader) != ExitCode::kSuccess)
        return std::nullopt;
    reader.options.program = arguments.get()[0];
    return reader.options;
}

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

ExitCode ServiceControl::Failed(const Options& options, const wchar_t* what, DWORD error) {
    const Failure failure = Explained(options, what, error);
    messages_->Complain(failure.text);
    return failure.exitCode;
}

std::wstring ServiceControl::LogPath(const Options& options) {
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
    messages_->Complain(L"the log file " + given + L" cannot be written: " + reason +
                        L". Another is named with --log.");
    return {};
}

template <typename Use>
ExitCode ServiceControl::WithPaths(const Options& options, Use use) {
    Options whole = options;
    whole.plugIn = PlugInPath(options);
    if (!IsFile(whole.plugIn)) {
        messages_->Complain(L"there is no plug-in " + whole.plugIn + L"; name it with --plugin.");
        return ExitCode::kFailed;
    }
    whole.log = LogPath(options);
    return whole.log.empty() ? ExitCode::kFailed : use(whole);
}

void ServiceControl::SetUp(SC_HANDLE manager, SC_HANDLE service, const Options& options) {
    for (const std::wstring& refusal : ApplySettings(*advapi32_, manager, service, options))
        messages_->Complain(refusal);
}

ExitCode ServiceControl::Install(const Options& options) {
    return WithPaths(options, [&](const Options& whole) {
        return WithManager(SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE, [&](SC_HANDLE manager) {
            const ServiceHandle service(
                *advapi32_,
                advapi32_->CreateServiceW_Reduced(manager, options.name.c_str(), DisplayName(options).c_str(),
                                                  CommandLineOf(whole).c_str(), StartType(options)));
            if (!service) return Failed(options, L"installing the service", ::GetLastError());
            SetUp(manager, service.get(), options);
            messages_->Tell(L"Service \"" + options.name + L"\" installed with " + whole.plugIn);
            return ExitCode::kSuccess;
        });
    });
}

ExitCode ServiceControl::Update(const Options& options) {
    return WithPaths(options, [&](const Options& whole) {
        return WithManager(SC_MANAGER_CONNECT, [&](SC_HANDLE manager) {
            // Who sets a restart on failure has to be allowed to start the service.
            const ServiceHandle service(
                *advapi32_,
                advapi32_->OpenServiceW(manager, options.name.c_str(),
                                        SERVICE_CHANGE_CONFIG | SERVICE_QUERY_CONFIG | SERVICE_START));
            if (!service) return Failed(options, L"opening the service", ::GetLastError());
            if (!advapi32_->ChangeServiceConfigW(service.get(), SERVICE_NO_CHANGE, StartType(options),
                                                 SERVICE_NO_CHANGE, CommandLineOf(whole).c_str(), nullptr,
                                                 nullptr, nullptr, nullptr, nullptr, nullptr))
                return Failed(options, L"changing the service", ::GetLastError());
            SetUp(manager, service.get(), options);
            messages_->Tell(L"Service \"" + options.name + L"\" set up with " + whole.plugIn);
            return ExitCode::kSuccess;
        });
    });
}

std::optional<InstalledService> ServiceControl::Find(const std::wstring& name) {
    std::optional<InstalledService> found;
    Options options;
    options.name = name;
    WithManager(SC_MANAGER_CONNECT, [&](SC_HANDLE manager) {
        const ServiceHandle service(
            *advapi32_,
            advapi32_->OpenServiceW(manager, name.c_str(), SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG));
        if (!service) {
            const DWORD error = ::GetLastError();
            return error == ERROR_SERVICE_DOES_NOT_EXIST ? ExitCode::kSuccess
                                                         : Failed(options, L"opening the service", error);
        }
        const ServiceSettings settings = ReadSettings(*advapi32_, service.get());
        found.emplace();
        found->commandLine = settings.commandLine.value_or(L"");
        found->options = OptionsOf(found->commandLine);
        if (found->options) {
            found->options->automaticStart = settings.startType == SERVICE_AUTO_START;
            found->options->delayedStart = settings.delayedStart.value_or(false);
        }
        SERVICE_STATUS_PROCESS status = {};
        found->isRunning = Query(service.get(), status) && status.dwCurrentState != SERVICE_STOPPED;
        return ExitCode::kSuccess;
    });
    return found;
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
        messages_->Tell(L"Service \"" + options.name + L"\" removed");
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
    if (stopped != ExitCode::kSuccess || !WasEndedByForce(status)) return stopped;
    messages_->Complain(
        L"the plug-in did not stop in time, so that the service's process was ended; its log has more. To "
        L"the service manager this is a failure: it may start the service again.");
    return ExitCode::kEndedByForce;
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
            wchar_t line[60] = {};
            std::swprintf(line, std::size(line), L"%-13ls  check point %lu", StateName(status.dwCurrentState),
                          status.dwCheckPoint);
            messages_->Tell(line);
            deadline = std::chrono::steady_clock::now() + timeOut_;
        }
        lastState = status.dwCurrentState;
        lastCheckPoint = status.dwCheckPoint;
        if (lastState == wanted) return ExitCode::kSuccess;
        if (lastState == SERVICE_STOPPED) {
            messages_->Complain(L"the service ended with error " + std::to_wstring(status.dwWin32ExitCode) +
                                L" (its own code: " + std::to_wstring(status.dwServiceSpecificExitCode) +
                                L"); the reason is in its log file and in the Application log.");
            return ExitCode::kFailed;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            messages_->Complain(std::wstring(L"the service is still in state ") + StateName(lastState) +
                                L"; look into its log file.");
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
    if (complete.plugIn.empty()) complete.plugIn = PlugInPath({});
    return RunService(complete);
}

}  // namespace host
