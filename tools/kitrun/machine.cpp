#include "machine.h"

#include <shlobj.h>
#include <wtsapi32.h>

#include <algorithm>
#include <cwctype>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "footprint.h"

namespace kitrun {
namespace {

constexpr wchar_t kCurrentVersion[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";

template <typename Function>
Function* FunctionOfNtdll(const char* name) {
    return reinterpret_cast<Function*>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), name)));
}

std::wstring Lower(std::wstring text) {
    std::ranges::transform(text, text.begin(), [](wchar_t c) { return std::towlower(c); });
    return text;
}

/// The start options of the running system say so; the setting of the next start does not count.
bool IsTestSigning() {
    const std::wstring options = MachineValue(L"SYSTEM\\CurrentControlSet\\Control", L"SystemStartOptions");
    return Lower(options).find(L"testsigning") != std::wstring::npos;
}

bool SomebodyIsLoggedOn() {
    WTS_SESSION_INFOW* sessions = nullptr;
    DWORD count = 0;
    if (!::WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions, &count)) return false;
    const bool isActive = std::any_of(sessions, sessions + count,
                                      [](const auto& session) { return session.State == WTSActive; });
    ::WTSFreeMemory(sessions);
    return isActive;
}

}  // namespace

bool IsWine() {
    return FunctionOfNtdll<const char*()>("wine_get_version") != nullptr;
}

bool IsAdministrator() {
    BYTE administrators[SECURITY_MAX_SID_SIZE] = {};
    DWORD size = sizeof administrators;
    BOOL isMember = FALSE;
    return ::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size) &&
           ::CheckTokenMembership(nullptr, administrators, &isMember) && isMember;
}

std::string SystemVersion() {
    OSVERSIONINFOW version = {};
    version.dwOSVersionInfoSize = sizeof version;
    // GetVersionEx tells what the program's manifest names.
    if (auto* get = FunctionOfNtdll<LONG WINAPI(OSVERSIONINFOW*)>("RtlGetVersion")) get(&version);
    DWORD revision = 0;
    DWORD size = sizeof revision;
    ::RegGetValueW(HKEY_LOCAL_MACHINE, kCurrentVersion, L"UBR", RRF_RT_REG_DWORD, nullptr, &revision, &size);
    const std::wstring release = MachineValue(kCurrentVersion, L"DisplayVersion");  // such as 22H2
    std::string text =
        Utf8(MachineValue(kCurrentVersion, L"ProductName") + (release.empty() ? L"" : L" " + release)) +
        ", version " + std::to_string(version.dwMajorVersion) + "." + std::to_string(version.dwMinorVersion) +
        ", build " + std::to_string(version.dwBuildNumber) + "." + std::to_string(revision);
    if (auto* wine = FunctionOfNtdll<const char*()>("wine_get_version"))
        text += "; this is Wine " + std::string(wine()) + ", not Windows";
    return text;
}

std::string LeftOutBecause(const std::string& label) {
    if (IsWine()) return "";
    if (label == "winegap") return "they are for Wine only";
    if (label == "session" && !SomebodyIsLoggedOn()) return "nobody is logged on at the screen";
    if (label == "driver" && !IsTestSigning())
        return "test signing is off, and the stand-in drivers are not signed by anybody Windows trusts";
    return "";
}

std::vector<std::string> PartsOfAStation(const std::wstring& programs) {
    std::vector<std::string> parts;
    const auto registered = [&](const std::string& what, const std::wstring& where) {
        if (!where.empty() && Lower(where).find(Lower(programs)) == std::wstring::npos)
            parts.push_back(what + ": " + Utf8(where));
    };
    registered("configuration library", MachineValue(kLibraryKey, kLibraryValue));
    registered("station manager", MachineValue(kStationManagerKey + L"\\LocalServer32", nullptr));
    registered("service tessahost", MachineValue(ServiceKey(L"tessahost"), L"ImagePath"));
    const auto installed = [&](const std::string& what, const std::wstring& file, const std::wstring& own) {
        if (FileExists(file) && (own.empty() || ContentOf(file) != ContentOf(programs + own)))
            parts.push_back(what + ": " + Utf8(file));
    };
    installed("configuration library",
              MachineValue(L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion", L"CommonFilesDir") +
                  L"\\Valdorn\\Automation\\Korvane OAM\\bin\\q5orvix64x.dll",
              L"");
    installed("interface-setup panel", PanelPath(), L"q5panels.exe");
    for (const wchar_t* driver : kDrivers)
        installed("driver", DriverPath(driver), driver);
    return parts;
}

std::string Utf8(const std::wstring& text) {
    const int length = static_cast<int>(text.length());
    std::string narrow(text.length() * 3, '\0');
    narrow.resize(
        static_cast<std::size_t>(::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, narrow.data(),
                                                       static_cast<int>(narrow.length()), nullptr, nullptr)));
    return narrow;
}

std::wstring MachineValue(const std::wstring& key, const wchar_t* value) {
    wchar_t text[1024] = {};
    DWORD size = sizeof text;
    const LSTATUS result =
        ::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value,
                       RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, text, &size);
    return result == ERROR_SUCCESS ? text : L"";
}

std::string ContentOf(const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool FileExists(const std::wstring& path) {
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

}  // namespace kitrun
