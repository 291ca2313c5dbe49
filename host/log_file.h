#pragma once

#include <windows.h>

#include <string>

#include "unique_handle.h"

namespace host {

/// How large a log file grows before a new one is begun, and how many old ones stay.
struct LogLimits {
    ULONGLONG size = 2048ULL * 1024;  ///< bytes
    DWORD keep = 2;                   ///< old files, named FILE.1 (the newest), FILE.2 and so on
};

/// A file that is appended to, and put aside when it is full. It is never opened through a link, and its
/// folder has to be one that only administrators can change (see protected_folder.h).
class LogFile {
  public:
    /// Opens or creates the file and the folders above it.
    /// @param path full path
    /// @throws operating_system::PathRefused with the reason in words
    void Open(const std::wstring& path, const LogLimits& limits);
    /// Appends a text whole. A file that cannot be written, or put aside because somebody else has it open,
    /// is tried again later: nothing is told.
    void Append(const std::string& text);

  private:
    void OpenFile();
    /// Renames the files, each to the next number; the last one is overwritten.
    /// @return false if the full file is still in its place
    bool PutAside() const;
    void Rotate();

    std::wstring path_;
    LogLimits limits_;
    UniqueKernelHandle file_;
    ULONGLONG size_ = 0;
    ULONGLONG rotateAt_ = 0;
};

}  // namespace host
