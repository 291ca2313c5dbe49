#pragma once

#include <string>

#include "build_version.h"

namespace tessactl {

/// The build that a program or library tells of in its file.
/// @throws ToolError without the path: the file cannot be opened, or what ReadVersionResource throws
BuildVersion ReadFileVersion(const std::wstring& path);

}  // namespace tessactl
