#include "dump_folder.h"

#include <algorithm>
#include <dbghelp.h>
#include <memory>
#include <tuple>

#include "protected_folder.h"
#include "text.h"
#include "unique_handle.h"

namespace tessactl {
namespace {

constexpr ULONG64 kSecond = 10'000'000;  // of a file time
constexpr ULONG64 kMinute = 60 * kSecond;
constexpr ULONG64 kHour = 60 * kMinute;
constexpr ULONG64 kDay = 24 * kHour;

/// A variable of the machine's environment, which services of LocalSystem have; empty if there is none.
std::wstring MachineVariable(const wchar_t* name) {
    wchar_t value[MAX_PATH] = {};
    DWORD size = sizeof value;
    // Asked for as text, a value with variables comes back with them filled in.
    const LSTATUS result = ::RegGetValueW(HKEY_LOCAL_MACHINE,
                                          L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment",
                                          name, RRF_RT_REG_SZ, nullptr, value, &size);
    return result == ERROR_SUCCESS ? value : L"";
}

ULONG64 Number(DWORD high, DWORD low) {
    return static_cast<ULONG64>(high) << 32 | low;
}

[[noreturn]] void FailFolder(const std::wstring& folder, DWORD error) {
    const std::string told = "the folder " + Utf8(folder) + " cannot be read: " + ErrorInWords(error);
    if (error == ERROR_ACCESS_DENIED) throw NoRights(told + "; run it as administrator");
    throw ToolError(told);
}

UniqueKernelHandle OpenToRemove(const std::wstring& path) {
    try {
        return UniqueKernelHandle(
            operating_system::OpenWithoutLinks(path, GENERIC_READ | DELETE, FILE_SHARE_READ, OPEN_EXISTING));
    } catch (const operating_system::PathRefused& refused) {
        throw ToolError(Utf8(refused.Text()));
    }
}

}  // namespace

std::wstring ServiceTemporaryFolder() {
    // In the order of GetTempPath, which the plug-in asks; GetTempPath2 has another folder for LocalSystem.
    for (const auto* name : {L"TMP", L"TEMP"}) {
        std::wstring folder = MachineVariable(name);
        while (folder.ends_with(L'\\'))
            folder.pop_back();
        if (!folder.empty()) return folder;
    }
    wchar_t windows[MAX_PATH] = {};
    ::GetSystemWindowsDirectoryW(windows, MAX_PATH);
    return std::wstring(windows) + L"\\Temp";
}

bool IsDumpName(const std::wstring& name) {
    constexpr wchar_t kPattern[] = L"tessaplug.dll_00000000-000000.dmp";
    if (name.length() != std::size(kPattern) - 1) return false;
    std::wstring pattern = name;
    for (std::size_t i = 0; i < pattern.length(); ++i)
        if (kPattern[i] == L'0' && pattern[i] >= L'0' && pattern[i] <= L'9') pattern[i] = L'0';
    return ::_wcsicmp(pattern.c_str(), kPattern) == 0;
}

std::vector<StoredDump> DumpsIn(const std::wstring& folder) {
    std::vector<StoredDump> dumps;
    WIN32_FIND_DATAW found = {};
    const HANDLE search = ::FindFirstFileW((folder + L"\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) FailFolder(folder, ::GetLastError());
    const std::unique_ptr<void, decltype(&::FindClose)> owner(search, &::FindClose);
    do {
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0 && IsDumpName(found.cFileName))
            dumps.push_back(
                {folder, found.cFileName, Number(found.nFileSizeHigh, found.nFileSizeLow),
                 Number(found.ftLastWriteTime.dwHighDateTime, found.ftLastWriteTime.dwLowDateTime)});
    } while (::FindNextFileW(search, &found));
    if (const DWORD error = ::GetLastError(); error != ERROR_NO_MORE_FILES) FailFolder(folder, error);
    std::ranges::sort(dumps, [](const StoredDump& a, const StoredDump& b) {
        return std::tie(a.writtenAt, a.name) > std::tie(b.writtenAt, b.name);
    });
    return dumps;
}

std::vector<StoredDump> DumpsToPrune(const std::vector<StoredDump>& newestFirst, const PruneRule& rule,
                                     ULONG64 now) {
    const std::size_t kept = std::min<std::size_t>(rule.keep.value_or(0), newestFirst.size());
    std::vector<StoredDump> pruned(newestFirst.begin() + static_cast<std::ptrdiff_t>(kept),
                                   newestFirst.end());
    std::erase_if(pruned, [&](const StoredDump& dump) {
        return rule.olderDays && dump.writtenAt + *rule.olderDays * kDay > now;
    });
    return pruned;
}

void RemoveDump(const StoredDump& dump, bool isTry) {
    const UniqueKernelHandle file = OpenToRemove(dump.Path());
    MINIDUMP_HEADER header = {};
    DWORD read = 0;
    if (!::ReadFile(file.get(), &header, sizeof header, &read, nullptr))
        throw ToolError(Utf8(dump.Path()) + " cannot be read: " + ErrorInWords(::GetLastError()));
    // Only the low half of the version is fixed.
    if (read != sizeof header || header.Signature != MINIDUMP_SIGNATURE ||
        LOWORD(header.Version) != MINIDUMP_VERSION)
        throw ToolError(Utf8(dump.Path()) + " is no memory dump");
    // By its handle: what stands at the path by now may be another file.
    FILE_DISPOSITION_INFO disposition = {TRUE};
    if (!isTry &&
        !::SetFileInformationByHandle(file.get(), FileDispositionInfo, &disposition, sizeof disposition))
        throw ToolError(Utf8(dump.Path()) + " cannot be removed: " + ErrorInWords(::GetLastError()));
}

std::string AgeInWords(ULONG64 since, ULONG64 now) {
    constexpr struct {
        ULONG64 length;
        const char* name;
    } kUnits[] = {{kDay, "day"}, {kHour, "hour"}, {kMinute, "minute"}, {kSecond, "second"}};
    const ULONG64 age = now > since ? now - since : 0;
    for (const auto& unit : kUnits) {
        const ULONG64 count = age / unit.length;
        if (count > 0 || unit.length == kSecond)
            return std::to_string(count) + " " + unit.name + (count == 1 ? "" : "s");
    }
    return {};
}

}  // namespace tessactl
