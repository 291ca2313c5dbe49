#pragma once

#include <windows.h>

#include <mutex>
#include <string>

#include "log_file.h"

namespace host {

/// The host's log: UTF-8 lines with local time. A service has no console, so this is where people look.
/// Logging never fails its caller; without a file it does nothing.
class StatusLog {
  public:
    /// Opens or creates the file and the folders above it.
    /// @param path full path
    /// @throws operating_system::PathRefused with the reason in words
    void Open(const std::wstring& path, const LogLimits& limits);
    void Write(const std::wstring& line) noexcept;

  private:
    std::mutex lock_;
    LogFile file_;
};

/// The host's one log.
StatusLog& Log();

/// tessahost.log in the product's own folder below ProgramData.
/// @throws modul_exception::CWindowsApiExcp if the system does not know that
std::wstring DefaultLogPath();

/// Name of a service state, e.g. "START_PENDING".
const wchar_t* StateName(DWORD state);

}  // namespace host
