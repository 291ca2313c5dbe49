#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace tessactl {

/// A memory dump of the plug-in, by its name: what it holds was not looked at.
struct StoredDump {
    std::wstring folder;
    std::wstring name;
    ULONG64 bytes = 0;
    ULONG64 writtenAt = 0;  ///< file time: 100 ns units since 1601, UTC

    std::wstring Path() const { return folder + L"\\" + name; }
};

/// Which dumps are too many. At least one of them has to be given; with both, what goes has to be neither
/// among the newest nor young.
struct PruneRule {
    std::optional<ULONG> keep;       ///< so many of the newest stay
    std::optional<ULONG> olderDays;  ///< what is younger stays
};

/// The temporary folder that the plug-in writes its dumps to in a service of the account LocalSystem: the
/// machine's, not that of the user who asks.
std::wstring ServiceTemporaryFolder();

/// Whether a file is named as the plug-in names its dumps: tessaplug.dll_YYYYMMDD-HHMMSS.dmp.
bool IsDumpName(const std::wstring& name);

/// The plug-in's dumps in a folder, newest first.
/// @throws ToolError if it cannot be read
/// @throws NoRights if the caller may not read it
std::vector<StoredDump> DumpsIn(const std::wstring& folder);

/// Those that a rule lets go.
/// @param newestFirst as DumpsIn returns them
/// @param now a file time
std::vector<StoredDump> DumpsToPrune(const std::vector<StoredDump>& newestFirst, const PruneRule& rule,
                                     ULONG64 now);

/// Removes a file that holds a memory dump, never through a link.
/// @param isTry looks at it in the same way, and leaves it there
/// @throws ToolError if it is something else or cannot be removed
void RemoveDump(const StoredDump& dump, bool isTry);

/// "3 days", "5 hours", "1 minute".
std::string AgeInWords(ULONG64 since, ULONG64 now);

}  // namespace tessactl
