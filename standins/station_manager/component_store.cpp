#include "component_store.h"

#include <algorithm>
#include <cstring>

#include "machine_lock.h"

namespace station_manager {
namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\VALDORN\\TORUX\\StationManager";
constexpr wchar_t kComponents[] = L"Components";
constexpr wchar_t kDiagnostics[] = L"Diagnostics";
constexpr wchar_t kFault[] = L"Fault";

class WriterLock : MachineLock {
  public:
    WriterLock() : MachineLock(L"Global\\VALDORN_STATION_MANAGER_STORE") {}
};

/// The whole entries of a value; none if it is not there.
template <typename Entry>
std::vector<Entry> Read(const wchar_t* value) {
    std::vector<Entry> entries(8);
    for (;;) {
        DWORD size = static_cast<DWORD>(entries.size() * sizeof(Entry));
        const LSTATUS result = ::RegGetValueW(HKEY_LOCAL_MACHINE, kKey, value, RRF_RT_REG_BINARY, nullptr,
                                              entries.data(), &size);
        if (result == ERROR_MORE_DATA) {
            entries.resize(entries.size() * 2);
            continue;
        }
        entries.resize(result == ERROR_SUCCESS ? size / sizeof(Entry) : 0);
        return entries;
    }
}

template <typename Entry>
LSTATUS Write(const wchar_t* value, const std::vector<Entry>& entries) {
    return ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, value, REG_BINARY, entries.data(),
                             static_cast<DWORD>(entries.size() * sizeof(Entry)));
}

}  // namespace

Component MakeComponent(LONG virtualDevice, const std::string& catalogEntry, const std::string& name,
                        ULONG status) {
    Component component = {};
    component.virtualDevice = virtualDevice;
    component.status = status;
    std::memcpy(component.catalogEntry, catalogEntry.data(),
                std::min(catalogEntry.length(), sizeof component.catalogEntry));
    std::memcpy(component.name, name.data(), std::min(name.length(), sizeof component.name - 1));
    return component;
}

std::vector<Component> ComponentStore::Components() const {
    return Read<Component>(kComponents);
}

LSTATUS ComponentStore::SetComponents(const std::vector<Component>& components) const {
    const WriterLock lock;
    return Write(kComponents, components);
}

LSTATUS ComponentStore::Add(const Component& component) const {
    const WriterLock lock;
    std::vector<Component> components = Components();
    if (std::ranges::find(components, component.virtualDevice, &Component::virtualDevice) != components.end())
        return ERROR_ALREADY_EXISTS;
    components.push_back(component);
    return Write(kComponents, components);
}

LSTATUS ComponentStore::Remove(LONG virtualDevice) const {
    const WriterLock lock;
    std::vector<Component> components = Components();
    if (std::erase_if(components, [virtualDevice](const Component& component) {
            return component.virtualDevice == virtualDevice;
        }) == 0)
        return ERROR_NOT_FOUND;
    return Write(kComponents, components);
}

LSTATUS ComponentStore::SetStatus(LONG virtualDevice, ULONG status) const {
    const WriterLock lock;
    std::vector<Component> components = Components();
    const auto found = std::ranges::find(components, virtualDevice, &Component::virtualDevice);
    if (found == components.end()) return ERROR_NOT_FOUND;
    found->status = status;
    return Write(kComponents, components);
}

std::vector<Diagnostic> ComponentStore::Diagnostics() const {
    return Read<Diagnostic>(kDiagnostics);
}

LSTATUS ComponentStore::AddDiagnostic(BYTE area, WORD code, WORD value, DWORD detail) const {
    const WriterLock lock;
    std::vector<Diagnostic> entries = Diagnostics();
    if (entries.size() >= kMostDiagnostics) entries.erase(entries.begin());
    Diagnostic entry = {{}, area, code, value, detail};
    ::GetLocalTime(&entry.time);
    entries.push_back(entry);
    return Write(kDiagnostics, entries);
}

LSTATUS ComponentStore::ClearDiagnostics() const {
    const WriterLock lock;
    return Write(kDiagnostics, std::vector<Diagnostic>());
}

std::wstring ComponentStore::Fault() const {
    wchar_t fault[64] = {};
    DWORD size = sizeof fault;
    return ::RegGetValueW(HKEY_LOCAL_MACHINE, kKey, kFault, RRF_RT_REG_SZ, nullptr, fault, &size) ==
                   ERROR_SUCCESS
               ? fault
               : L"";
}

LSTATUS ComponentStore::SetFault(const std::wstring& fault) const {
    return ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, kFault, REG_SZ, fault.c_str(),
                             static_cast<DWORD>((fault.length() + 1) * sizeof(wchar_t)));
}

LSTATUS ComponentStore::Wipe() const {
    const WriterLock lock;
    const LSTATUS result = ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kKey);
    return result == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : result;
}

}  // namespace station_manager
