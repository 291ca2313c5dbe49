#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>
#include <vector>

/// The stand-in adapters from the user's side: install, plug, unplug, remove.
namespace adapter_control {

/// One adapter model that the stand-ins know.
struct Model {
    const wchar_t* name;           ///< as given on the command line
    const wchar_t* displayedName;  ///< as shown to people
    const wchar_t* hardwareId;
    const wchar_t* controlDevice;
    const wchar_t* serviceName;
    GUID interfaceClass;
};

/// All models.
const std::vector<Model>& Models();

/// A model by its name or displayed name, in any case; null if there is none.
const Model* FindModel(const std::wstring& name);

/// A failed request, with what was tried and the system's error code.
class AdapterError : public std::runtime_error {
  public:
    AdapterError(const std::string& what, DWORD code);
    DWORD Code() const { return code_; }

  private:
    DWORD code_;
};

/// Installs a model's device, unplugged; does nothing if it is installed.
/// @param infPath full path of adapters.inf, beside which the drivers are
/// @return true if it was installed now
bool Install(const Model& model, const std::wstring& infPath);

/// Removes a model's device, its service and driver file; does nothing if it is not installed.
/// @return true if it was removed now
bool Uninstall(const Model& model);

bool IsInstalled(const Model& model);

/// Plugs an adapter into a port (0 or 1), or out; what is so already stays so.
void Plug(const Model& model, DWORD port = 0);
void Unplug(const Model& model, DWORD port = 0);

/// Has the Fennlink U3's driver write a record under its source "fenlu3" into the System event log.
/// @param severity 1 information, 2 warning, 3 error
/// @param text what happened; at most 63 characters are used
void Report(const Model& model, DWORD severity, const std::wstring& text);

/// Device paths of the plugged-in adapters.
std::vector<std::wstring> DevicePaths(const Model& model);

}  // namespace adapter_control
