#pragma once

#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

/// What the station manager keeps, in the registry of the machine:
///
///     HKEY_LOCAL_MACHINE\SOFTWARE\VALDORN\TORUX\StationManager
///         Components   all records, one after the other
///         Diagnostics  the newest entries, the oldest of them first
///         Fault        what it was told to do wrong, for tests
///
/// Each is one value, so that a process that dies never leaves half of it. Writers of all processes take
/// turns.
namespace station_manager {

enum Status : ULONG { kRunning = 0x201, kStopped = 0x203, kRunningDisturbed = 0x205 };

/// One configured component, as the configuration data holds it.
struct Component {
    LONG virtualDevice;
    BYTE unused4[12];
    DWORD flags;
    BYTE unused20[8];
    ULONG status;
    BYTE unused32[260];
    char catalogEntry[64];  ///< not terminated if it fills all of it
    char name[64];
    BYTE unused420[1920];
};
static_assert(sizeof(Component) == 2340);
static_assert(offsetof(Component, flags) == 16 && offsetof(Component, status) == 28);
static_assert(offsetof(Component, catalogEntry) == 292 && offsetof(Component, name) == 356);

/// @param catalogEntry at most 64 characters
/// @param name at most 63 characters
Component MakeComponent(LONG virtualDevice, const std::string& catalogEntry, const std::string& name,
                        ULONG status = kRunning);

struct Diagnostic {
    SYSTEMTIME time;  ///< local
    BYTE area;
    WORD code;
    WORD value;
    DWORD detail;
};

/// Thread-safe. Operations return a system error code.
class ComponentStore {
  public:
    static constexpr std::size_t kMostDiagnostics = 64;

    std::vector<Component> Components() const;
    LSTATUS SetComponents(const std::vector<Component>& components) const;
    /// @return ERROR_ALREADY_EXISTS if the virtual device is taken
    LSTATUS Add(const Component& component) const;
    /// @return ERROR_NOT_FOUND if there is no such virtual device; so for SetStatus
    LSTATUS Remove(LONG virtualDevice) const;
    LSTATUS SetStatus(LONG virtualDevice, ULONG status) const;

    std::vector<Diagnostic> Diagnostics() const;
    LSTATUS AddDiagnostic(BYTE area, WORD code, WORD value, DWORD detail) const;
    LSTATUS ClearDiagnostics() const;

    /// Empty if there is none.
    std::wstring Fault() const;
    LSTATUS SetFault(const std::wstring& fault) const;

    /// Deletes everything.
    LSTATUS Wipe() const;
};

}  // namespace station_manager
