#pragma once

#include <windows.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

/// The log devices of the machine, kept in the registry:
///
///     HKEY_LOCAL_MACHINE\SOFTWARE\VALDORN\TORUX
///         LogDevices\NX4120.XLI.1     one key for each log device, one text value for each parameter
///         DefaultLogDevices           Entries (texts): the template; NdiFlags (texts): what may be set;
///                                     one text value for each parameter that has a default
///
/// A log device exists once its key holds the value "(complete)", which is written last and deleted first:
/// what an interrupted process leaves behind is no log device. Writers of all processes take turns by a named
/// mutex.
///
/// A parameter's value "@NAME" stands for the value of parameter NAME, an empty value for its default.
namespace configuration_library {

enum Code : DWORD {
    kOk = 0,
    kAccessDenied = 5,
    kInvalidParameters = 87,
    kBufferTooShort = 234,
    kNoMoreItems = 259,
    kLogDeviceNotExists = 8012,
    kParameterNotExists = 8040,
    kParameterLinkNotFound = 8042,
    kParameterDescNotFound = 8044,
    kParameterDefaultNotFound = 8046,
    kDefinitionNotExists = 8503,
};

inline constexpr std::size_t kMaxLogDeviceName = 128;
inline constexpr std::size_t kMaxParameterName = 256;

using Parameters = std::map<std::wstring, std::wstring>;

/// Thread-safe; no operation throws anything but std::bad_alloc.
class LogDeviceStore {
  public:
    /// @param root key below HKEY_LOCAL_MACHINE; the environment variable Q5ORVIX_ROOT names another one
    explicit LogDeviceStore(std::wstring root = DefaultRoot());
    static std::wstring DefaultRoot();

    /// Makes the store with an empty template; does nothing if it is there.
    Code Initialise() const;
    /// Deletes the store with everything in it.
    Code Wipe() const;

    Code Exists(const std::wstring& logDevice) const;
    Code Create(const std::wstring& logDevice, const Parameters& parameters) const;
    Code Delete(const std::wstring& logDevice) const;
    std::vector<std::wstring> LogDevices() const;

    Code GetValue(const std::wstring& logDevice, const std::wstring& parameter, std::wstring& value) const;
    /// Sets any parameter of an existing log device.
    Code SetValue(const std::wstring& logDevice, const std::wstring& parameter,
                  const std::wstring& value) const;
    /// Sets an NDI flag: one that the store's definition lists.
    Code SetNdiValue(const std::wstring& logDevice, const std::wstring& parameter,
                     const std::wstring& value) const;

    std::vector<std::wstring> TemplateEntries() const;
    /// When the template, or what stands beside it, was written last, as FILETIME; 0 if there is none.
    ULONGLONG TemplateWritten() const;
    Code SetTemplateEntries(const std::vector<std::wstring>& entries) const;
    /// Changes the entries in one step: nobody else writes between reading and writing them.
    Code EditTemplateEntries(const std::function<void(std::vector<std::wstring>&)>& edit) const;

    /// Path of the log devices' key below HKEY_LOCAL_MACHINE.
    std::wstring LogDevicesKey() const { return root_ + L"\\LogDevices"; }

  private:
    std::wstring DefinitionKey() const { return root_ + L"\\DefaultLogDevices"; }
    Code Check(const std::wstring& logDevice) const;

    std::wstring root_;
};

}  // namespace configuration_library
