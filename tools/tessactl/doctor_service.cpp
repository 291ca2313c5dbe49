#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "doctor_checks.h"
#include "text.h"

namespace tessactl {
namespace {

constexpr char kNotSet[] = "not set";

/// One setting of a service. Systems know different ones.
/// @return empty with the reason in `error` if the system does not tell it
std::vector<BYTE> Setting(const QueriedService& service, DWORD level, DWORD& error) {
    std::vector<BYTE> buffer(8192);  // what the service manager needs at most
    DWORD needed = 0;
    if (::QueryServiceConfig2W(service.get(), level, buffer.data(), static_cast<DWORD>(buffer.size()),
                               &needed))
        return buffer;
    error = ::GetLastError();
    return {};
}

std::string NotTold(DWORD error) {
    return error == ERROR_INVALID_LEVEL || error == ERROR_CALL_NOT_IMPLEMENTED
               ? "not supported here"
               : "not known: " + ErrorInWords(error);
}

/// Adds a finding from a setting's structure, or a note that there is none.
template <typename Information>
void CheckSetting(Findings& findings, const QueriedService& service, DWORD level, const char* what,
                  const std::function<void(const Information&)>& tell) {
    DWORD error = ERROR_SUCCESS;
    const auto buffer = Setting(service, level, error);
    if (buffer.empty())
        findings.Note(what, NotTold(error));
    else
        tell(*reinterpret_cast<const Information*>(buffer.data()));
}

std::string Seconds(DWORD milliseconds) {
    return std::to_string(milliseconds / 1000) + " s";
}

std::string ActionText(const SC_ACTION& action) {
    switch (action.Type) {
        case SC_ACTION_RESTART:
            return "restart after " + Seconds(action.Delay);
        case SC_ACTION_REBOOT:
            return "reboot after " + Seconds(action.Delay);
        case SC_ACTION_RUN_COMMAND:
            return "a command after " + Seconds(action.Delay);
        default:
            return "nothing";
    }
}

std::string ActionsText(const SERVICE_FAILURE_ACTIONSW& actions) {
    std::string text;
    for (DWORD i = 0; i < actions.cActions && actions.lpsaActions != nullptr; ++i)
        text += (text.empty() ? "" : ", then ") + ActionText(actions.lpsaActions[i]);
    if (text.empty()) return text;
    return text + (actions.dwResetPeriod == INFINITE
                       ? "; never starts counting anew"
                       : "; counts anew after " + std::to_string(actions.dwResetPeriod) + " s");
}

void CheckDescription(Findings& findings, const QueriedService& service) {
    CheckSetting<SERVICE_DESCRIPTIONW>(
        findings, service, SERVICE_CONFIG_DESCRIPTION, "service description",
        [&](const SERVICE_DESCRIPTIONW& description) {
            if (description.lpDescription != nullptr && *description.lpDescription != L'\0')
                findings.Ok("service description", Utf8(description.lpDescription));
            else
                findings.Note("service description", kNotSet);
        });
}

void CheckStart(Findings& findings, const QueriedService& service) {
    std::vector<BYTE> buffer(8192);
    DWORD needed = 0;
    if (!::QueryServiceConfigW(service.get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data()),
                               static_cast<DWORD>(buffer.size()), &needed)) {
        findings.Note("service start", NotTold(::GetLastError()));
        return;
    }
    const DWORD type = reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.data())->dwStartType;
    if (type == SERVICE_AUTO_START)
        findings.Ok("service start", StartTypeText(type));
    else
        findings.Note("service start", StartTypeText(type),
                      "tessahost install --auto starts it with the machine");
}

void CheckDelayedStart(Findings& findings, const QueriedService& service) {
    constexpr char kWhat[] = "service start delayed";
    CheckSetting<SERVICE_DELAYED_AUTO_START_INFO>(findings, service, SERVICE_CONFIG_DELAYED_AUTO_START_INFO,
                                                  kWhat, [&](const SERVICE_DELAYED_AUTO_START_INFO& delayed) {
                                                      findings.Ok(kWhat,
                                                                  delayed.fDelayedAutostart ? "yes" : "no");
                                                  });
}

void CheckRecovery(Findings& findings, const QueriedService& service) {
    constexpr char kWhat[] = "service recovery";
    CheckSetting<SERVICE_FAILURE_ACTIONSW>(
        findings, service, SERVICE_CONFIG_FAILURE_ACTIONS, kWhat,
        [&](const SERVICE_FAILURE_ACTIONSW& actions) {
            const std::string text = ActionsText(actions);
            if (!text.empty())
                findings.Ok(kWhat, text);
            else
                findings.Note(kWhat, kNotSet, "a service that fails stays ended; tessahost install sets it");
        });
    constexpr char kFlag[] = "service recovery after an error";
    CheckSetting<SERVICE_FAILURE_ACTIONS_FLAG>(findings, service, SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, kFlag,
                                               [&](const SERVICE_FAILURE_ACTIONS_FLAG& flag) {
                                                   if (flag.fFailureActionsOnNonCrashFailures)
                                                       findings.Ok(kFlag, "yes");
                                                   else
                                                       findings.Note(kFlag, "no",
                                                                     "only a crash counts as failure");
                                               });
}

void CheckPreshutdown(Findings& findings, const QueriedService& service) {
    constexpr char kWhat[] = "service time before shutdown";
    CheckSetting<SERVICE_PRESHUTDOWN_INFO>(
        findings, service, SERVICE_CONFIG_PRESHUTDOWN_INFO, kWhat,
        [&](const SERVICE_PRESHUTDOWN_INFO& information) {
            findings.Ok(kWhat, Seconds(information.dwPreshutdownTimeout) + " at most");
        });
}

void CheckState(Findings& findings, DWORD state) {
    constexpr char kWhat[] = "service running";
    switch (state) {
        case SERVICE_RUNNING:
            findings.Ok(kWhat, "running");
            return;
        case SERVICE_START_PENDING:
        case SERVICE_STOP_PENDING:
            findings.Problem(kWhat, state == SERVICE_START_PENDING ? "just starting" : "just stopping",
                             "try again; if it stays so, a partner of the plug-in hangs: see what follows");
            return;
        default:
            findings.Problem(
                kWhat, "not running",
                "tessahost start; if it ends at once, the Application log has the reason (tessactl log)");
    }
}

}  // namespace

void CheckService(Findings& findings, const QueriedService& service) {
    const std::string name = Utf8(service.Name());
    if (service.IsInstalled())
        findings.Ok("service installed", name);
    else
        findings.Problem("service installed",
                         "\"" + name + "\" cannot be opened: " + ErrorInWords(service.OpenError()),
                         "tessahost install; where the service has another name, tell it with --service");
    CheckState(findings, service.Status().dwCurrentState);
}

void CheckServiceSettings(Findings& findings, const QueriedService& service) {
    if (!service.IsInstalled()) return;
    CheckDescription(findings, service);
    CheckStart(findings, service);
    CheckDelayedStart(findings, service);
    CheckRecovery(findings, service);
    CheckPreshutdown(findings, service);
}

}  // namespace tessactl
