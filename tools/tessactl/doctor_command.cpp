#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "commands.h"
#include "evlog_check.h"
#include "json.h"
#include "logdevice_db.h"
#include "station_state.h"
#include "text.h"
#include "unique_handle.h"
#include "win_api.h"
#include "win_convenience.h"

namespace tessactl {
namespace {

/// One thing that has to be true.
struct Finding {
    std::string what;
    bool ok = false;
    std::string found;   ///< in words
    std::string advice;  ///< what to do; empty if it is well
};

using Findings = std::vector<Finding>;

void Add(Findings& findings, const std::string& what, bool ok, const std::string& found,
         const std::string& advice) {
    findings.push_back({what, ok, found, ok ? "" : advice});
}

void CheckService(Findings& findings, const std::wstring& name) {
    using UniqueService = UniqueHandle<SC_HANDLE, [](SC_HANDLE handle) { ::CloseServiceHandle(handle); }>;
    windows_api::Advapi32 advapi32;
    const UniqueService manager(advapi32.OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    const UniqueService service(
        manager ? advapi32.OpenServiceW(manager.get(), name.c_str(), SERVICE_QUERY_STATUS) : nullptr);
    const std::string utf8 = Utf8(name);
    Add(findings, "service installed", static_cast<bool>(service),
        service ? utf8 : "\"" + utf8 + "\" cannot be opened, error " + std::to_string(::GetLastError()),
        "tessahost install; where the service has another name, tell it with --service");
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    const bool runs =
        service &&
        advapi32.QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                                      sizeof status, &needed) &&
        status.dwCurrentState == SERVICE_RUNNING;
    Add(findings, "service running", runs, runs ? "running" : "not running",
        "tessahost start; if it ends at once, the Application log has the reason (tessactl log)");
}

void CheckPlugIn(Findings& findings, const StationState& state) {
    Add(findings, "plug-in running", state.plugInRuns,
        state.plugInRuns ? "it holds the instance lock" : "nobody holds the instance lock",
        "start the service that hosts it");
}

void CheckLibrary(Findings& findings, const StationState& state) {
    const bool exists = ::GetFileAttributesW(state.libraryPath.c_str()) != INVALID_FILE_ATTRIBUTES;
    Add(findings, "configuration library found", exists,
        Utf8(state.libraryPath) + (state.libraryIsRegistered ? ", from the registry" : ", the default"),
        "install the configuration library, or let HKEY_LOCAL_MACHINE\\SOFTWARE\\Valdorn\\Shared "
        "Tools\\QUELM64, "
        "value Korvane_Oam, name its base folder");
    Add(findings, "configuration library loadable", state.libraryError.empty(),
        state.libraryError.empty() ? "loaded and answering" : state.libraryError,
        exists ? "repair the installation of the configuration library" : "install it first");
}

void CheckAccessPoints(Findings& findings, const StationState& state) {
    if (!state.libraryError.empty()) return;
    for (const auto& model : state.models) {
        std::string notInstalled;
        std::string missing;
        for (const auto& point : model.accessPoints) {
            if (!point.installed)
                notInstalled += " " + Utf8(point.name);
            else if (!point.exists)
                missing += " " + Utf8(point.name);
        }
        const std::string name = Utf8(model.name);
        Add(findings, name + ": installed in the template", notInstalled.empty(),
            notInstalled.empty() ? "all of them" : "not installed:" + notInstalled,
            "install the access points; what the template \"DefaultLogDevices\" does not list is left alone");
        Add(findings, name + ": access points exist", missing.empty(),
            missing.empty() ? "all that are installed" : "missing:" + missing,
            "plug the adapter in, which makes them, or run the interface-setup panel");
    }
}

void CheckAdapters(Findings& findings, const StationState& state) {
    for (const auto& model : state.models) {
        const std::string name = Utf8(model.name);
        const bool present = !model.devicePaths.empty();
        const std::string absent = model.devicesError.empty() ? "none" : model.devicesError;
        Add(findings, name + ": adapter present and active", present,
            present ? std::to_string(model.devicePaths.size()) + " plugged in" : absent,
            "plug it in; if it is, look at its driver in the device manager");
        if (!present || !state.libraryError.empty()) continue;
        const bool shown =
            std::ranges::all_of(model.accessPoints, [](const StationState::AccessPoint& point) {
                return !point.installed || !point.exists || !point.hidden;
            });
        Add(findings, name + ": access points visible", shown, shown ? "yes" : "some are hidden",
            "start the service that hosts the plug-in, or tessactl show NAME");
    }
}

void CheckDriverMessages(Findings& findings) {
    const std::wstring file = windows_api::GetSystem32Directory() + L"\\drivers\\fenlu3.sys";
    std::string error;
    try {
        operating_system::MessageRessource(file).Open();
    } catch (const std::exception& failure) {
        error = Utf8FromAnsi(failure.what());
    }
    Add(findings, "driver message file", error.empty(), error.empty() ? Utf8(file) : error,
        "install the Fennlink U3's driver; without it errors of the driver cannot be shown");
}

bool RegistryText(const std::wstring& key, const wchar_t* value, std::string& text) {
    wchar_t buffer[1024] = {};
    DWORD size = sizeof buffer - sizeof(wchar_t);
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, RRF_RT_REG_SZ, nullptr, buffer, &size) !=
        ERROR_SUCCESS)
        return false;
    text = Utf8(buffer);
    return true;
}

void CheckRegistrations(Findings& findings) {
    std::string text = "not registered";
    bool ok = RegistryText(L"SOFTWARE\\Classes\\CLSID\\{A1BFDF31-F4D2-11D3-9140-00105AAFF783}\\LocalServer32",
                           nullptr, text);
    Add(findings, "station manager registered", ok, text,
        "install or register the station manager; without it the card's components are not stopped at "
        "removal");
    text = "not registered";
    ok = RegistryText(L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Application\\tessaplug",
                      L"EventMessageFile", text);
    Add(findings, "event source registered", ok, text, "start the service once: the plug-in registers it");
}

void Print(const Findings& findings) {
    for (const Finding& finding : findings) {
        std::printf("%s  %-42s  %s\n", finding.ok ? "ok     " : "PROBLEM", finding.what.c_str(),
                    finding.found.c_str());
        if (!finding.ok) std::printf("         -> %s\n", finding.advice.c_str());
    }
}

std::string JsonOf(const Findings& findings) {
    std::vector<std::string> elements;
    for (const Finding& finding : findings)
        elements.push_back(JsonObject()
                               .Add("what", finding.what)
                               .Add("ok", finding.ok)
                               .Add("found", finding.found)
                               .Add("advice", finding.advice)
                               .Text());
    return JsonArray(elements);
}

}  // namespace

ExitCode Doctor(const Arguments& arguments) {
    Arguments rest = arguments;
    const bool json = TakeJson(rest);
    std::wstring service = L"tessahost";
    if (rest.size() == 2 && rest[0] == L"--service")
        service = rest[1];
    else if (!rest.empty())
        return UsageError(L"not understood: " + rest[0]);
    const StationState state = ReadStation();
    Findings findings;
    CheckService(findings, service);
    CheckPlugIn(findings, state);
    CheckLibrary(findings, state);
    CheckAccessPoints(findings, state);
    CheckAdapters(findings, state);
    CheckDriverMessages(findings);
    CheckRegistrations(findings);
    if (json)
        std::printf("%s\n", JsonOf(findings).c_str());
    else
        Print(findings);
    const bool isWell = std::ranges::all_of(findings, &Finding::ok);
    return isWell ? ExitCode::kSuccess : ExitCode::kProblems;
}

}  // namespace tessactl
