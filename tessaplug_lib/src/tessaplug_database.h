#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

namespace tessaplug {

/// The settings of the service as a whole.
class ServiceDbIf {
  public:
    static std::shared_ptr<ServiceDbIf> create_database();

    virtual ~ServiceDbIf() = default;
    /// Name of the single-instance lock, without the "Global\" prefix.
    virtual const std::wstring& GlobalInstanceLockName() const = 0;
    /// The API version that a host must pass.
    virtual unsigned int ApiVersion() const = 0;
};

class ServiceDb : public ServiceDbIf {
  public:
    ServiceDb();
    const std::wstring& GlobalInstanceLockName() const override { return globalInstanceLockName_; }
    unsigned int ApiVersion() const override { return apiVersion_; }

  private:
    std::wstring globalInstanceLockName_;
    unsigned int apiVersion_;
};

class CommunicationProcessorDb;

/// One supported device model; read-only.
class CommunicationProcessorDbIf {
  public:
    /// The supported models, in the order in which they are registered.
    static std::vector<std::shared_ptr<CommunicationProcessorDb>> create_database();

    virtual ~CommunicationProcessorDbIf() = default;
    /// Device interface class under which the model's driver exposes its devices.
    virtual const GUID& DeviceInterfaceGuid() const = 0;
    /// Name shown to people, 1 to 127 characters.
    virtual const std::wstring& DisplayedDeviceName() const = 0;
    /// Names of the model's log devices (access points), 1 to 127 characters each.
    virtual const std::vector<std::wstring>& SupportedLogDevices() const = 0;
    /// The model's name in the station manager's catalog, at most 63 characters; empty for a model that the
    /// station manager does not list.
    virtual const std::wstring& StationManagerCatalogName() const = 0;
};

/// The constructors check the limits of the names; a violation is asserted and the record is still built.
class CommunicationProcessorDb : public CommunicationProcessorDbIf {
  public:
    /// A model that the station manager does not list.
    CommunicationProcessorDb(const std::vector<std::wstring>& Supported_Log_Devices,
                             const GUID& Device_Interface_Guid, const std::wstring& Displayed_Device_Name);
    CommunicationProcessorDb(const std::vector<std::wstring>& Supported_Log_Devices,
                             const GUID& Device_Interface_Guid, const std::wstring& Displayed_Device_Name,
                             const std::wstring& StatMgr_Catalog_Name);

    const GUID& DeviceInterfaceGuid() const override { return deviceInterfaceGuid_; }
    const std::wstring& DisplayedDeviceName() const override { return displayedDeviceName_; }
    const std::vector<std::wstring>& SupportedLogDevices() const override { return supportedLogDevices_; }
    const std::wstring& StationManagerCatalogName() const override { return stationManagerCatalogName_; }

  private:
    std::vector<std::wstring> supportedLogDevices_;
    GUID deviceInterfaceGuid_;
    std::wstring displayedDeviceName_;
    std::wstring stationManagerCatalogName_;
};

/// {AD4DCAAF-A25B-41BB-8036-0460A989AFE1}: the NX4120's device interface class, whose requests have a queue
/// of their own.
inline constexpr GUID kNx4120InterfaceGuid = {
    0xAD4DCAAF, 0xA25B, 0x41BB, {0x80, 0x36, 0x04, 0x60, 0xA9, 0x89, 0xAF, 0xE1}};

/// {042C8EDC-C410-4FDB-A906-D3BDBD84FDF4}: the Fennlink U3's device interface class.
inline constexpr GUID kFennlinkU3InterfaceGuid = {
    0x042C8EDC, 0xC410, 0x4FDB, {0xA9, 0x06, 0xD3, 0xBD, 0xBD, 0x84, 0xFD, 0xF4}};

}  // namespace tessaplug
