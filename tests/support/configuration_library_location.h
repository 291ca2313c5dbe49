#pragma once

#include <windows.h>

#include <string>

#include "program_folder.h"

namespace test_support {

/// Points the machine's configuration library at a base folder for as long as it lives, and puts back what
/// was registered before.
class ConfigurationLibraryLocation {
  public:
    static constexpr wchar_t kKey[] = L"SOFTWARE\\Valdorn\\Shared Tools\\QUELM64";  // in the machine's

    explicit ConfigurationLibraryLocation(const std::wstring& baseFolder) {
        DWORD size = sizeof before_;
        existed_ = ::RegGetValueW(HKEY_LOCAL_MACHINE, kKey, kValue, RRF_RT_REG_SZ, nullptr, before_, &size) ==
                   ERROR_SUCCESS;
        Set(baseFolder);
    }
    ~ConfigurationLibraryLocation() {
        if (existed_)
            Set(before_);
        else
            Remove();
    }
    ConfigurationLibraryLocation(const ConfigurationLibraryLocation&) = delete;
    ConfigurationLibraryLocation& operator=(const ConfigurationLibraryLocation&) = delete;

    static void Set(const std::wstring& baseFolder) {
        ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, kValue, REG_SZ, baseFolder.c_str(),
                          static_cast<DWORD>((baseFolder.length() + 1) * sizeof(wchar_t)));
    }
    static void Remove() { ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kKey, kValue); }

  private:
    static constexpr wchar_t kValue[] = L"Korvane_Oam";
    bool existed_ = false;
    wchar_t before_[MAX_PATH] = {};
};

/// The base folder of a configuration library that misbehaves, of tests/support/faulty_configuration_library.
inline std::wstring FaultyLibrary(const std::wstring& variant) {
    return ProgramFolder() + L"faulty\\" + variant;
}

}  // namespace test_support
