#pragma once

#include <windows.h>

#include <cstddef>
#include <dbghelp.h>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "build_version.h"
#include "exception_history.h"
#include "module_image.h"
#include "unique_handle.h"

namespace tessactl {

/// A memory dump, read without symbols. The file is trusted in nothing: whatever it says is checked against
/// its size.
class DumpFile {
  public:
    struct Module {
        std::wstring path;
        ULONG64 base = 0;
        ULONG size = 0;
        std::string version;  ///< as the dump's list of modules states it; empty if it does not
    };
    struct Exception {
        DWORD threadId = 0;
        DWORD code = 0;
        ULONG64 address = 0;
        std::vector<ULONG64> parameters;
    };

    /// @throws ToolError if the file cannot be opened, is no memory dump or is cut off
    explicit DumpFile(const std::wstring& path);
    /// A dump that is in memory, where it must stay as long as this object lives.
    /// @param name of the dump, for errors
    /// @throws ToolError if it is no memory dump or is cut off
    DumpFile(std::span<const std::byte> bytes, std::string name);

    const std::vector<Module>& Modules() const { return modules_; }
    const std::optional<Exception>& CapturedException() const { return exception_; }
    std::size_t ThreadCount() const { return threadCount_; }
    ULONG64 Size() const { return bytes_.size(); }
    /// Null if the address is in no module.
    const Module* ModuleAt(ULONG64 address) const;

    /// Memory of the process; empty if the dump does not have all of it.
    std::span<const std::byte> Memory(ULONG64 address, ULONG64 size) const;

    /// The exceptions in a module's history, oldest first; nothing if the module has no history.
    std::optional<std::vector<modul_exception::ExceptionRecord>> HistoryOf(const Module& module) const;
    /// What a module's memory tells of its build.
    /// @throws ToolError if it has no version resource, or the dump does not have that memory
    BuildVersion BuildOf(const Module& module) const;

  private:
    struct Range {
        ULONG64 address = 0;
        ULONG64 size = 0;
        ULONG64 offset = 0;  // in the file
    };

    void Map(const std::wstring& path);
    void ReadStreams();
    void ReadModules(std::size_t at);
    void ReadException(std::size_t at);
    void ReadMemoryRanges(std::size_t at);
    std::wstring StringAt(std::size_t at) const;
    MemoryReader Reader() const;
    template <typename T>
    T Get(std::size_t at) const;

    using UniqueView = UniqueHandle<void*, [](void* view) { ::UnmapViewOfFile(view); }>;

    std::string name_;  // for errors
    UniqueKernelHandle file_;
    UniqueKernelHandle mapping_;
    UniqueView view_;
    std::span<const std::byte> bytes_;
    std::vector<Module> modules_;
    std::optional<Exception> exception_;
    std::size_t threadCount_ = 0;
    std::vector<Range> ranges_;
};

/// Name of a processor exception; empty if it has none.
std::string ExceptionName(DWORD code);

}  // namespace tessactl
