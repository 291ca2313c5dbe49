#include "service_settings.h"

#include <iterator>

#include "system_error.h"

namespace host {
namespace {

wchar_t kDescription[] =
    L"Runs the adapter plug-in: shows and hides the access points of communication adapters as they are "
    L"plugged in and out, and shows their drivers' errors.";

// The plug-in reads and writes event logs from its start on. The list ends with a second zero.
constexpr wchar_t kEventLogService[] = L"EventLog";
constexpr wchar_t kDependencies[] = L"EventLog\0";

constexpr DWORD kSecond = 1000;
constexpr DWORD kDay = 24 * 60 * 60;

using windows_api::Advapi32;

/// Sets one thing after the other and keeps what is refused.
class Settler {
  public:
    Settler(Advapi32& advapi32, SC_HANDLE service) : advapi32_(advapi32), service_(service) {}

    void Set(DWORD level, void* information, const wchar_t* what) {
        if (!advapi32_.ChangeServiceConfig2W(service_, level, information)) Refused(what, ::GetLastError());
    }
    void Refused(const wchar_t* what, DWORD error) {
        refusals_.push_back(std::wstring(L"The system does without ") + what + L": " +
                            operating_system::DescribeSystemError(error) + L".");
    }
    std::vector<std::wstring> Refusals() const { return refusals_; }

  private:
    Advapi32& advapi32_;
    SC_HANDLE service_;
    std::vector<std::wstring> refusals_;
};

void SetRestart(Settler& settler) {
    SC_ACTION actions[] = {{SC_ACTION_RESTART, 5 * kSecond},
                           {SC_ACTION_RESTART, 30 * kSecond},
                           {SC_ACTION_RESTART, 60 * kSecond}};
    SERVICE_FAILURE_ACTIONSW failure = {};
    failure.dwResetPeriod = kDay;
    failure.cActions = std::size(actions);
    failure.lpsaActions = actions;
    settler.Set(SERVICE_CONFIG_FAILURE_ACTIONS, &failure, L"the restart on failure");
    SERVICE_FAILURE_ACTIONS_FLAG alsoOnError = {TRUE};
    settler.Set(SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, &alsoOnError, L"the restart after an end with an error");
}

/// A dependency on a service that is missing would keep this one from starting.
void SetDependency(Advapi32& advapi32, SC_HANDLE manager, SC_HANDLE service, Settler& settler) {
    const wchar_t* const what = L"the dependency on the event-log service";
    const SC_HANDLE eventLog = advapi32.OpenServiceW(manager, kEventLogService, SERVICE_QUERY_STATUS);
    if (eventLog == nullptr) return settler.Refused(what, ::GetLastError());
    advapi32.CloseServiceHandle(eventLog);
    if (!advapi32.ChangeServiceConfigW(service, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                                       nullptr, nullptr, nullptr, kDependencies, nullptr, nullptr, nullptr))
        settler.Refused(what, ::GetLastError());
}

/// What a query answers, in a buffer of the size that it asks for; empty if it fails.
template <typename Query>
std::vector<BYTE> Answer(Query query) {
    DWORD needed = 0;
    query(nullptr, DWORD{0}, &needed);
    std::vector<BYTE> buffer(needed);
    // Not every system says of a setting that it does not know that it fails.
    if (needed == 0 || !query(buffer.data(), needed, &needed)) return {};
    return buffer;
}

template <typename Information>
class Level {
  public:
    Level(Advapi32& advapi32, SC_HANDLE service, DWORD level)
        : buffer_(Answer([&](BYTE* buffer, DWORD size, DWORD* needed) {
              return advapi32.QueryServiceConfig2W(service, level, buffer, size, needed);
          })) {}
    explicit operator bool() const { return buffer_.size() >= sizeof(Information); }
    const Information* operator->() const { return reinterpret_cast<const Information*>(buffer_.data()); }

