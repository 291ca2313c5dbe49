#include "replacement.h"

#include <psapi.h>

#include <cstring>
#include <cwchar>
#include <string>

namespace wine_gap {
namespace {

/// A jump to an address that may be anywhere: jmp [rip+0] and the address behind it.
constexpr BYTE kJump[] = {0xFF, 0x25, 0, 0, 0, 0};
constexpr SIZE_T kJumpSize = sizeof kJump + sizeof(void*);
constexpr SIZE_T kSlotSize = 0x10000;

const IMAGE_NT_HEADERS64* HeadersOf(const BYTE* base) {
    return reinterpret_cast<const IMAGE_NT_HEADERS64*>(
        base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
}

/// Memory that an export table, whose entries are 32-bit offsets from its module, can point to.
BYTE* AllocateAbove(const BYTE* base) {
    const SIZE_T size = HeadersOf(base)->OptionalHeader.SizeOfImage;
    const ULONG_PTR first = (reinterpret_cast<ULONG_PTR>(base) + size + kSlotSize - 1) & ~(kSlotSize - 1);
    for (ULONG_PTR at = first; at - reinterpret_cast<ULONG_PTR>(base) < 0x7FFF0000; at += kSlotSize) {
        if (void* memory = ::VirtualAlloc(reinterpret_cast<void*>(at), 0x1000, MEM_COMMIT | MEM_RESERVE,
                                          PAGE_EXECUTE_READWRITE))
            return static_cast<BYTE*>(memory);
    }
    return nullptr;
}

/// The entry of a named function in a module's export table; null if it exports none.
DWORD* ExportEntry(BYTE* base, const char* function) {
    const auto& directory = HeadersOf(base)->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    if (directory.Size == 0) return nullptr;
    const auto* exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + directory.VirtualAddress);
    const auto* names = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
    const auto* ordinals = reinterpret_cast<const WORD*>(base + exports->AddressOfNameOrdinals);
    auto* functions = reinterpret_cast<DWORD*>(base + exports->AddressOfFunctions);
    for (DWORD i = 0; i < exports->NumberOfNames; ++i)
        if (std::strcmp(reinterpret_cast<const char*>(base + names[i]), function) == 0)
            return &functions[ordinals[i]];
    return nullptr;
}

DWORD WriteProtected(void* address, const void* data, SIZE_T size) {
    DWORD protection = 0;
    if (!::VirtualProtect(address, size, PAGE_READWRITE, &protection)) return ::GetLastError();
    std::memcpy(address, data, size);
    ::VirtualProtect(address, size, protection, &protection);
    return ERROR_SUCCESS;
}

DWORD PatchExport(HMODULE module, const char* function, void* replacement) {
    auto* base = reinterpret_cast<BYTE*>(module);
    DWORD* entry = ExportEntry(base, function);
    if (entry == nullptr) return ERROR_PROC_NOT_FOUND;
    BYTE* jump = AllocateAbove(base);
    if (jump == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    std::memcpy(jump, kJump, sizeof kJump);
    std::memcpy(jump + sizeof kJump, &replacement, sizeof replacement);
    static_assert(kJumpSize == 14);
    const DWORD offset = static_cast<DWORD>(jump - base);
    return WriteProtected(entry, &offset, sizeof offset);
}

/// Rebinds the imports of one module that were bound before the replacement. Import tables need not be
/// aligned.
__attribute__((no_sanitize("alignment"))) void RebindImports(HMODULE module, void* original,
                                                             void* replacement) {
    auto* base = reinterpret_cast<BYTE*>(module);
    const auto& directory = HeadersOf(base)->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (directory.Size == 0) return;
    for (auto* import = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
         import->Name != 0; ++import) {
        for (auto* slot = reinterpret_cast<void**>(base + import->FirstThunk); *slot != nullptr; ++slot)
            if (*slot == original) WriteProtected(slot, &replacement, sizeof replacement);
    }
}

std::wstring FolderOf(HMODULE module) {
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(module, path, MAX_PATH);
    std::wstring folder(path);
    return folder.substr(0, folder.rfind(L'\\') + 1);
}

/// The program and the libraries beside it, but for this one, which calls the originals.
void RebindOwnModules(void* original, void* replacement) {
    HMODULE self = nullptr;
    ::GetModuleHandleExW(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        reinterpret_cast<const wchar_t*>(&RebindOwnModules), &self);
    HMODULE modules[512] = {};
    DWORD size = 0;
    if (!::K32EnumProcessModules(::GetCurrentProcess(), modules, sizeof modules, &size)) return;
    const std::wstring folder = FolderOf(nullptr);
    for (DWORD i = 0; i < size / sizeof(HMODULE) && i < ARRAYSIZE(modules); ++i)
        if (modules[i] != self && ::_wcsicmp(FolderOf(modules[i]).c_str(), folder.c_str()) == 0)
            RebindImports(modules[i], original, replacement);
}

}  // namespace

DWORD Replace(const Replacement& replacement) {
    const HMODULE library = ::LoadLibraryW(replacement.library);
    if (library == nullptr) return ::GetLastError();
    void* original = reinterpret_cast<void*>(::GetProcAddress(library, replacement.function));
    if (original == nullptr) return ERROR_PROC_NOT_FOUND;
    if (replacement.original != nullptr) *replacement.original = original;
    const DWORD result = PatchExport(library, replacement.function, replacement.replacement);
    if (result == ERROR_SUCCESS) RebindOwnModules(original, replacement.replacement);
    return result;
}

}  // namespace wine_gap
