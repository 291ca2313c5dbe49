#include "product_files.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include "protected_folder.h"
#include "system_error.h"
#include "toolbox.h"
#include "unique_handle.h"

namespace installer {
namespace {

constexpr const wchar_t* kHeldFiles[] = {L"tessaplug.dll", L"tessahost.exe", L"tessactl.exe"};
constexpr const wchar_t* kFolders[] = {L"docs", L"tmf"};
constexpr wchar_t kReleased[] = L".*.old";  // what files that were renamed are called
constexpr wchar_t kEventSource[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\tessaplug";

[[noreturn]] void Fail(const std::wstring& what, const std::wstring& path) {
    const DWORD error = ::GetLastError();
    throw std::runtime_error(toolbox::WstringToString(
        what + L" " + path + L" failed: " + operating_system::DescribeSystemError(error, path) + L".",
        CP_UTF8));
}

bool Exists(const std::wstring& path) {
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

void RemoveNowOrLater(const std::wstring& path) {
    if (!::DeleteFileW(path.c_str()) && Exists(path))
        ::MoveFileExW(path.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT);
}

/// The full paths of the files that a pattern names; the part before its last backslash is taken as it is.
std::vector<std::wstring> FilesLike(const std::wstring& pattern) {
    std::vector<std::wstring> files;
    WIN32_FIND_DATAW found = {};
    const HANDLE search = ::FindFirstFileW(pattern.c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return files;
    const std::wstring folder = pattern.substr(0, pattern.rfind(L'\\') + 1);
    do {
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
            files.push_back(folder + found.cFileName);
    } while (::FindNextFileW(search, &found));
    ::FindClose(search);
    return files;
}

std::wstring FreeName(const std::wstring& path) {
    for (unsigned number = 1;; ++number) {
        const std::wstring name = path + L"." + std::to_wstring(number) + L".old";
        if (!Exists(name)) return name;
    }
}

void Release(const std::wstring& path) {
    const std::wstring copy = path + L".new";
    const std::wstring old = FreeName(path);
    try {
        if (!::CopyFileW(path.c_str(), copy.c_str(), FALSE)) Fail(L"Copying", path);
        if (!::MoveFileExW(path.c_str(), old.c_str(), 0)) Fail(L"Renaming", path);
        if (!::MoveFileExW(copy.c_str(), path.c_str(), 0)) {
            const DWORD error = ::GetLastError();
            ::MoveFileExW(old.c_str(), path.c_str(), 0);
            ::SetLastError(error);
            Fail(L"Renaming", copy);
        }
    } catch (...) {
        ::DeleteFileW(copy.c_str());
        throw;
    }
    RemoveNowOrLater(old);
}

void AddAll(std::vector<std::wstring>& all, const std::vector<std::wstring>& more) {
    all.insert(all.end(), more.begin(), more.end());
}

namespace fs = std::filesystem;

fs::path CopiesOf(const std::wstring& folder) {
    return folder.substr(0, folder.length() - 1) + L".previous";
}

/// Not by the standard library, which takes any two files of this target's for the same one.
void CopyFileOver(const fs::path& from, const fs::path& to) {
    if (!::CopyFileW(from.c_str(), to.c_str(), FALSE)) Fail(L"Copying", from.native());
}

bool HasProduct(const fs::path& folder) {
    return std::ranges::any_of(kHeldFiles, [&](const wchar_t* name) { return fs::exists(folder / name); });
}

void CopyProduct(const fs::path& from, const fs::path& to) {
    fs::create_directories(to);
    for (const wchar_t* name : kHeldFiles)
        if (fs::exists(from / name)) CopyFileOver(from / name, to / name);
    for (const wchar_t* name : kFolders) {
        if (!fs::exists(from / name)) continue;
        fs::create_directories(to / name);
        for (const auto& entry : fs::directory_iterator(from / name))
            if (entry.is_regular_file()) CopyFileOver(entry.path(), to / name / entry.path().filename());
    }
}

}  // namespace

void KeepFiles(const std::wstring& folder) {
    ForgetFiles(folder);
    if (!HasProduct(folder)) return;
    try {
        CopyProduct(folder, CopiesOf(folder));
    } catch (...) {
        ForgetFiles(folder);
        throw;
    }
}

void RestoreFiles(const std::wstring& folder) {
    if (!fs::exists(CopiesOf(folder))) return;
    CopyProduct(CopiesOf(folder), folder);
    ForgetFiles(folder);
}

void ForgetFiles(const std::wstring& folder) noexcept {
    std::error_code ignored;
    fs::remove_all(CopiesOf(folder), ignored);
}

void ReleaseFiles(const std::wstring& folder) {
    for (const wchar_t* name : kHeldFiles) {
        for (const std::wstring& old : FilesLike(folder + name + kReleased))
            RemoveNowOrLater(old);
        if (Exists(folder + name)) Release(folder + name);
    }
}

void RemoveFolder(const std::wstring& folder) {
    const std::wstring path = folder.substr(0, folder.length() - 1);
    bool isHeld = false;
    for (const wchar_t* name : kHeldFiles)
        for (const std::wstring& old : FilesLike(folder + name + kReleased)) {
            RemoveNowOrLater(old);
            isHeld = isHeld || Exists(old);
        }
    // The system's next start removes in the order in which it was asked: the files first.
    if (!::RemoveDirectoryW(path.c_str()) && isHeld)
        ::MoveFileExW(path.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT);
}

void RemoveLogs(const std::wstring& log) {
    ::DeleteFileW(log.c_str());
    constexpr int kMostKept = 99;
    for (int number = 1; number <= kMostKept; ++number)
        ::DeleteFileW((log + L"." + std::to_wstring(number)).c_str());
    ::RemoveDirectoryW(log.substr(0, log.rfind(L'\\')).c_str());  // refused if anything else is in it
}

void RemoveEventSource(const std::wstring& folder) {
    wchar_t file[2 * MAX_PATH] = {};
    DWORD size = sizeof file;
    const LSTATUS result =
        ::RegGetValueW(HKEY_LOCAL_MACHINE, kEventSource, L"EventMessageFile",
                       RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, file, &size);
    const std::wstring own = folder + L"tessaplug.dll";
    const bool isOwn =
        result == ERROR_SUCCESS && ::CompareStringOrdinal(file, -1, own.c_str(), -1, TRUE) == CSTR_EQUAL;
    // Without its file it is what the installer has left of it.
    if (isOwn || result == ERROR_FILE_NOT_FOUND) ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kEventSource);
}

std::vector<std::wstring> DumpsAndRecordings(const std::wstring& logFolder) {
    std::vector<std::wstring> kept;
    wchar_t temporary[MAX_PATH + 1] = {};
    wchar_t windows[MAX_PATH + 1] = {};
    const std::wstring dumps = L"tessaplug.dll_*.dmp";
    // As the service does, if both run as the system; and the folder that the system itself has by default.
    if (::GetTempPathW(MAX_PATH, temporary) != 0) AddAll(kept, FilesLike(temporary + dumps));
    if (::GetSystemWindowsDirectoryW(windows, MAX_PATH) != 0) {
        const std::wstring common = std::wstring(windows) + L"\\Temp\\";
        if (::CompareStringOrdinal(temporary, -1, common.c_str(), -1, TRUE) != CSTR_EQUAL)
            AddAll(kept, FilesLike(common + dumps));
    }
    const std::wstring own = operating_system::ProductDataFolder();
    AddAll(kept, FilesLike(own + L"\\*.etl"));
    if (!logFolder.empty() &&
        ::CompareStringOrdinal(logFolder.c_str(), -1, own.c_str(), -1, TRUE) != CSTR_EQUAL)
        AddAll(kept, FilesLike(logFolder + L"\\*.etl"));
    return kept;
}

}  // namespace installer