  private:
    std::vector<BYTE> buffer_;
};

std::wstring TextOf(const wchar_t* text) {
    return text == nullptr ? L"" : text;
}

void ReadBasics(Advapi32& advapi32, SC_HANDLE service, ServiceSettings& settings) {
    const std::vector<BYTE> buffer = Answer([&](BYTE* memory, DWORD size, DWORD* needed) {
        return advapi32.QueryServiceConfigW(service, reinterpret_cast<QUERY_SERVICE_CONFIGW*>(memory), size,
                                            needed);
    });
    if (buffer.size() < sizeof(QUERY_SERVICE_CONFIGW)) return;
    const auto& basics = *reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.data());
    settings.startType = basics.dwStartType;
    settings.commandLine = TextOf(basics.lpBinaryPathName);
    std::vector<std::wstring> dependencies;
    for (const wchar_t* name = basics.lpDependencies; name != nullptr && *name != L'\0';
         name += dependencies.back().length() + 1)
        dependencies.emplace_back(name);
    settings.dependencies = dependencies;
}

void ReadRestart(Advapi32& advapi32, SC_HANDLE service, ServiceSettings& settings) {
    if (const Level<SERVICE_FAILURE_ACTIONSW> failure{advapi32, service, SERVICE_CONFIG_FAILURE_ACTIONS}) {
        std::vector<DWORD> delays;
        for (DWORD i = 0; failure->lpsaActions != nullptr && i < failure->cActions; ++i)
            if (failure->lpsaActions[i].Type == SC_ACTION_RESTART)
                delays.push_back(failure->lpsaActions[i].Delay);
        settings.restartsAfter = delays;
        settings.resetPeriod = failure->dwResetPeriod;
    }
    if (const Level<SERVICE_FAILURE_ACTIONS_FLAG> flag{advapi32, service,
                                                       SERVICE_CONFIG_FAILURE_ACTIONS_FLAG})
        settings.restartsOnError = flag->fFailureActionsOnNonCrashFailures != FALSE;
}

}  // namespace

std::vector<std::wstring> ApplySettings(Advapi32& advapi32, SC_HANDLE manager, SC_HANDLE service,
                                        const Options& options) {
    Settler settler(advapi32, service);
    SERVICE_DESCRIPTIONW description = {kDescription};
    settler.Set(SERVICE_CONFIG_DESCRIPTION, &description, L"the description");
    SetRestart(settler);
    // The system's own limit has to be the later one, or it ends a stop that this one would still wait for.
    constexpr DWORD kMargin = 10;
    SERVICE_PRESHUTDOWN_INFO preshutdown = {(options.stopTimeOut + kMargin) * kSecond};
    settler.Set(SERVICE_CONFIG_PRESHUTDOWN_INFO, &preshutdown, L"the time for a stop at shutdown");
    SERVICE_DELAYED_AUTO_START_INFO delayed = {options.delayedStart};
    if (options.delayedStart || ReadSettings(advapi32, service).delayedStart.value_or(false))
        settler.Set(SERVICE_CONFIG_DELAYED_AUTO_START_INFO, &delayed, L"the delay of the automatic start");
    SetDependency(advapi32, manager, service, settler);
    return settler.Refusals();
}

ServiceSettings ReadSettings(Advapi32& advapi32, SC_HANDLE service) {
    ServiceSettings settings;
    ReadBasics(advapi32, service, settings);
    if (const Level<SERVICE_DESCRIPTIONW> level{advapi32, service, SERVICE_CONFIG_DESCRIPTION})
        settings.description = TextOf(level->lpDescription);
    if (const Level<SERVICE_DELAYED_AUTO_START_INFO> level{advapi32, service,
                                                           SERVICE_CONFIG_DELAYED_AUTO_START_INFO})
        settings.delayedStart = level->fDelayedAutostart != FALSE;
    if (const Level<SERVICE_PRESHUTDOWN_INFO> level{advapi32, service, SERVICE_CONFIG_PRESHUTDOWN_INFO})
        settings.preshutdownTimeOut = level->dwPreshutdownTimeout;
    ReadRestart(advapi32, service, settings);
    return settings;
}

}  // namespace host
