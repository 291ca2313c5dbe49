#pragma once

#include <windows.h>

#include <string>
#include <winver.h>

#include "build_version.h"
#include "module_image.h"

namespace tessactl {

/// What a module's version resource tells, found and read in the module's memory: of a running process, of a
/// dump, of a file. The functions of the system know files only.
/// @throws ToolError if it is no 64-bit image, has no version resource, or a damaged one
BuildVersion ReadVersionResource(const ModuleImage& image);

/// "21.0.0.0".
std::string VersionNumber(const VS_FIXEDFILEINFO& fixed);

}  // namespace tessactl
