#include "footprint.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>

#include "machine.h"
#include "test_process.h"

namespace kitrun {
namespace {

constexpr DWORD kSeconds = 120;  // for each removal; a service may take a minute to stop

constexpr const wchar_t* kServices[] = {L"tessahost", L"tessahost2", L"tessahost_unit_test"};
constexpr const wchar_t* kKeys[] = {
    L"SOFTWARE\\Valdorn",
    L"SOFTWARE\\TESSA_TEST",
    L"SOFTWARE\\tessaplug_test_store",
    L"SOFTWARE\\winegap",
    L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Application\\tessaplug",
    L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Application\\tessaplug_test"};

std::wstring WindowsFolder() {
    wchar_t folder[MAX_PATH] = {};
    ::GetWindowsDirectoryW(folder, MAX_PATH);
    return std::wstring(folder) + L"\\";
}

std::wstring SystemFolder(const wchar_t* name) {
    return WindowsFolder() + name + L"\\";
}

std::wstring DataFolder() {
    wchar_t folder[MAX_PATH] = {};
    ::GetEnvironmentVariableW(L"ProgramData", folder, MAX_PATH);
    return std::wstring(folder) + L"\\Tessaplug";
}

bool KeyExists(const std::wstring& key) {
    HKEY opened = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) return false;
    ::RegCloseKey(opened);
    return true;
}

/// Most tests remove their files themselves, but for those that were ended.
std::vector<std::wstring> FilesOfTests() {
    const std::wstring temporary = SystemFolder(L"Temp");
    return {PanelPath(), temporary + L"tessahost_test.log", temporary + L"tessahost_unit_test.log",
            WindowsFolder() + L"q5companion.dll", DriverPath(L"fenlu3.sys.hidden")};
}

}  // namespace

std::wstring ServiceKey(const std::wstring& service) {
    return L"SYSTEM\\CurrentControlSet\\Services\\" + service;
}

std::wstring DriverPath(const std::wstring& driver) {
    return SystemFolder(L"System32\\drivers") + driver;
}

std::wstring PanelPath() {
    return SystemFolder(L"SysWOW64") + L"q5panels.exe";
}

Footprint::Footprint(const std::wstring& programs)
    : programs_(programs),
      hadDrivers_(std::ranges::any_of(kDrivers, [](auto* driver) { return FileExists(DriverPath(driver)); })),
      hadStationManager_(KeyExists(kStationManagerKey)),
      hadLibrary_(!MachineValue(kLibraryKey, kLibraryValue).empty()),
      hadFolder_(FileExists(DataFolder())) {
    for (const std::wstring service : kServices)
        if (!KeyExists(ServiceKey(service))) services_.push_back(service);
    for (const std::wstring key : kKeys)
        if (!KeyExists(key)) keys_.push_back(key);
    for (const std::wstring& file : FilesOfTests())
        if (!FileExists(file)) files_.push_back(file);
}

void Footprint::Run(const std::wstring& command) const {
    RunLimited(L"\"" + programs_ + command.substr(0, command.find(L' ')) + L".exe\"" +
                   command.substr(command.find(L' ')),
               programs_, kSeconds);
}

std::vector<std::string> Footprint::Remove() const {
    std::vector<std::string> left;
    for (const std::wstring& service : services_) {
        if (KeyExists(ServiceKey(service))) Run(L"tessahost uninstall --name " + service);
        if (KeyExists(ServiceKey(service))) left.push_back("service " + Utf8(service));
    }
    if (!hadDrivers_) Run(L"adapterctl uninstall");
    for (const wchar_t* driver : kDrivers) {
        const std::wstring path = DriverPath(driver);
        if (!hadDrivers_ && FileExists(path) && !::DeleteFileW(path.c_str())) left.push_back(Utf8(path));
    }
    if (!hadStationManager_ && KeyExists(kStationManagerKey)) Run(L"stationmgr unregister");
    if (!hadLibrary_) ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kLibraryKey.c_str(), kLibraryValue);
    for (const std::wstring& key : keys_)
        if (KeyExists(key) && ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str()) != ERROR_SUCCESS)
            left.push_back("registry key " + Utf8(key));
    for (const std::wstring& file : files_)
        if (FileExists(file) && !::DeleteFileW(file.c_str())) left.push_back(Utf8(file));
    std::error_code ignored;
    if (!hadFolder_) std::filesystem::remove_all(DataFolder(), ignored);
    if (!hadFolder_ && FileExists(DataFolder())) left.push_back(Utf8(DataFolder()));
    return left;
}

}  // namespace kitrun
