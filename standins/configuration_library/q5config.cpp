#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <memory>
#include <string>
#include <vector>

#include "log_device_store.h"

// q5config: shows and edits the log devices of the machine.
namespace {

using configuration_library::Code;
using configuration_library::LogDeviceStore;
using configuration_library::Parameters;

enum ExitCode { kSuccess = 0, kFailed = 1, kUsage = 2, kNoRights = 5 };

constexpr wchar_t kBaseFolderKey[] = L"SOFTWARE\\Valdorn\\Shared Tools\\QUELM64";
const std::vector<std::wstring> kModels = {L"Fennlink U3", L"NX4120"};
const std::vector<std::wstring> kKinds = {L"auto", L"xli", L"profibus", L"fwl", L"fwl_fast_load"};

int Usage() {
    std::fputws(
        L"usage: q5config COMMAND\n"
        L"\n"
        L"  init [--empty]                   makes the store with the log devices of both models, hidden;\n"
        L"                                   with --empty without log devices and template\n"
        L"  wipe                             deletes the store\n"
        L"  list [--json]                    shows the log devices\n"
        L"  watch [SECONDS [COUNT]]          prints every change as it happens, until the time is over or so "
        L"many\n"
        L"                                   were seen\n"
        L"  create NAME [PARAMETER=VALUE...] makes a log device\n"
        L"  delete NAME                      deletes it\n"
        L"  get NAME PARAMETER               prints a parameter\n"
        L"  set NAME PARAMETER VALUE         writes one\n"
        L"  template [add|remove ENTRY]      shows or edits the template of default log devices\n"
        L"  register FOLDER                  makes FOLDER\\bin\\q5orvix64x.dll the machine's configuration "
        L"library\n"
        L"\n"
        L"NAME is as in NX4120(XLI) or NX4120.XLI.1.\n",
        stderr);
    return kUsage;
}

/// The stored spelling of a name: NX4120(XLI) is kept as NX4120.XLI.1.
std::wstring Stored(std::wstring name) {
    const std::size_t opening = name.find(L'(');
    if (opening == std::wstring::npos || name.back() != L')') return name;
    name[opening] = L'.';
    name.back() = L'.';
    return name + L"1";
}

/// The spelling that people know.
std::wstring Shown(const std::wstring& stored) {
    const std::size_t dot = stored.find(L'.');
    if (!stored.ends_with(L".1") || dot + 2 >= stored.length()) return stored;
    return stored.substr(0, dot) + L"(" + stored.substr(dot + 1, stored.length() - dot - 3) + L")";
}

int Report(Code code, const std::wstring& what) {
    switch (code) {
        case configuration_library::kOk:
            return kSuccess;
        case configuration_library::kAccessDenied:
            std::fwprintf(stderr, L"q5config: %ls: access denied; run it as administrator\n", what.c_str());
            return kNoRights;
        case configuration_library::kLogDeviceNotExists:
            std::fwprintf(stderr, L"q5config: %ls: there is no such log device; see q5config list\n",
                          what.c_str());
            return kFailed;
        case configuration_library::kDefinitionNotExists:
            std::fwprintf(stderr, L"q5config: there is no store; make it with q5config init\n");
            return kFailed;
        case configuration_library::kInvalidParameters:
            std::fwprintf(stderr,
                          L"q5config: %ls: refused; it exists already, or the name or value cannot be\n",
                          what.c_str());
            return kFailed;
        default:
            std::fwprintf(stderr, L"q5config: %ls: refused with code %lu\n", what.c_str(),
                          static_cast<unsigned long>(code));
            return kFailed;
    }
}

int Init(bool empty) {
    const LogDeviceStore store;
    if (const Code code = store.Initialise(); code != configuration_library::kOk)
        return Report(code, L"init");
    if (empty) return kSuccess;
    std::vector<std::wstring> entries;
    for (const std::wstring& model : kModels) {
        for (const std::wstring& kind : kKinds) {
            entries.push_back(L"LDT-" + model + L"." + kind);
            const std::wstring name = model + L"." + kind + L".1";
            if (store.Exists(name) == configuration_library::kOk) continue;
            if (const Code code = store.Create(name, {{L"hidden", L"true"}});
                code != configuration_library::kOk)
                return Report(code, name);
        }
    }
    const Code code = store.EditTemplateEntries([&entries](std::vector<std::wstring>& all) {
        if (all.empty()) all = entries;  // a template that somebody edited stays
    });
    return Report(code, L"init");
}

std::wstring State(const LogDeviceStore& store, const std::wstring& name) {
    std::wstring hidden;
    if (store.GetValue(name, L"hidden", hidden) != configuration_library::kOk) return L"visible";
    return hidden == L"true" ? L"hidden" : L"visible";
}

/// The name as it stands in a JSON string; it holds no backslash, the store refuses that.
std::wstring JsonEscaped(const std::wstring& name) {
    std::wstring escaped;
    for (const wchar_t c : name) {
        if (c == L'"') escaped += L'\\';
        escaped += c < L' ' ? L' ' : c;
    }
    return escaped;
}

int List(bool json) {
    const LogDeviceStore store;
    const auto names = store.LogDevices();
    std::size_t width = 12;
    for (const std::wstring& name : names)
        width = std::max(width, Shown(name).length());
    std::wstring text = json ? L"[" : L"";
    for (const std::wstring& name : names) {
        if (json)
            text += (text.length() > 1 ? L"," : L"") + std::wstring(L"{\"name\":\"") +
                    JsonEscaped(Shown(name)) + L"\",\"state\":\"" + State(store, name) + L"\"}";
        else
            std::wprintf(L"%-*ls  %ls\n", static_cast<int>(width), Shown(name).c_str(),
                         State(store, name).c_str());
    }
    if (json) std::wprintf(L"%ls]\n", text.c_str());
    return kSuccess;
}

using States = std::vector<std::pair<std::wstring, std::wstring>>;

States AllStates(const LogDeviceStore& store) {
    States states;
    for (const std::wstring& name : store.LogDevices())
        states.emplace_back(name, State(store, name));
    return states;
}

void PrintChange(const std::wstring& name, const std::wstring& state) {
    SYSTEMTIME now = {};
    ::GetLocalTime(&now);
    std::wprintf(L"%02d:%02d:%02d.%03d  %ls %ls\n", now.wHour, now.wMinute, now.wSecond, now.wMilliseconds,
                 Shown(name).c_str(), state.c_str());
    std::fflush(stdout);
}

/// @return how many there are
unsigned long PrintChanges(const States& before, const States& after) {
    unsigned long count = 0;
    for (const auto& entry : after) {
        if (std::ranges::find(before, entry) != before.end()) continue;
        PrintChange(entry.first, entry.second);
        ++count;
    }
    for (const auto& entry : before) {
        if (std::ranges::find(after, entry.first, &States::value_type::first) != after.end()) continue;
        PrintChange(entry.first, L"deleted");
        ++count;
    }
    return count;
}

/// @param seconds, count 0 for no limit
int Watch(DWORD seconds, unsigned long count) {
    unsigned long seen = 0;
    const LogDeviceStore store;
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, store.LogDevicesKey().c_str(), 0, KEY_READ, &key) !=
        ERROR_SUCCESS)
        return Report(configuration_library::kDefinitionNotExists, L"watch");
    const HANDLE changed = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const ULONGLONG end = ::GetTickCount64() + 1000ULL * seconds;
    States before = AllStates(store);
    std::fputws(L"q5config: watching\n", stderr);  // what happens from now on is seen
    std::fflush(stderr);
    for (;;) {
        if (::RegNotifyChangeKeyValue(key, TRUE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET, changed,
                                      TRUE) != ERROR_SUCCESS)
            break;                        // the store was wiped
        States after = AllStates(store);  // after the registration, so that no change falls between
        seen += PrintChanges(before, after);
        before = std::move(after);
        const ULONGLONG now = ::GetTickCount64();
        if ((seconds != 0 && now >= end) || (count != 0 && seen >= count)) break;
        ::WaitForSingleObject(changed, seconds == 0 ? INFINITE : static_cast<DWORD>(end - now));
    }
    ::CloseHandle(changed);
    ::RegCloseKey(key);
    return kSuccess;
}

