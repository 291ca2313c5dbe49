#pragma once

#include <windows.h>

#include <string>

/// How the event log of the machine behaves: values of one registry key below HKEY_LOCAL_MACHINE, all of them
/// absent by default. They are looked at with each call; the key itself is to stay.
namespace wine_gap {

inline constexpr wchar_t kEventLogSettingsKey[] = L"SOFTWARE\\winegap\\EventLogSettings";

/// DWORD: if not 0, a change sets the events of NotifyChangeEventLog, each time, instead of pulsing them.
inline constexpr wchar_t kNotificationSets[] = L"NotificationSets";
/// DWORD: how often the event log service was started again. Handles from before are dead.
inline constexpr wchar_t kServiceRestarts[] = L"ServiceRestarts";
/// DWORD: if not 0, the event log service does not run.
inline constexpr wchar_t kServiceIsStopped[] = L"ServiceIsStopped";
/// String: the log that may not be opened.
inline constexpr wchar_t kAccessDeniedTo[] = L"AccessDeniedTo";

/// @return 0 if there is no such value
DWORD EventLogSetting(const wchar_t* name);
/// @return empty if there is no such value
std::wstring EventLogTextSetting(const wchar_t* name);

}  // namespace wine_gap
