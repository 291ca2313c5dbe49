#pragma once

#include <windows.h>

namespace bench {

/// Committed private memory, by the address space's own account: Wine reports none in the process counters.
inline SIZE_T PrivateBytes() {
    SIZE_T bytes = 0;
    MEMORY_BASIC_INFORMATION region = {};
    for (const BYTE* at = nullptr; ::VirtualQuery(at, &region, sizeof region) == sizeof region;
         at = static_cast<const BYTE*>(region.BaseAddress) + region.RegionSize)
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) bytes += region.RegionSize;
    return bytes;
}

}  // namespace bench
