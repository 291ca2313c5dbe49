#pragma once

#include <windows.h>

#include <string>

namespace test_support {

/// Makes the machine's common files folder one of so many characters, as long as it lives.
class CommonFilesFolder {
  public:
    explicit CommonFilesFolder(std::size_t length) : folder_(L"C:\\" + std::wstring(length - 3, L'f')) {
        DWORD size = sizeof before_;
        ::RegGetValueW(HKEY_LOCAL_MACHINE, kKey, kValue, RRF_RT_REG_SZ, nullptr, before_, &size);
        ::CreateDirectoryW(folder_.c_str(), nullptr);  // without it the system does not name it
        Set(folder_);
    }
    ~CommonFilesFolder() {
        Set(before_);
        ::RemoveDirectoryW(folder_.c_str());
    }
    CommonFilesFolder(const CommonFilesFolder&) = delete;
    CommonFilesFolder& operator=(const CommonFilesFolder&) = delete;

    /// The length with which the library's path has so many characters.
    static std::size_t ForPathOf(std::size_t pathLength) {
        return pathLength - std::wstring(L"\\Valdorn\\Automation\\Korvane OAM\\bin\\q5orvix64x.dll").length();
    }

  private:
    static void Set(const std::wstring& folder) {
        ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, kValue, REG_SZ, folder.c_str(),
                          static_cast<DWORD>((folder.length() + 1) * sizeof(wchar_t)));
    }
    static constexpr wchar_t kKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion";
    static constexpr wchar_t kValue[] = L"CommonFilesDir";
    const std::wstring folder_;
    wchar_t before_[MAX_PATH] = {};
};

}  // namespace test_support
