#pragma once

#include <windows.h>

#include <functional>
#include <string>

namespace sweep {

/// Decides what an import of a library is bound to.
/// @param function its name
/// @param original what the loader bound it to
/// @return `original`, or what takes its place
using ChooseImport = std::function<void*(const char* function, void* original)>;

/// Loads a library with imports of the test's choice. They are in place before the library's first
/// instruction runs.
/// @param path full path
/// @return null if it cannot be loaded, with the last error
HMODULE LoadWithImports(const std::wstring& path, const ChooseImport& choose);

}  // namespace sweep
