#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "component_store.h"
#include "server.h"

// stationmgr: the station manager. COM starts it with -Embedding; people show and edit its list with it.
namespace {

using station_manager::Component;
using station_manager::ComponentStore;
using station_manager::Diagnostic;
using station_manager::MakeComponent;

enum ExitCode { kSuccess = 0, kFailed = 1, kUsage = 2, kNoRights = 5 };

int Usage() {
    std::fputws(
        L"usage: stationmgr COMMAND\n"
        L"\n"
        L"  register | unregister            enters it as the machine's station manager, or takes it out\n"
        L"  init                             makes the list: the station and two components of an NX4120\n"
        L"  wipe                             deletes the list and the diagnostics\n"
        L"  list [--json]                    shows the components\n"
        L"  add VMD CATALOGUE NAME           adds a running component; VMD is its virtual device number, 1 "
        L"to 32\n"
        L"                                   (to 99 for tests)\n"
        L"  remove VMD                       removes it\n"
        L"  start VMD | stop VMD             starts or stops it\n"
        L"  diagnostics [--clear]            shows or clears the diagnostic entries\n"
        L"  fault KIND                       for tests; what the server does wrong from now on: none,\n"
        L"                                   exit-at-start, exit-in-getdata, exit-in-stop,\n"
        L"                                   hang-in-getdata, odd-length or refuse-VMD\n",
        stderr);
    return kUsage;
}

int Report(LSTATUS result, const std::wstring& what) {
    switch (result) {
        case ERROR_SUCCESS:
            return kSuccess;
        case ERROR_ACCESS_DENIED:
            std::fwprintf(stderr, L"stationmgr: %ls: access denied; run it as administrator\n", what.c_str());
            return kNoRights;
        case ERROR_NOT_FOUND:
            std::fwprintf(stderr, L"stationmgr: %ls: there is no such component; see stationmgr list\n",
                          what.c_str());
            return kFailed;
        case ERROR_ALREADY_EXISTS:
            std::fwprintf(stderr, L"stationmgr: %ls: this virtual device is taken; see stationmgr list\n",
                          what.c_str());
            return kFailed;
        default:
            std::fwprintf(stderr, L"stationmgr: %ls: failed with error %ld\n", what.c_str(), result);
            return kFailed;
    }
}

int ReportCom(HRESULT result, const std::wstring& what) {
    if (result == S_FALSE) std::fwprintf(stderr, L"stationmgr: it was not registered\n");
    if (SUCCEEDED(result)) return kSuccess;
    if (result == E_ACCESSDENIED || result == TYPE_E_REGISTRYACCESS) return Report(ERROR_ACCESS_DENIED, what);
    std::fwprintf(stderr, L"stationmgr: %ls: failed with 0x%08lx\n", what.c_str(), result);
    return kFailed;
}

std::wstring Bounded(const char* text, std::size_t size) {
    return {text, text + ::strnlen(text, size)};
}

std::wstring State(ULONG status) {
    switch (status) {
        case station_manager::kRunning:
            return L"running";
        case station_manager::kStopped:
            return L"stopped";
        case station_manager::kRunningDisturbed:
            return L"running, disturbed";
        default:
            return std::to_wstring(status);
    }
}

std::wstring Escaped(const std::wstring& text) {
    std::wstring escaped;
    for (const wchar_t c : text) {
        if (c == L'"' || c == L'\\') escaped += L'\\';
        escaped += c < L' ' ? L' ' : c;
    }
    return escaped;
}

int List(bool json) {
    std::wstring text;
    for (const Component& component : ComponentStore().Components()) {
        const std::wstring entry = Bounded(component.catalogEntry, sizeof component.catalogEntry);
        const std::wstring name = Bounded(component.name, sizeof component.name);
        if (json)
            text += (text.empty() ? L"" : L",") + std::wstring(L"{\"virtualDevice\":") +
                    std::to_wstring(component.virtualDevice) + L",\"catalogueEntry\":\"" + Escaped(entry) +
                    L"\",\"name\":\"" + Escaped(name) + L"\",\"state\":\"" + State(component.status) + L"\"}";
        else
            std::wprintf(L"%2ld  %-12ls  %-16ls  %ls\n", component.virtualDevice, entry.c_str(), name.c_str(),
                         State(component.status).c_str());
    }
    if (json) std::wprintf(L"[%ls]\n", text.c_str());
    return kSuccess;
}

int Diagnostics(bool clear) {
    const ComponentStore store;
    if (clear) return Report(store.ClearDiagnostics(), L"diagnostics");
    for (const Diagnostic& entry : store.Diagnostics())
        std::wprintf(L"%02d:%02d:%02d.%03d  area %u  code 0x%04X  value %u  detail 0x%08lX\n",
                     entry.time.wHour, entry.time.wMinute, entry.time.wSecond, entry.time.wMilliseconds,
                     entry.area, entry.code, entry.value, entry.detail);
    return kSuccess;
}

int Add(LONG virtualDevice, const std::wstring& catalogEntry, const std::wstring& name) {
    if (catalogEntry.length() > sizeof Component::catalogEntry || name.length() >= sizeof Component::name) {
        std::fwprintf(stderr, L"stationmgr: a catalogue entry has at most 64 characters, a name 63\n");
        return kUsage;
    }
    std::string narrowEntry;
    std::string narrowName;
    for (const wchar_t c : catalogEntry)
        narrowEntry += static_cast<char>(c);
    for (const wchar_t c : name)
        narrowName += static_cast<char>(c);
    return Report(ComponentStore().Add(MakeComponent(virtualDevice, narrowEntry, narrowName)), L"add");
}

int Init() {
    const ComponentStore store;
    if (!store.Components().empty()) return kSuccess;  // a list that somebody edited stays
    return Report(store.SetComponents({MakeComponent(1, "PC Station", "Station"),
                                       MakeComponent(2, "NX4120", "NX4120 line 1"),
                                       MakeComponent(3, "NX4120", "NX4120 line 2")}),
                  L"init");
}

/// @return false if it is no virtual device number; those above 32, which cannot be, are for tests
bool VirtualDevice(const std::wstring& text, LONG& number) {
    wchar_t* end = nullptr;
    number = std::wcstol(text.c_str(), &end, 10);
    return !text.empty() && *end == L'\0' && number >= 1 && number <= 99;
}

int Run(const std::vector<std::wstring>& arguments) {
    const std::size_t count = arguments.size();
    const std::wstring command = count > 0 ? arguments[0] : L"";
    if (command == L"-Embedding" || command == L"/Embedding")
        return SUCCEEDED(station_manager::Serve()) ? 0 : 1;
    if (command == L"register" && count == 1) return ReportCom(station_manager::Register(), command);
    if (command == L"unregister" && count == 1) return ReportCom(station_manager::Unregister(), command);
    if (command == L"init" && count == 1) return Init();
    if (command == L"wipe" && count == 1) return Report(ComponentStore().Wipe(), command);
    if (command == L"list") return List(count == 2 && arguments[1] == L"--json");
    if (command == L"diagnostics") return Diagnostics(count == 2 && arguments[1] == L"--clear");
    if (command == L"fault" && count == 2)
        return Report(ComponentStore().SetFault(arguments[1] == L"none" ? L"" : arguments[1]), command);
    LONG number = 0;
    if (count < 2 || !VirtualDevice(arguments[1], number)) return Usage();
    if (command == L"add" && count == 4) return Add(number, arguments[2], arguments[3]);
    if (command == L"remove" && count == 2) return Report(ComponentStore().Remove(number), arguments[1]);
    if (command == L"start" && count == 2)
        return Report(ComponentStore().SetStatus(number, station_manager::kRunning), arguments[1]);
    if (command == L"stop" && count == 2)
        return Report(ComponentStore().SetStatus(number, station_manager::kStopped), arguments[1]);
    return Usage();
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    return Run({argv + 1, argv + argc});
}
