#pragma once

#include <windows.h>

#include "event_log_settings.h"

namespace bench {

/// The way in which the machine's event log tells of changes (event_log_settings.h).
inline void TellBySetting(bool sets) {
    const DWORD value = sets ? 1 : 0;
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, wine_gap::kEventLogSettingsKey, wine_gap::kNotificationSets,
                      REG_DWORD, &value, sizeof value);
}

}  // namespace bench
