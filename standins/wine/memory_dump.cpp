#include <windows.h>

#include <cstring>

#include "wine_gap.h"

// Memory dumps in a bearable time. Wine's MiniDumpWriteDump reads the process a kilobyte at a time, and Wine
// has every such read done by its server, also a process's of its own memory: a dump of a service takes half
// a minute. Here a process reads its own memory itself.
namespace wine_gap {
namespace {

decltype(&::ReadProcessMemory) originalRead = nullptr;

/// True if a guard page is in it: touching one would take the guard away.
bool HasGuardPage(const void* address, SIZE_T size) {
    MEMORY_BASIC_INFORMATION region = {};
    auto next = reinterpret_cast<ULONG_PTR>(address);
    const ULONG_PTR end = next + size;
    while (next < end && ::VirtualQuery(reinterpret_cast<void*>(next), &region, sizeof region) != 0) {
        if ((region.Protect & PAGE_GUARD) != 0) return true;
        next = reinterpret_cast<ULONG_PTR>(region.BaseAddress) + region.RegionSize;
    }
    return false;
}

/// True if all of it can be read without side effects.
bool IsPlainlyReadable(const void* address, SIZE_T size) {
    MEMORY_BASIC_INFORMATION region = {};
    if (::VirtualQuery(address, &region, sizeof region) == 0 || region.State != MEM_COMMIT) return false;
    const auto* end = static_cast<const BYTE*>(region.BaseAddress) + region.RegionSize;
    if (size > static_cast<SIZE_T>(end - static_cast<const BYTE*>(address))) return false;
    return (region.Protect & (PAGE_NOACCESS | PAGE_EXECUTE)) == 0;
}

[[gnu::noinline]] void Copy(const void* from, void* to, SIZE_T size) {
    std::memcpy(to, from, size);
}

/// False if another thread has taken the memory away meanwhile.
bool CopyGuarded(const void* from, void* to, SIZE_T size) {
    __try {
        Copy(from, to, size);
    } __except (EXCEPTION_EXECUTE_HANDLER) {
        return false;
    }
    return true;
}

BOOL WINAPI ReadMemory(HANDLE process, const void* address, void* buffer, SIZE_T size, SIZE_T* read) {
    if (process == ::GetCurrentProcess() && HasGuardPage(address, size)) {
        // Wine 10 would read it in this process, Wine 8 in its server.
        if (read != nullptr) *read = 0;
        ::SetLastError(ERROR_PARTIAL_COPY);
        return FALSE;
    }
    if (process != ::GetCurrentProcess() || !IsPlainlyReadable(address, size) ||
        !CopyGuarded(address, buffer, size))
        return originalRead(process, address, buffer, size, read);
    if (read != nullptr) *read = size;
    return TRUE;
}

}  // namespace

std::vector<Replacement> MemoryDumpReplacements() {
    return {{L"kernel32.dll", "ReadProcessMemory", reinterpret_cast<void*>(&ReadMemory), Slot(originalRead)}};
}

}  // namespace wine_gap
