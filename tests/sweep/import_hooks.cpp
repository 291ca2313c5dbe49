#include "import_hooks.h"

#include <cstring>
#include <cwchar>
#include <winternl.h>

namespace sweep {
namespace {

// The notification of loaded libraries, documented for ntdll.dll but in no header.
constexpr ULONG kLoaded = 1;

struct LoadedLibrary {
    ULONG flags;
    const UNICODE_STRING* fullName;
    const UNICODE_STRING* baseName;
    void* base;
    ULONG size;
};

using Notification = void(CALLBACK*)(ULONG reason, const LoadedLibrary* library, void* context);
using RegisterFunction = LONG(NTAPI*)(ULONG flags, Notification notification, void* context, void** cookie);
using UnregisterFunction = LONG(NTAPI*)(void* cookie);

template <typename Function>
Function FromNtdll(const char* name) {
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), name)));
}

void Write(void** slot, void* value) {
    DWORD protection = 0;
    ::VirtualProtect(slot, sizeof value, PAGE_READWRITE, &protection);
    *slot = value;
    ::VirtualProtect(slot, sizeof value, protection, &protection);
}

void Bind(BYTE* base, const ChooseImport& choose) {
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const DWORD table = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
    for (const auto* import = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + table);
         import->Name != 0; ++import) {
        const auto* name = reinterpret_cast<const IMAGE_THUNK_DATA64*>(base + import->OriginalFirstThunk);
        auto* slot = reinterpret_cast<void**>(base + import->FirstThunk);
        for (; name->u1.AddressOfData != 0; ++name, ++slot) {
            const auto* byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData);
            void* chosen = choose(reinterpret_cast<const char*>(byName->Name), *slot);
            if (chosen != *slot) Write(slot, chosen);
        }
    }
}

struct Load {
    const std::wstring& path;
    const ChooseImport& choose;
};

void CALLBACK OnLoad(ULONG reason, const LoadedLibrary* library, void* context) {
    const auto& load = *static_cast<const Load*>(context);
    if (reason != kLoaded) return;
    const std::wstring name(library->fullName->Buffer, library->fullName->Length / sizeof(wchar_t));
    if (::_wcsicmp(name.c_str(), load.path.c_str()) == 0)
        Bind(static_cast<BYTE*>(library->base), load.choose);
}

}  // namespace

HMODULE LoadWithImports(const std::wstring& path, const ChooseImport& choose) {
    const auto registerNotification = FromNtdll<RegisterFunction>("LdrRegisterDllNotification");
    const auto unregisterNotification = FromNtdll<UnregisterFunction>("LdrUnregisterDllNotification");
    Load load = {path, choose};
    void* cookie = nullptr;
    // It comes when the imports are bound and before the library is told that it is attached.
    if (registerNotification(0, &OnLoad, &load, &cookie) != 0) return nullptr;
    const HMODULE module = ::LoadLibraryW(path.c_str());
    const DWORD error = ::GetLastError();
    unregisterNotification(cookie);
    ::SetLastError(error);
    return module;
}

}  // namespace sweep
