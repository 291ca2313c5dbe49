#pragma once

#include <windows.h>

#include <exception>
#include <string>

namespace modul_exception {

/// A failed system call whose failure the caller does not handle itself. what() names the call, the error
/// code in decimal, the system's text for it and a hint, often the name of the object concerned.
class CWindowsApiExcp : public std::exception {
  public:
    /// Reads the last error as its first act: construct it immediately after the failing call.
    CWindowsApiExcp(const char* apiName, const char* hint);
    CWindowsApiExcp(const std::string& apiName, const std::string& hint);

    /// For calls that return their error code; the last error is not read.
    /// @param returnValue system error code or HRESULT
    CWindowsApiExcp(const char* apiName, DWORD returnValue, const char* hint);
    CWindowsApiExcp(const std::string& apiName, DWORD returnValue, const std::string& hint);

    const char* what() const noexcept override { return message_.c_str(); }

  private:
    std::string message_;
};

/// The system's text for an error code without its line end, or a text that says why there is none.
std::string GetSystemErrorText(DWORD code);

}  // namespace modul_exception
