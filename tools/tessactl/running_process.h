#pragma once

#include <windows.h>

#include <cstddef>
#include <optional>
#include <string>

#include "unique_handle.h"

namespace tessactl {

/// In any case, as Windows compares them.
bool IsSameFileName(const std::wstring& a, const std::wstring& b);

/// A process that is looked into, with rights to read only.
class RunningProcess {
  public:
    struct Module {
        std::wstring path;
        ULONG64 base = 0;
        ULONG size = 0;
    };

    /// @throws NoRights if the caller may not look into it
    /// @throws ToolError if it cannot be opened for another reason
    explicit RunningProcess(DWORD id);

    /// The program itself; nothing if it has ended.
    /// @throws ToolError if the process does not tell its modules
    std::optional<Module> Program() const;
    /// A loaded module; nothing if it is not loaded.
    /// @param fileName without a folder, in any case
    /// @throws ToolError if the process does not tell its modules
    std::optional<Module> FindModule(const std::wstring& fileName) const;
    /// @return false if not all of the memory can be read
    bool Read(ULONG64 address, void* to, std::size_t size) const;

  private:
    DWORD id_;
    UniqueKernelHandle process_;
};

}  // namespace tessactl
