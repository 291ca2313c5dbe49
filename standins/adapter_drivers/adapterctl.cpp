#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "adapter_control.h"

// adapterctl: installs, plugs and unplugs the stand-in adapters.
namespace {

using adapter_control::Model;

enum ExitCode { kSuccess = 0, kFailed = 1, kUsage = 2, kNoRights = 5 };

int Usage() {
    std::fputws(
        L"usage: adapterctl COMMAND\n"
        L"\n"
        L"  install [MODEL|all]        installs the adapter's driver and device, unplugged\n"
        L"  uninstall [MODEL|all]      removes them\n"
        L"  plug MODEL [PORT]          plugs an adapter into port 0 or 1\n"
        L"  unplug MODEL [PORT]        takes it out\n"
        L"  report MODEL SEVERITY TEXT has the driver write into the System event log; SEVERITY is\n"
        L"                             error, warning or information, MODEL FennlinkU3\n"
        L"  status [--json]            shows what is installed and plugged in\n"
        L"\n"
        L"MODEL is NX4120 or FennlinkU3.\n",
        stderr);
    return kUsage;
}

std::wstring InfPath() {
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring self = path;
    return self.substr(0, self.rfind(L'\\')) + L"\\adapters.inf";
}

std::vector<const Model*> Selected(const std::wstring& name) {
    std::vector<const Model*> selected;
    if (name == L"all") {
        for (const Model& model : adapter_control::Models())
            selected.push_back(&model);
    } else if (const Model* model = adapter_control::FindModel(name)) {
        selected.push_back(model);
    } else {
        std::fwprintf(stderr, L"adapterctl: unknown model \"%ls\"; known are NX4120 and FennlinkU3\n",
                      name.c_str());
    }
    return selected;
}

int InstallOrUninstall(bool install, const std::wstring& name) {
    const auto models = Selected(name);
    for (const Model* model : models) {
        const bool changed =
            install ? adapter_control::Install(*model, InfPath()) : adapter_control::Uninstall(*model);
        std::wprintf(L"%-12ls %ls%ls\n", model->displayedName, changed ? L"" : L"already ",
                     install ? L"installed" : L"removed");
    }
    return models.empty() ? kUsage : kSuccess;
}

int PlugOrUnplug(bool plug, const std::wstring& name, const std::wstring& portText) {
    const auto models = Selected(name);
    if (models.size() != 1 || (portText != L"0" && portText != L"1")) return Usage();
    const DWORD port = portText == L"1" ? 1 : 0;
    SYSTEMTIME now = {};
    ::GetLocalTime(&now);
    if (plug)
        adapter_control::Plug(*models[0], port);
    else
        adapter_control::Unplug(*models[0], port);
    std::wprintf(L"%02d:%02d:%02d.%03d  %ls %ls port %lu\n", now.wHour, now.wMinute, now.wSecond,
                 now.wMilliseconds, models[0]->displayedName, plug ? L"plugged into" : L"unplugged from",
                 port);
    return kSuccess;
}

int Report(const std::wstring& name, const std::wstring& severity, const std::wstring& text) {
    const auto models = Selected(name);
    const std::vector<std::wstring> severities = {L"information", L"warning", L"error"};
    const auto found = std::ranges::find(severities, severity);
    if (models.size() != 1 || found == severities.end()) return Usage();
    adapter_control::Report(*models[0], static_cast<DWORD>(found - severities.begin()) + 1, text);
    return kSuccess;
}

std::wstring JsonText(const std::wstring& text) {
    std::wstring json = L"\"";
    for (const wchar_t c : text) {
        if (c == L'\\' || c == L'"') json += L'\\';
        json += c;
    }
    return json + L"\"";
}

int StatusAsJson() {
    std::wstring json = L"[";
    for (const Model& model : adapter_control::Models()) {
        if (json.length() > 1) json += L",";
        json += L"{\"model\":" + JsonText(model.displayedName) + L",\"installed\":" +
                (adapter_control::IsInstalled(model) ? L"true" : L"false") + L",\"devices\":[";
        bool first = true;
        for (const std::wstring& path : adapter_control::DevicePaths(model)) {
            if (!first) json += L",";
            first = false;
            json += JsonText(path);
        }
        json += L"]}";
    }
    std::wprintf(L"%ls]\n", json.c_str());
    return kSuccess;
}

int Status() {
    std::wprintf(L"%-12ls  %-9ls  %ls\n", L"MODEL", L"INSTALLED", L"PLUGGED IN");
    for (const Model& model : adapter_control::Models()) {
        const auto paths = adapter_control::DevicePaths(model);
        std::wprintf(L"%-12ls  %-9ls  %ls\n", model.displayedName,
                     adapter_control::IsInstalled(model) ? L"yes" : L"no",
                     paths.empty() ? L"-" : paths[0].c_str());
        for (std::size_t i = 1; i < paths.size(); ++i)
            std::wprintf(L"%-12ls  %-9ls  %ls\n", L"", L"", paths[i].c_str());
    }
    return kSuccess;
}

int Run(const std::vector<std::wstring>& arguments) {
    const auto argument = [&arguments](std::size_t i, const wchar_t* otherwise) {
        return i < arguments.size() ? arguments[i] : std::wstring(otherwise);
    };
    const std::wstring command = argument(0, L"");
    if (command == L"install" || command == L"uninstall")
        return InstallOrUninstall(command == L"install", argument(1, L"all"));
    if ((command == L"plug" || command == L"unplug") && arguments.size() >= 2)
        return PlugOrUnplug(command == L"plug", arguments[1], argument(2, L"0"));
    if (command == L"report" && arguments.size() == 4)
        return Report(arguments[1], arguments[2], arguments[3]);
    if (command == L"status") return argument(1, L"") == L"--json" ? StatusAsJson() : Status();
    return Usage();
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    try {
        return Run({argv + 1, argv + argc});
    } catch (const adapter_control::AdapterError& error) {
        std::fprintf(stderr, "adapterctl: %s\n", error.what());
        if (error.Code() != ERROR_ACCESS_DENIED) return kFailed;
        std::fputs("Run it as administrator.\n", stderr);
        return kNoRights;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "adapterctl: %s\n", error.what());
        return kFailed;
    }
}