int CreateLogDevice(const std::vector<std::wstring>& arguments) {
    Parameters parameters = {{L"hidden", L"true"}};
    for (std::size_t i = 2; i < arguments.size(); ++i) {
        const std::size_t equals = arguments[i].find(L'=');
        if (equals == std::wstring::npos || equals == 0) return Usage();
        parameters[arguments[i].substr(0, equals)] = arguments[i].substr(equals + 1);
    }
    return Report(LogDeviceStore().Create(Stored(arguments[1]), parameters), arguments[1]);
}

int Get(const std::wstring& name, const std::wstring& parameter) {
    std::wstring value;
    const Code code = LogDeviceStore().GetValue(Stored(name), parameter, value);
    if (code == configuration_library::kOk) std::wprintf(L"%ls\n", value.c_str());
    return Report(code, name + L" " + parameter);
}

int Template(const std::vector<std::wstring>& arguments) {
    const LogDeviceStore store;
    if (arguments.size() == 1) {
        for (const std::wstring& entry : store.TemplateEntries())
            std::wprintf(L"%ls\n", entry.c_str());
        return kSuccess;
    }
    if (arguments.size() != 3 || (arguments[1] != L"add" && arguments[1] != L"remove")) return Usage();
    const Code code = store.EditTemplateEntries([&arguments](std::vector<std::wstring>& entries) {
        std::erase(entries, arguments[2]);
        if (arguments[1] == L"add") entries.push_back(arguments[2]);
    });
    return Report(code, arguments[2]);
}

int Register(const std::wstring& folder) {
    const LSTATUS result =
        ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kBaseFolderKey, L"Korvane_Oam", REG_SZ, folder.c_str(),
                          static_cast<DWORD>((folder.length() + 1) * sizeof(wchar_t)));
    return Report(result == ERROR_SUCCESS ? configuration_library::kOk : configuration_library::kAccessDenied,
                  L"register");
}

int Run(const std::vector<std::wstring>& arguments) {
    const std::size_t count = arguments.size();
    const std::wstring command = count > 0 ? arguments[0] : L"";
    if (command == L"init") return Init(count == 2 && arguments[1] == L"--empty");
    if (command == L"wipe") return Report(LogDeviceStore().Wipe(), L"wipe");
    if (command == L"list") return List(count == 2 && arguments[1] == L"--json");
    if (command == L"watch" && count <= 3)
        return Watch(count >= 2 ? std::wcstoul(arguments[1].c_str(), nullptr, 10) : 0,
                     count == 3 ? std::wcstoul(arguments[2].c_str(), nullptr, 10) : 0);
    if (command == L"create" && count >= 2) return CreateLogDevice(arguments);
    if (command == L"delete" && count == 2)
        return Report(LogDeviceStore().Delete(Stored(arguments[1])), arguments[1]);
    if (command == L"get" && count == 3) return Get(arguments[1], arguments[2]);
    if (command == L"set" && count == 4)
        return Report(LogDeviceStore().SetValue(Stored(arguments[1]), arguments[2], arguments[3]),
                      arguments[1]);
    if (command == L"template") return Template(arguments);
    if (command == L"register" && count == 2) return Register(arguments[1]);
    return Usage();
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    return Run({argv + 1, argv + argc});
}
