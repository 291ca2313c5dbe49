#pragma once

#include <string>

namespace tessactl {

/// Writes a file that others may read at any moment: they see the old content or the new one, whole. It is
/// written beside the file, with ".new" behind the name, and then takes its place. A reader who keeps the
/// file from being replaced is waited for, two seconds at most.
/// @throws ToolError with the reason; the file is as it was then
void ReplaceFileContent(const std::wstring& file, const std::string& content);

}  // namespace tessactl
