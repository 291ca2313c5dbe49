#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// What the running process holds, for tests that nothing is left behind.
namespace test_support {

/// Open handles of this process.
std::size_t HandleCount();

/// Running threads of this process.
std::size_t ThreadCount();

/// File names of the loaded modules, lower case, sorted.
std::vector<std::wstring> LoadedModules();

}  // namespace test_support
