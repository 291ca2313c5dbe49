#include "monitor_end.h"

#include "tessaplug.h"

namespace tessactl {

std::optional<DWORD> MonitorEnd(const std::vector<LogEntry>& entries) {
    std::optional<DWORD> ended;
    for (const LogEntry& entry : entries) {
        if (entry.eventId == TESSAPLUG_EVENT_STARTED) ended.reset();
        if (entry.eventId == TESSAPLUG_EVENT_MONITOR_ENDED) ended = entry.time;
    }
    return ended;
}

}  // namespace tessactl
