#include "process_census.h"

#include <windows.h>
#include <tlhelp32.h>

#include <algorithm>
#include <cwctype>
#include <memory>
#include <span>
#include <winternl.h>

namespace test_support {
namespace {

// Of the documented-by-use class SystemExtendedHandleInformation; GetProcessHandleCount is always 0 under
// Wine.
constexpr int kSystemExtendedHandleInformation = 64;

struct HandleEntry {
    void* object;
    ULONG_PTR processId;
    ULONG_PTR handle;
    ULONG access;
    USHORT creatorBackTraceIndex;
    USHORT objectType;
    ULONG attributes;
    ULONG reserved;
};

struct HandleTable {
    ULONG_PTR count;
    ULONG_PTR reserved;
    HandleEntry entries[1];
};

using UniqueSnapshot = std::unique_ptr<void, decltype(&::CloseHandle)>;

}  // namespace

std::vector<OpenHandle> OpenHandles(DWORD processId) {
    std::vector<ULONG_PTR> buffer(0x10000);
    const auto informationClass = static_cast<SYSTEM_INFORMATION_CLASS>(kSystemExtendedHandleInformation);
    ULONG needed = 0;
    while (::NtQuerySystemInformation(informationClass, buffer.data(),
                                      static_cast<ULONG>(buffer.size() * sizeof(ULONG_PTR)), &needed) < 0) {
        buffer.resize(buffer.size() * 2);
    }
    const auto* table = reinterpret_cast<const HandleTable*>(buffer.data());
    std::vector<OpenHandle> handles;
    for (const HandleEntry& entry : std::span(table->entries, table->count)) {
        if (entry.processId != processId) continue;
        constexpr ULONG kInherit = 2;  // OBJ_INHERIT
        handles.push_back(
            {reinterpret_cast<HANDLE>(entry.handle), entry.access, (entry.attributes & kInherit) != 0});
    }
    std::ranges::sort(handles, {}, [](const OpenHandle& handle) { return handle.value; });
    return handles;
}

std::size_t HandleCount(DWORD processId) {
    return OpenHandles(processId).size();
}

std::size_t ThreadCount(DWORD processId) {
    const UniqueSnapshot snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0), &::CloseHandle);
    std::size_t count = 0;
    THREADENTRY32 thread = {};
    thread.dwSize = sizeof thread;
    for (BOOL more = ::Thread32First(snapshot.get(), &thread); more;
         more = ::Thread32Next(snapshot.get(), &thread)) {
        if (thread.th32OwnerProcessID == processId) ++count;
    }
    return count;
}

std::size_t CommittedMemory(DWORD processId) {
    const UniqueSnapshot process(::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, processId),
                                 &::CloseHandle);
    // By the address space's own account: Wine reports nothing in the process counters.
    std::size_t bytes = 0;
    MEMORY_BASIC_INFORMATION region = {};
    ULONG_PTR address = 0;
    while (::VirtualQueryEx(process.get(), reinterpret_cast<const void*>(address), &region, sizeof region) !=
           0) {
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) bytes += region.RegionSize;
        address = reinterpret_cast<ULONG_PTR>(region.BaseAddress) + region.RegionSize;
    }
    return bytes;
}

std::vector<std::wstring> LoadedModules() {
    const UniqueSnapshot snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, 0), &::CloseHandle);
    std::vector<std::wstring> names;
    MODULEENTRY32W module = {};
    module.dwSize = sizeof module;
    for (BOOL more = ::Module32FirstW(snapshot.get(), &module); more;
         more = ::Module32NextW(snapshot.get(), &module)) {
        std::wstring name = module.szModule;
        std::ranges::transform(name, name.begin(), [](wchar_t c) { return std::towlower(c); });
        names.push_back(name);
    }
    std::ranges::sort(names);
    return names;
}

}  // namespace test_support
