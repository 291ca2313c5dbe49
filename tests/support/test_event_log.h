#pragma once

#include <windows.h>

#include <gtest/gtest.h>
#include <ostream>
#include <string>

#include "data_folder.h"
#include "event_log_file.h"
#include "event_log_settings.h"

namespace test_support {

/// An event log that exists, and is empty and numbered from 1, of its lifetime.
class TestEventLog {
  public:
    explicit TestEventLog(const std::wstring& name)
        : name_(name),
          key_(L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\" + name),
          file_(wine_gap::DataFolder() + L"\\" + name + L".log") {
        Delete();
        AddKey(key_);
    }
    ~TestEventLog() { Delete(); }
    TestEventLog(const TestEventLog&) = delete;
    TestEventLog& operator=(const TestEventLog&) = delete;

    void AddSource(const std::wstring& source) const { AddKey(key_ + L"\\" + source); }
    /// How large it may grow.
    void Limit(DWORD bytes) const {
        EXPECT_EQ(
            ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, key_.c_str(), L"MaxSize", REG_DWORD, &bytes, sizeof bytes),
            ERROR_SUCCESS);
    }

  private:
    static void AddKey(const std::wstring& path) {
        HKEY key = nullptr;
        EXPECT_EQ(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_READ, nullptr, &key,
                                    nullptr),
                  ERROR_SUCCESS);
        ::RegCloseKey(key);
    }
    void Delete() const {
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, key_.c_str());
        ::DeleteFileW(file_.c_str());
        // The next change, which may look like the first one of this log, has to be one of the registry.
        ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, wine_gap::kEventLogChangesKey, name_.c_str());
    }

    std::wstring name_;
    std::wstring key_;
    std::wstring file_;
};

/// A setting of the stand-in's event log (event_log_settings.h), of its lifetime.
class EventLogSetting {
  public:
    EventLogSetting(const wchar_t* name, DWORD value) : name_(name) { Set(REG_DWORD, &value, sizeof value); }
    EventLogSetting(const wchar_t* name, const std::wstring& value) : name_(name) {
        Set(REG_SZ, value.c_str(), static_cast<DWORD>((value.length() + 1) * sizeof(wchar_t)));
    }
    ~EventLogSetting() {
        ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, wine_gap::kEventLogSettingsKey, name_.c_str());
    }
    EventLogSetting(const EventLogSetting&) = delete;
    EventLogSetting& operator=(const EventLogSetting&) = delete;

  private:
    void Set(DWORD type, const void* data, DWORD size) const {
        EXPECT_EQ(::RegSetKeyValueW(HKEY_LOCAL_MACHINE, wine_gap::kEventLogSettingsKey, name_.c_str(), type,
                                    data, size),
                  ERROR_SUCCESS);
    }

    std::wstring name_;
};

/// The two ways in which Windows documents that NotifyChangeEventLog tells of a change.
enum class Notification : DWORD { kPulsed = 0, kSet = 1 };

inline void PrintTo(Notification notification, std::ostream* out) {
    *out << (notification == Notification::kSet ? "Set" : "Pulsed");
}

}  // namespace test_support
