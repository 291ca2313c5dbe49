#pragma once

#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

/// What a process holds, the running one by default, for tests that nothing is left behind.
namespace test_support {

struct OpenHandle {
    HANDLE value;
    DWORD access;  ///< the rights that were granted
    bool inheritable;
};

/// The open handles, in the order of their values.
std::vector<OpenHandle> OpenHandles(DWORD processId = ::GetCurrentProcessId());

/// Number of open handles.
std::size_t HandleCount(DWORD processId = ::GetCurrentProcessId());

/// Running threads.
std::size_t ThreadCount(DWORD processId = ::GetCurrentProcessId());

/// Committed memory that belongs to the process alone, in bytes: heaps, stacks and the like, not the mapped
/// images; 0 if it cannot be asked.
std::size_t CommittedMemory(DWORD processId = ::GetCurrentProcessId());

/// File names of the loaded modules, lower case, sorted.
std::vector<std::wstring> LoadedModules();

}  // namespace test_support
