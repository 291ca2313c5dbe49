#pragma once

#include <windows.h>

#include <string>

#include "program_folder.h"

namespace test_support {

/// The base folder of the configuration library that needs a companion, of tests/support/companion_library.
inline std::wstring CompanionBaseFolder() {
    return ProgramFolder() + L"companion";
}

inline constexpr wchar_t kCompanion[] = L"q5companion.dll";

/// Puts a folder at the front of PATH, and makes it the current one, for this process and those that it
/// starts, as long as it lives.
class OpenFolder {
  public:
    explicit OpenFolder(const std::wstring& folder) {
        ::GetCurrentDirectoryW(MAX_PATH, current_);
        ::GetEnvironmentVariableW(L"PATH", path_, ARRAYSIZE(path_));
        ::SetCurrentDirectoryW(folder.c_str());
        ::SetEnvironmentVariableW(L"PATH", (folder + L";" + path_).c_str());
    }
    ~OpenFolder() {
        ::SetCurrentDirectoryW(current_);
        ::SetEnvironmentVariableW(L"PATH", path_);
    }
    OpenFolder(const OpenFolder&) = delete;
    OpenFolder& operator=(const OpenFolder&) = delete;

  private:
    wchar_t current_[MAX_PATH] = {};
    wchar_t path_[4096] = {};
};

}  // namespace test_support
