#pragma once

#include <windows.h>
#include <setupapi.h>

#include <string>

namespace windows_api {

/// setupapi.dll, loaded when the object is made and freed with it. Each operation takes and returns what the
/// system function of its name does; what that raises as a structured exception is thrown as an
/// operating_system::ForeignException.
class SetupApi {
  public:
    /// @param dllName the library that is loaded
    /// @throws modul_exception::CWindowsApiExcp if the library or one of its functions cannot be had
    explicit SetupApi(const char* dllName = "setupapi.dll");
    virtual ~SetupApi();
    SetupApi(const SetupApi&) = delete;
    SetupApi& operator=(const SetupApi&) = delete;

    virtual HDEVINFO SetupDiGetClassDevsW(const GUID* classGuid, const wchar_t* enumerator, HWND parent,
                                          DWORD flags);
    virtual BOOL SetupDiDestroyDeviceInfoList(HDEVINFO deviceInfoSet);
    virtual BOOL SetupDiEnumDeviceInterfaces(HDEVINFO deviceInfoSet, SP_DEVINFO_DATA* deviceInfoData,
                                             const GUID* interfaceClassGuid, DWORD memberIndex,
                                             SP_DEVICE_INTERFACE_DATA* deviceInterfaceData);
    virtual BOOL SetupDiGetDeviceInterfaceDetailW(HDEVINFO deviceInfoSet,
                                                  SP_DEVICE_INTERFACE_DATA* deviceInterfaceData,
                                                  SP_DEVICE_INTERFACE_DETAIL_DATA_W* detailData,
                                                  DWORD detailDataSize, DWORD* requiredSize,
                                                  SP_DEVINFO_DATA* deviceInfoData);
    virtual HKEY SetupDiOpenDeviceInterfaceRegKey(HDEVINFO deviceInfoSet,
                                                  SP_DEVICE_INTERFACE_DATA* deviceInterfaceData,
                                                  DWORD reserved, REGSAM access);

  private:
    void Free();

    std::string dllName_;
    HMODULE module_ = nullptr;
    decltype(&::SetupDiGetClassDevsW) SetupDiGetClassDevsW_ = nullptr;
    decltype(&::SetupDiDestroyDeviceInfoList) SetupDiDestroyDeviceInfoList_ = nullptr;
    decltype(&::SetupDiEnumDeviceInterfaces) SetupDiEnumDeviceInterfaces_ = nullptr;
    decltype(&::SetupDiGetDeviceInterfaceDetailW) SetupDiGetDeviceInterfaceDetailW_ = nullptr;
    decltype(&::SetupDiOpenDeviceInterfaceRegKey) SetupDiOpenDeviceInterfaceRegKey_ = nullptr;
};

}  // namespace windows_api
