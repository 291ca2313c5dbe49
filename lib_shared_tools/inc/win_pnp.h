#pragma once

#include <windows.h>
#include <setupapi.h>

#include <memory>
#include <string>
#include <vector>

#include "win_api.h"
#include "win_setupapi.h"

/// Device interfaces: which are there, and what they are called. Nothing here is kept between queries.
namespace operating_system::plug_and_play {

/// One device information set. Used by one thread.
class DeviceInfoHandle {
  public:
    DeviceInfoHandle(std::shared_ptr<windows_api::SetupApi> setupApi,
                     std::shared_ptr<windows_api::CKernel32> kernel32);
    virtual ~DeviceInfoHandle();
    DeviceInfoHandle(const DeviceInfoHandle&) = delete;
    DeviceInfoHandle& operator=(const DeviceInfoHandle&) = delete;

    /// Opens the set of one interface class.
    /// @param flags DIGCF_... of SetupDiGetClassDevsW
    /// @return true
    /// @throws std::runtime_error if a set is open
    /// @throws modul_exception::CWindowsApiExcp if the system refuses
    virtual bool Open(const GUID& guid, DWORD flags);
    /// Closes the set; harmless when none is open. Never throws.
    virtual void Close();
    /// @throws std::runtime_error if no set is open
    virtual HDEVINFO Get_DeviceInfoSet();

  private:
    HDEVINFO devInfo_ = nullptr;
    bool opened_ = false;
    std::shared_ptr<windows_api::SetupApi> setupApi_;
    std::shared_ptr<windows_api::CKernel32> kernel32_;
};

/// The device interfaces of one class. Used by one thread.
///
/// Every query throws std::runtime_error if no GUID is registered and modul_exception::CWindowsApiExcp if the
/// system fails. After any other exception the object is unusable: the set stays open, and the next query is
/// refused with "Invalid sequence! DeviceInterfaceGuid already opened!".
class DeviceInterface {
  public:
    /// @throws modul_exception::CWindowsApiExcp if setupapi.dll cannot be bound
    explicit DeviceInterface(
        std::shared_ptr<windows_api::SetupApi> setupApi = std::make_shared<windows_api::SetupApi>(),
        std::shared_ptr<windows_api::CKernel32> kernel32 = std::make_shared<windows_api::CKernel32>());
    virtual ~DeviceInterface() = default;
    DeviceInterface(const DeviceInterface&) = delete;
    DeviceInterface& operator=(const DeviceInterface&) = delete;

    /// Binds the object to one interface class for its whole life.
    /// @throws std::runtime_error if the GUID is all zero or one is registered already
    virtual void Register(const GUID& guid);
    /// True if at least one interface of the class is active.
    virtual bool IsPresent();
    /// Device paths of all active interfaces, in the order of their enumeration.
    /// @param pathList cleared first
    virtual void Get_DeviceInterfaceDetails(std::vector<std::wstring>& pathList);
    /// Read-only key of the first active interface, to be closed by the caller; INVALID_HANDLE_VALUE if there
    /// is none or it cannot be opened.
    virtual HKEY OpenDeviceInterfaceRegKey();

  private:
    using RawDetailList = std::vector<std::vector<BYTE>>;

    static void CheckObjectState(const GUID& guid);
    bool EnumerateDeviceInterfacesAndReadDetails(HDEVINFO DevInfo, bool onlyCheck,
                                                 SP_DEVICE_INTERFACE_DATA& DevIfData,
                                                 RawDetailList& rawDetailList);
    bool ReadNextInterface(HDEVINFO DevInfo, DWORD index, SP_DEVICE_INTERFACE_DATA& DevIfData);
    void ReadDeviceDetails(HDEVINFO DevInfo, SP_DEVICE_INTERFACE_DATA& DevIfData,
                           RawDetailList& rawDetailList);
    static void CopyDeviceIfDataTo(const RawDetailList& RawInterfaceList,
                                   std::vector<std::wstring>& DevInterfaceNameList);
    template <typename Query>
    void WithDeviceInfoSet(Query query);

    GUID devIf_ = {};
    std::shared_ptr<windows_api::SetupApi> setupApi_;
    std::shared_ptr<windows_api::CKernel32> kernel32_;
    std::shared_ptr<DeviceInfoHandle> deviceInfo_;
};

/// The only way to a DeviceInterface for a class.
class DeviceInterfaceFactory {
  public:
    virtual ~DeviceInterfaceFactory() = default;
    /// @throws what DeviceInterface's constructor and Register throw
    virtual std::shared_ptr<DeviceInterface> create_from(const GUID& guid);
};

}  // namespace operating_system::plug_and_play
