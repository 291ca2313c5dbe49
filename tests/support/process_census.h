#pragma once

#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

/// What the running process holds, for tests that nothing is left behind.
namespace test_support {

struct OpenHandle {
    HANDLE value;
    DWORD access;  ///< the rights that were granted
    bool inheritable;
};

/// The open handles of this process, in the order of their values.
std::vector<OpenHandle> OpenHandles();

/// Number of open handles of this process.
std::size_t HandleCount();

/// Running threads of this process.
std::size_t ThreadCount();

/// File names of the loaded modules, lower case, sorted.
std::vector<std::wstring> LoadedModules();

/// Bytes of committed memory that a process shares with nobody: heaps, stacks and the like, not the mapped
/// images.
/// @param process a handle with PROCESS_QUERY_INFORMATION
std::size_t CommittedMemory(HANDLE process = ::GetCurrentProcess());

}  // namespace test_support
