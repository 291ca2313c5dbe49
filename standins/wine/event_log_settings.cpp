#include "event_log_settings.h"

namespace wine_gap {
namespace {

/// Opened once: each call of the event log asks.
HKEY SettingsKey() {
    static const HKEY settings = [] {
        HKEY key = nullptr;
        ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kEventLogSettingsKey, 0, nullptr, 0, KEY_QUERY_VALUE, nullptr,
                          &key, nullptr);
        return key;
    }();
    return settings;
}

}  // namespace

DWORD EventLogSetting(const wchar_t* name) {
    DWORD value = 0;
    DWORD size = sizeof value;
    const LSTATUS result =
        ::RegQueryValueExW(SettingsKey(), name, nullptr, nullptr, reinterpret_cast<BYTE*>(&value), &size);
    return result == ERROR_SUCCESS ? value : 0;
}

std::wstring EventLogTextSetting(const wchar_t* name) {
    wchar_t value[64] = {};
    DWORD size = sizeof value - sizeof *value;
    const LSTATUS result =
        ::RegQueryValueExW(SettingsKey(), name, nullptr, nullptr, reinterpret_cast<BYTE*>(value), &size);
    return result == ERROR_SUCCESS ? value : L"";
}

}  // namespace wine_gap
