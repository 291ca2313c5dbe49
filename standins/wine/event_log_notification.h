#pragma once

#include <windows.h>

#include "event_log_file.h"

/// Who is told of records that are written. Windows documents that the system pulses the event, no more than
/// once in five seconds, and that of several changes within these one is told: what is written in the quiet
/// five seconds is never told of. It also documents that the event is set. Which of both happens here is a
/// setting of the machine (event_log_settings.h). That a log is cleared is not told, as no event is written.
namespace wine_gap {

/// @param handle under which it is ended
/// @return ERROR_SUCCESS or a system error code
DWORD StartNotification(HANDLE handle, const EventLogFile& file, HANDLE event);
void EndNotifications(HANDLE handle);

}  // namespace wine_gap
