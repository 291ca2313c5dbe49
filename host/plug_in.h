#pragma once

#include <stdexcept>
#include <string>

#include "tessaplug.h"
#include "unique_handle.h"

namespace host {

/// A plug-in that cannot be loaded, or that let an exception out of an export, with the system's error code.
class PlugInError : public std::runtime_error {
  public:
    /// what() is narrowed; Text() is whole.
    PlugInError(const std::wstring& text, DWORD code);
    const std::wstring& Text() const { return text_; }
    DWORD Code() const { return code_; }

  private:
    std::wstring text_;
    DWORD code_;
};

/// A loaded plug-in, for which its own folder and System32 are searched for libraries; freed with the object.
/// The exports are called behind a guard: whatever a plug-in raises (a C++ exception of any compiler, an
/// access violation) comes out as a PlugInError.
class PlugIn {
  public:
    /// @param path full path
    /// @throws PlugInError that names what is missing
    explicit PlugIn(const std::wstring& path);

    DWORD Init(SERVICE_STATUS_HANDLE statusHandle, TESSAPLUG_STATUS_CALLBACK callback, void* hostContext);
    void Cleanup();
    DWORD ServiceCtrlHandler(DWORD control, DWORD eventType, void* eventData);

    /// Leaves the library loaded when the object goes: after an exception its threads may still be in it.
    void KeepLoaded() { module_.release(); }

  private:
    std::wstring path_;
    UniqueModule module_;
    decltype(&::tessaplug_init) init_ = nullptr;
    decltype(&::tessaplug_cleanup) cleanup_ = nullptr;
    decltype(&::tessaplug_service_ctrl_handler) serviceCtrlHandler_ = nullptr;
};

}  // namespace host
