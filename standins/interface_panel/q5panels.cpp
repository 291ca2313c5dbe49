#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "log_device_store.h"

// q5panels: the interface-setup panel. Silent and forced, it makes the log devices that are installed, that
// is listed in the template, but missing.
namespace {

using configuration_library::Code;
using configuration_library::LogDeviceStore;

enum ExitCode { kSuccess = 0, kFailed = 1, kUsage = 2 };

constexpr wchar_t kKey[] = L"SOFTWARE\\VALDORN\\TORUX\\InterfacePanel";
constexpr wchar_t kBehaviour[] = L"Behaviour";
constexpr wchar_t kGoOnEvent[] = L"Global\\VALDORN_INTERFACE_PANEL_GO_ON";

int Usage(std::FILE* where) {
    std::fputws(
        L"q5panels - the interface-setup panel: makes log devices that are installed but missing\n"
        L"\n"
        L"usage: q5panels -silent -force -ci    makes them without asking\n"
        L"       q5panels --behave KIND         for tests; what it does from now on when it is run "
        L"silently:\n"
        L"                                      normal, hang, fail or crash\n"
        L"       q5panels --go-on               ends one that hangs\n",
        where);
    return kUsage;
}

std::wstring Behaviour() {
    wchar_t behaviour[16] = {};
    DWORD size = sizeof behaviour;
    return ::RegGetValueW(HKEY_LOCAL_MACHINE, kKey, kBehaviour, RRF_RT_REG_SZ, nullptr, behaviour, &size) ==
                   ERROR_SUCCESS
               ? behaviour
               : L"normal";
}

int SetBehaviour(const std::wstring& behaviour) {
    const std::vector<std::wstring> known = {L"normal", L"hang", L"fail", L"crash"};
    if (std::ranges::find(known, behaviour) == known.end()) return Usage(stderr);
    const LSTATUS result = ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, kBehaviour, REG_SZ, behaviour.c_str(),
                                             static_cast<DWORD>((behaviour.length() + 1) * sizeof(wchar_t)));
    if (result == ERROR_SUCCESS) return kSuccess;
    std::fwprintf(stderr, L"q5panels: the behaviour cannot be set, error %ld; run it as administrator\n",
                  result);
    return kFailed;
}

/// Hangs until it is told to go on, or for a minute.
void Hang() {
    constexpr DWORD kLongestMs = 60000;
    const HANDLE goOn = ::CreateEventW(nullptr, TRUE, FALSE, kGoOnEvent);
    ::WaitForSingleObject(goOn, kLongestMs);
    ::CloseHandle(goOn);
}

/// A real fault, at once: an access violation that is only raised lets the program go on under Wine 10, and a
/// crash that is reported first ends now and then with 0 under Wine.
void Crash() {
    ::SetErrorMode(SEM_NOGPFAULTERRORBOX);
    static volatile int* volatile nowhere = nullptr;
    *nowhere = 0;
}

int GoOn() {
    const HANDLE goOn = ::OpenEventW(EVENT_MODIFY_STATE, FALSE, kGoOnEvent);
    if (goOn == nullptr) return kSuccess;  // none hangs
    ::SetEvent(goOn);
    ::CloseHandle(goOn);
    return kSuccess;
}

/// The log device that an entry of the template, "LDT-MODEL.KIND", stands for.
std::wstring LogDeviceOf(const std::wstring& entry) {
    constexpr wchar_t kPrefix[] = L"LDT-";
    if (!entry.starts_with(kPrefix)) return {};
    return entry.substr(std::wcslen(kPrefix)) + L".1";
}

int CreateMissing() {
    const LogDeviceStore store;
    if (store.Exists(L"any") == configuration_library::kDefinitionNotExists) {
        std::fputws(L"q5panels: there is no store of log devices; make it with q5config init\n", stderr);
        return kFailed;
    }
    int result = kSuccess;
    for (const std::wstring& entry : store.TemplateEntries()) {
        const std::wstring name = LogDeviceOf(entry);
        if (name.empty()) continue;
        Code code = store.Exists(name);
        if (code == configuration_library::kLogDeviceNotExists)
            code = store.Create(name, {{L"hidden", L"false"}});
        // Another panel may have made it in between.
        if (code == configuration_library::kOk || store.Exists(name) == configuration_library::kOk) continue;
        std::fwprintf(stderr, L"q5panels: %ls cannot be made, code %lu\n", name.c_str(),
                      static_cast<unsigned long>(code));
        result = kFailed;
    }
    return result;
}

int RunSilently() {
    const std::wstring behaviour = Behaviour();
    if (behaviour == L"hang") Hang();
    if (behaviour == L"fail") return kFailed;
    if (behaviour == L"crash") Crash();
    return CreateMissing();
}

int Run(const std::vector<std::wstring>& arguments) {
    if (arguments == std::vector<std::wstring>{L"-silent", L"-force", L"-ci"}) return RunSilently();
    if (arguments == std::vector<std::wstring>{L"--go-on"}) return GoOn();
    if (arguments.size() == 2 && arguments[0] == L"--behave") return SetBehaviour(arguments[1]);
    if (arguments.empty()) {
        Usage(stdout);
        return kSuccess;
    }
    return Usage(stderr);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    return Run({argv + 1, argv + argc});
}
