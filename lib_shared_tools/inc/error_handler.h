#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "memory_dump.h"
#include "non_recursive_lock.h"
#include "ui_message_box.h"

namespace trace {

/// Where every failed assertion of a module ends: the person at the screen is told and decides whether a
/// debugger is called, a memory dump is written or the program goes on.
class ErrorHandler {
  public:
    /// @param moduleName file name of the module, also the stem of its dumps
    /// @param buildDate when it was built, shown to the user
    /// @param version kept for whoever reads a dump
    ErrorHandler(std::wstring moduleName, std::wstring buildDate, std::wstring version,
                 std::shared_ptr<operating_system::MemoryDump> memoryDump =
                     std::make_shared<operating_system::MemoryDump>(),
                 std::shared_ptr<operating_system::SystemMessageBox> messageBox =
                     std::make_shared<operating_system::SystemMessageBox>());
    virtual ~ErrorHandler();
    ErrorHandler(const ErrorHandler&) = delete;
    ErrorHandler& operator=(const ErrorHandler&) = delete;

    /// Shows the box and does what the user answers; returns if the program is to go on. Errors of several
    /// threads are shown one after the other; one that is raised on the thread whose box is open returns at
    /// once. Never throws; a structured exception in the box or in the dump ends the handling of this error.
    /// @param expression what failed; a null one is shown as "(null)"
    /// @param sourceFile built-in source path; a null one is shown as "(null)"
    virtual void FatalError(const wchar_t* expression, const wchar_t* sourceFile, unsigned int line);

  private:
    std::wstring CreateMessageBody(const wchar_t* expression, const wchar_t* sourceFile,
                                   unsigned int line) const;
    std::wstring CreateCaption() const;
    DWORD ShowBox(const wchar_t* caption, const std::wstring& body, DWORD style);
    void ProcessUserFeedback(DWORD answer);
    void OnDebug();
    void OnDump();

    std::wstring moduleName_;
    std::wstring buildDate_;
    std::wstring version_;
    NonRecursiveLock lock_;
    std::shared_ptr<operating_system::MemoryDump> memoryDump_;
    std::shared_ptr<operating_system::SystemMessageBox> messageBox_;
};

}  // namespace trace
