#pragma once

#include <windows.h>

#include <functional>
#include <memory>
#include <string>

#include "non_recursive_lock.h"
#include "win_api.h"

namespace operating_system {

/// Writes the memory of this process into a dump file in the temporary folder. dbghelp.dll is loaded only as
/// long as that takes.
class MemoryDump {
  public:
    using DebugHelperFactory = std::function<std::unique_ptr<windows_api::CDbgHlp>()>;

    explicit MemoryDump(
        std::shared_ptr<windows_api::CKernel32> kernel32 = std::make_shared<windows_api::CKernel32>(),
        DebugHelperFactory loadDebugHelper = [] { return std::make_unique<windows_api::CDbgHlp>(); });
    virtual ~MemoryDump();
    MemoryDump(const MemoryDump&) = delete;
    MemoryDump& operator=(const MemoryDump&) = delete;

    /// Writes a full dump that shows the calling thread where it is. Dumps of several threads are written one
    /// after the other; a call from within a dump on the same thread returns false at once. Never throws.
    /// @param name stem of the file's name, e.g. "tessaplug.dll"
    /// @return true if it was written
    virtual bool Create(const std::wstring& name);

    /// Path of the last dump, also of one that could not be written; empty before the first.
    virtual std::wstring GetMemoryDumpAbsFileName() const { return dumpFileName_; }

  private:
    bool LoadDebugHelperDll();
    void UnLoadDebugHelperDll();
    std::wstring CreateAbsolutDumpFileName(const std::wstring& name) const;
    std::wstring GetSystemTempPath() const;
    bool IsDumpDirWriteable(const std::wstring& folder) const;
    static std::wstring CreateDumpFileName(const std::wstring& name);
    static int CaptureContext(MemoryDump* dump);
    int SaveExceptionToDump(EXCEPTION_POINTERS* exceptionInformation);
    bool WriteDumpToDisk(EXCEPTION_POINTERS* exceptionInformation, HANDLE file);

    // Set, the dump is written without the fault that captures the context. Nothing sets it.
    bool hasExternalContext_ = false;
    std::unique_ptr<windows_api::CDbgHlp> dbgHelp_;
    std::wstring dumpFileName_;
    bool result_ = false;
    NonRecursiveLock lock_;
    std::shared_ptr<windows_api::CKernel32> kernel32_;
    DebugHelperFactory loadDebugHelper_;
};

}  // namespace operating_system
