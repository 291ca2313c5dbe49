#pragma once

#include <stdexcept>
#include <string>

#include "tessaplug.h"
#include "unique_handle.h"

namespace host {

/// A plug-in that cannot be loaded, with the system's error code.
class PlugInError : public std::runtime_error {
  public:
    PlugInError(const std::string& what, DWORD code) : std::runtime_error(what), code_(code) {}
    DWORD Code() const { return code_; }

  private:
    DWORD code_;
};

/// Limits where libraries are searched, for the rest of the process, to System32; the plug-in is loaded with
/// its own folder added. The current folder and PATH are open to anybody, and a service runs with all rights:
/// a library planted there must not be found. Called before anything is loaded.
void LimitLibrarySearch();

/// A loaded plug-in; freed with the object.
class PlugIn {
  public:
    /// @param path full path
    /// @throws PlugInError that names what is missing
    explicit PlugIn(const std::wstring& path);

    decltype(&::tessaplug_init) init = nullptr;
    decltype(&::tessaplug_cleanup) cleanup = nullptr;
    decltype(&::tessaplug_service_ctrl_handler) serviceCtrlHandler = nullptr;

  private:
    UniqueModule module_;
};

}  // namespace host
