#pragma once

#include <string>

#include "build_version.h"

namespace tessactl {

/// The build that the trace formats of a folder are of, from the file that stands beside them.
/// @throws ToolError if the file is not there or not understood
BuildVersion ReadTmfBuild(const std::wstring& folder);

}  // namespace tessactl
