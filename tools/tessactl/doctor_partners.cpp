#include <windows.h>

#include <algorithm>
#include <exception>
#include <string>

#include "doctor_checks.h"
#include "evlog_check.h"
#include "text.h"
#include "win_convenience.h"

namespace tessactl {
namespace {

bool RegistryText(const std::wstring& key, const wchar_t* value, std::string& text) {
    wchar_t buffer[1024] = {};
    DWORD size = sizeof buffer - sizeof(wchar_t);
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, RRF_RT_REG_SZ, nullptr, buffer, &size) !=
        ERROR_SUCCESS)
        return false;
    text = Utf8(buffer);
    return true;
}

/// Whether an adapter is there, or should be, whose components the station manager has.
bool StationManagerMatters(const Models& models, const Expectations& expectations) {
    return std::ranges::any_of(models, [&](const StationState::Model& model) {
        return !model.catalogName.empty() && (!model.devicePaths.empty() || expectations.IsExpected(model));
    });
}

}  // namespace

void CheckPanel(Findings& findings, const Models& models, bool accessPointsAreKnown) {
    constexpr char kWhat[] = "interface-setup panel";
    const std::wstring file = windows_api::GetSysWoW64Directory() + L"\\q5panels.exe";
    const DWORD attributes = ::GetFileAttributesW(file.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        findings.Ok(kWhat, Utf8(file));
        return;
    }
    // It is run for access points that are missing, and only then.
    const bool isNeeded =
        accessPointsAreKnown && std::ranges::any_of(models, [](const StationState::Model& model) {
            return std::ranges::any_of(model.accessPoints, [](const StationState::AccessPoint& point) {
                return point.installed && !point.exists;
            });
        });
    findings.ProblemOrNote(isNeeded, kWhat, "there is no " + Utf8(file),
                           "install it; without it access points that are missing are not made");
}

std::optional<std::string> StationManagerServer() {
    std::string server;
    if (!RegistryText(L"SOFTWARE\\Classes\\CLSID\\{A1BFDF31-F4D2-11D3-9140-00105AAFF783}\\LocalServer32",
                      nullptr, server))
        return std::nullopt;
    return server;
}

void CheckStationManager(Findings& findings, const Models& models, const Expectations& expectations,
                         const std::optional<std::string>& server, Inquiry& inquiry) {
    const bool matters = StationManagerMatters(models, expectations);
    if (!server) {
        findings.ProblemOrNote(matters, "station manager registered", "not registered",
                               "install or register the station manager; without it the card's components "
                               "are not stopped at removal");
        return;
    }
    findings.Ok("station manager registered", *server);
    const std::string error = inquiry.Answer();
    if (error.empty())
        findings.Ok("station manager answers", "yes");
    else
        findings.ProblemOrNote(matters, "station manager answers", error,
                               "end and restart the station manager; while it does not answer, a removal of "
                               "the card is not finished and the service cannot be stopped in time");
}

void CheckDriverMessages(Findings& findings) {
    constexpr char kWhat[] = "driver message file";
    const std::wstring file = windows_api::GetSystem32Directory() + L"\\drivers\\fenlu3.sys";
    try {
        operating_system::MessageRessource(file).Open();
        findings.Ok(kWhat, Utf8(file));
    } catch (const std::exception& failure) {
        findings.Problem(kWhat, InWords(failure),
                         "install the Fennlink U3's driver; without it errors of the driver cannot be shown");
    }
}

void CheckEventSource(Findings& findings) {
    std::string file;
    if (RegistryText(L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Application\\tessaplug",
                     L"EventMessageFile", file))
        findings.Ok("event source registered", file);
    else
        findings.Problem("event source registered", "not registered",
                         "start the service once: the plug-in registers it");
}

}  // namespace tessactl
