#pragma once

#include <windows.h>
#include <psapi.h>

#include <algorithm>
#include <array>
#include <span>
#include <vector>

namespace bench {

/// The regions of committed private memory, by the address space's own account: Wine reports none in the
/// process counters.
inline std::vector<MEMORY_BASIC_INFORMATION> PrivateRegions() {
    std::vector<MEMORY_BASIC_INFORMATION> regions;
    MEMORY_BASIC_INFORMATION region = {};
    for (const BYTE* at = nullptr; ::VirtualQuery(at, &region, sizeof region) == sizeof region;
         at = static_cast<const BYTE*>(region.BaseAddress) + region.RegionSize)
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) regions.push_back(region);
    return regions;
}

/// Committed private memory.
inline SIZE_T PrivateBytes() {
    SIZE_T bytes = 0;
    for (const MEMORY_BASIC_INFORMATION& region : PrivateRegions())
        bytes += region.RegionSize;
    return bytes;
}

/// What of it was used and is in memory. Of a thread's stack Windows commits no more than that.
inline SIZE_T PrivateBytesInMemory() {
    constexpr SIZE_T kPage = 0x1000;
    // Not on the heap, which would grow by it.
    static std::array<PSAPI_WORKING_SET_EX_INFORMATION, 0x100> pages;
    SIZE_T bytes = 0;
    for (const MEMORY_BASIC_INFORMATION& region : PrivateRegions()) {
        const SIZE_T count = region.RegionSize / kPage;
        for (SIZE_T first = 0; first < count; first += pages.size()) {
            const std::span some(pages.data(), std::min(count - first, pages.size()));
            for (SIZE_T i = 0; i < some.size(); ++i)
                some[i] = {static_cast<BYTE*>(region.BaseAddress) + (first + i) * kPage, {}};
            ::K32QueryWorkingSetEx(::GetCurrentProcess(), some.data(), static_cast<DWORD>(some.size_bytes()));
            for (const PSAPI_WORKING_SET_EX_INFORMATION& page : some)
                if (page.VirtualAttributes.Valid) bytes += kPage;
        }
    }
    return bytes;
}

struct PrivateMemory {
    SIZE_T committed = PrivateBytes();
    SIZE_T inMemory = PrivateBytesInMemory();
};

}  // namespace bench
