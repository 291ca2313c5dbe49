#pragma once

#include <windows.h>

#include <mutex>
#include <string>

#include "unique_handle.h"

namespace host {

/// The host's log file: UTF-8 lines with local time. A service has no console, so this is where people look.
/// Logging never fails its caller; without a file it does nothing.
class StatusLog {
  public:
    /// Opens or creates the file and the folders above it.
    /// @param path full path
    /// @return false, with the last error set, if it cannot be written
    bool Open(const std::wstring& path);
    void Write(const std::wstring& line);

  private:
    std::mutex lock_;
    UniqueKernelHandle file_;
};

/// The host's one log.
StatusLog& Log();

/// %ProgramData%\Tessaplug\tessahost.log
std::wstring DefaultLogPath();

/// Name of a service state, e.g. "START_PENDING".
const wchar_t* StateName(DWORD state);

}  // namespace host
