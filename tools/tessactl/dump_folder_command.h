#pragma once

#include <string>

#include "commands.h"
#include "dump_folder.h"

namespace tessactl {

/// Lists the plug-in's dumps of a folder.
ExitCode ListDumps(const std::wstring& folder, bool json);

/// Removes those that a rule lets go, or tells what it would remove. One that cannot be removed is told, and
/// does not keep the others.
ExitCode PruneDumps(const std::wstring& folder, const PruneRule& rule, bool isTry);

}  // namespace tessactl
