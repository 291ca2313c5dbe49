#pragma once

#include <windows.h>

#include <gtest/gtest.h>
#include <string>

namespace test_support {

/// For its lifetime this process finds nothing below HKEY_LOCAL_MACHINE but what a test puts there.
class TestRegistry {
  public:
    TestRegistry() {
        HKEY key = nullptr;
        EXPECT_EQ(::RegCreateKeyExW(HKEY_CURRENT_USER, path_.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                                    KEY_ALL_ACCESS, nullptr, &key, nullptr),
                  ERROR_SUCCESS);
        EXPECT_EQ(::RegOverridePredefKey(HKEY_LOCAL_MACHINE, key), ERROR_SUCCESS);
        ::RegCloseKey(key);
    }
    ~TestRegistry() {
        ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
        ::RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str());
    }
    TestRegistry(const TestRegistry&) = delete;
    TestRegistry& operator=(const TestRegistry&) = delete;

    void Set(const std::wstring& key, const std::wstring& name, const std::wstring& text,
             DWORD type = REG_EXPAND_SZ) const {
        HKEY opened = nullptr;
        EXPECT_EQ(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, nullptr, REG_OPTION_VOLATILE,
                                    KEY_SET_VALUE, nullptr, &opened, nullptr),
                  ERROR_SUCCESS);
        EXPECT_EQ(::RegSetValueExW(opened, name.c_str(), 0, type, reinterpret_cast<const BYTE*>(text.c_str()),
                                   static_cast<DWORD>((text.length() + 1) * sizeof(wchar_t))),
                  ERROR_SUCCESS);
        ::RegCloseKey(opened);
    }

  private:
    const std::wstring path_ = L"SOFTWARE\\TessaTestRegistry" + std::to_wstring(::GetCurrentProcessId());
};

}  // namespace test_support
