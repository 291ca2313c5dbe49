#include "win_setupapi.h"

#include "dll_loader_convenience.h"
#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "structured_exception.h"
#include "trace_point.h"
#include "windows_api_excp.h"

TRACE_SOURCE("lib_shared_tools\\src\\win_setupapi", "8e4f1a26-d7b3-4905-9c6e-3b5a7d0f2c0a",
             trace::kSharedTools);

using operating_system::CallForeign;

namespace windows_api {

SetupApi::SetupApi(const char* dllName) : dllName_(dllName) {
    FUNCTION_TRACE();
    using operating_system::CheckAndInitFunctionPointer;
    module_ = ::LoadLibraryA(dllName);
    if (module_ == nullptr) MODUL_THROW(modul_exception::CWindowsApiExcp("LoadLibraryA", dllName));
    try {
        CheckAndInitFunctionPointer(module_, SetupDiGetClassDevsW_, "SetupDiGetClassDevsW");
        CheckAndInitFunctionPointer(module_, SetupDiDestroyDeviceInfoList_, "SetupDiDestroyDeviceInfoList");
        CheckAndInitFunctionPointer(module_, SetupDiEnumDeviceInterfaces_, "SetupDiEnumDeviceInterfaces");
        CheckAndInitFunctionPointer(module_, SetupDiGetDeviceInterfaceDetailW_,
                                    "SetupDiGetDeviceInterfaceDetailW");
        CheckAndInitFunctionPointer(module_, SetupDiOpenDeviceInterfaceRegKey_,
                                    "SetupDiOpenDeviceInterfaceRegKey");
    } catch (...) {
        Free();
        throw;
    }
}

SetupApi::~SetupApi() {
    FUNCTION_TRACE();
    Free();
}

void SetupApi::Free() {
    FUNCTION_TRACE();
    if (!::FreeLibrary(module_))
        TRACE_WARNING(10, "FreeLibrary(%s) failed, LE(%u)", dllName_, ::GetLastError());
    module_ = nullptr;
}

HDEVINFO SetupApi::SetupDiGetClassDevsW(const GUID* classGuid, const wchar_t* enumerator, HWND parent,
                                        DWORD flags) {
    FUNCTION_TRACE();
    MODUL_ASSERT(SetupDiGetClassDevsW_ != nullptr);
    return CallForeign([&] { return SetupDiGetClassDevsW_(classGuid, enumerator, parent, flags); });
}

BOOL SetupApi::SetupDiDestroyDeviceInfoList(HDEVINFO deviceInfoSet) {
    FUNCTION_TRACE();
    MODUL_ASSERT(SetupDiDestroyDeviceInfoList_ != nullptr);
    return CallForeign([&] { return SetupDiDestroyDeviceInfoList_(deviceInfoSet); });
}

BOOL SetupApi::SetupDiEnumDeviceInterfaces(HDEVINFO deviceInfoSet, SP_DEVINFO_DATA* deviceInfoData,
                                           const GUID* interfaceClassGuid, DWORD memberIndex,
                                           SP_DEVICE_INTERFACE_DATA* deviceInterfaceData) {
    FUNCTION_TRACE();
    MODUL_ASSERT(SetupDiEnumDeviceInterfaces_ != nullptr);
    return CallForeign([&] {
        return SetupDiEnumDeviceInterfaces_(deviceInfoSet, deviceInfoData, interfaceClassGuid, memberIndex,
                                            deviceInterfaceData);
    });
}

BOOL SetupApi::SetupDiGetDeviceInterfaceDetailW(HDEVINFO deviceInfoSet,
                                                SP_DEVICE_INTERFACE_DATA* deviceInterfaceData,
                                                SP_DEVICE_INTERFACE_DETAIL_DATA_W* detailData,
                                                DWORD detailDataSize, DWORD* requiredSize,
                                                SP_DEVINFO_DATA* deviceInfoData) {
    FUNCTION_TRACE();
    MODUL_ASSERT(SetupDiGetDeviceInterfaceDetailW_ != nullptr);
    return CallForeign([&] {
        return SetupDiGetDeviceInterfaceDetailW_(deviceInfoSet, deviceInterfaceData, detailData,
                                                 detailDataSize, requiredSize, deviceInfoData);
    });
}

HKEY SetupApi::SetupDiOpenDeviceInterfaceRegKey(HDEVINFO deviceInfoSet,
                                                SP_DEVICE_INTERFACE_DATA* deviceInterfaceData, DWORD reserved,
                                                REGSAM access) {
    FUNCTION_TRACE();
    MODUL_ASSERT(SetupDiOpenDeviceInterfaceRegKey_ != nullptr);
    return CallForeign([&] {
        return SetupDiOpenDeviceInterfaceRegKey_(deviceInfoSet, deviceInterfaceData, reserved, access);
    });
}

}  // namespace windows_api
