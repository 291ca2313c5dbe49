#include "win_pnp.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "toolbox.h"
#include "trace_point.h"
#include "windows_api_excp.h"

TRACE_SOURCE("lib_shared_tools\\src\\win_pnp", "0b6d9e51-3c8f-4a72-85e1-7f4c2d9a1b0b", trace::kSharedTools);

using modul_exception::CWindowsApiExcp;

namespace operating_system::plug_and_play {
namespace {

constexpr GUID kNoGuid = {};
constexpr DWORD kPresentInterfaces = DIGCF_PRESENT | DIGCF_DEVICEINTERFACE;

void Reset(SP_DEVICE_INTERFACE_DATA& DevIfData) {
    FUNCTION_TRACE();
    static_assert(sizeof DevIfData == 32);
    DevIfData = {};
    DevIfData.cbSize = sizeof DevIfData;
}

/// The size field holds the size of the fixed part, whatever the size of the buffer.
SP_DEVICE_INTERFACE_DETAIL_DATA_W* DetailIn(std::vector<BYTE>& buffer) {
    FUNCTION_TRACE();
    static_assert(sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W) == 8);
    auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(buffer.data());
    detail->cbSize = sizeof *detail;
    return detail;
}

}  // namespace

DeviceInfoHandle::DeviceInfoHandle(std::shared_ptr<windows_api::SetupApi> setupApi,
                                   std::shared_ptr<windows_api::CKernel32> kernel32)
    : setupApi_(std::move(setupApi)), kernel32_(std::move(kernel32)) {
    FUNCTION_TRACE();
}

DeviceInfoHandle::~DeviceInfoHandle() {
    FUNCTION_TRACE();
    DeviceInfoHandle::Close();
}

bool DeviceInfoHandle::Open(const GUID& guid, DWORD flags) {
    FUNCTION_TRACE();
    if (opened_) MODUL_THROW(std::runtime_error("Invalid sequence! DeviceInterfaceGuid already opened!"));
    if (devInfo_ != nullptr && devInfo_ != INVALID_HANDLE_VALUE)
        MODUL_THROW(std::runtime_error("HDEVINFO already open!"));
    devInfo_ = setupApi_->SetupDiGetClassDevsW(&guid, nullptr, nullptr, flags);
    if (devInfo_ == INVALID_HANDLE_VALUE)
        MODUL_THROW(CWindowsApiExcp("SetupDiGetClassDevsW", toolbox::GuidToString(&guid)));
    opened_ = true;
    return true;
}

void DeviceInfoHandle::Close() {
    FUNCTION_TRACE();
    opened_ = false;
    const HDEVINFO devInfo = std::exchange(devInfo_, nullptr);
    if (devInfo == nullptr || devInfo == INVALID_HANDLE_VALUE) return;
    try {
        if (!setupApi_->SetupDiDestroyDeviceInfoList(devInfo))
            TRACE_WARNING(10, "SetupDiDestroyDeviceInfoList() failed, LE(%u)", kernel32_->GetLastError());
    } catch (...) {
        // The destructor closes as well, perhaps on behalf of another exception: nothing may pass.
        TRACE_WARNING(13, "SetupDiDestroyDeviceInfoList() raised an exception");
    }
}

HDEVINFO DeviceInfoHandle::Get_DeviceInfoSet() {
    FUNCTION_TRACE();
    if (!opened_) MODUL_THROW(std::runtime_error("Invalid sequence! First call open"));
    return devInfo_;
}

DeviceInterface::DeviceInterface(std::shared_ptr<windows_api::SetupApi> setupApi,
                                 std::shared_ptr<windows_api::CKernel32> kernel32)
    : setupApi_(std::move(setupApi)),
      kernel32_(std::move(kernel32)),
      deviceInfo_(std::make_shared<DeviceInfoHandle>(setupApi_, kernel32_)) {
    FUNCTION_TRACE();
}

void DeviceInterface::CheckObjectState(const GUID& guid) {
    FUNCTION_TRACE();
    if (IsEqualGUID(guid, kNoGuid)) MODUL_THROW(std::runtime_error("Empty GUID not allowed!"));
}

void DeviceInterface::Register(const GUID& guid) {
    FUNCTION_TRACE();
    CheckObjectState(guid);
    if (!IsEqualGUID(devIf_, kNoGuid)) MODUL_THROW(std::runtime_error("GUID already registered!"));
    if (::memcpy_s(&devIf_, sizeof devIf_, &guid, sizeof guid) != 0)
        MODUL_THROW(std::runtime_error("FAILED! memcpy_s(GUID)"));
}

template <typename Query>
void DeviceInterface::WithDeviceInfoSet(Query query) {
    FUNCTION_TRACE();
    CheckObjectState(devIf_);
    deviceInfo_->Open(devIf_, kPresentInterfaces);
    try {
        query(deviceInfo_->Get_DeviceInfoSet());
    } catch (const CWindowsApiExcp&) {
        // Only a failed system call closes the set. Any other exception leaves it open, so that the next
        // query on this object is refused instead of working on a device that never gave its details.
        deviceInfo_->Close();
        throw;
    }
    deviceInfo_->Close();
}

bool DeviceInterface::IsPresent() {
    FUNCTION_TRACE();
    bool found = false;
    WithDeviceInfoSet([&](HDEVINFO devInfo) {
        SP_DEVICE_INTERFACE_DATA DevIfData;
        RawDetailList unusedDetailVec;
        found = EnumerateDeviceInterfacesAndReadDetails(devInfo, true, DevIfData, unusedDetailVec);
        MODUL_ASSERT(unusedDetailVec.empty());
    });
    return found;
}

void DeviceInterface::Get_DeviceInterfaceDetails(std::vector<std::wstring>& pathList) {
    FUNCTION_TRACE();
    WithDeviceInfoSet([&](HDEVINFO devInfo) {
        pathList.clear();
        SP_DEVICE_INTERFACE_DATA DevIfData;
        RawDetailList rawDetailList;
        if (EnumerateDeviceInterfacesAndReadDetails(devInfo, false, DevIfData, rawDetailList))
            CopyDeviceIfDataTo(rawDetailList, pathList);
    });
}

HKEY DeviceInterface::OpenDeviceInterfaceRegKey() {
    FUNCTION_TRACE();
    const HKEY none = reinterpret_cast<HKEY>(INVALID_HANDLE_VALUE);
    HKEY key = none;
    WithDeviceInfoSet([&](HDEVINFO devInfo) {
        SP_DEVICE_INTERFACE_DATA DevIfData;
        RawDetailList unusedDetailVec;
        if (!EnumerateDeviceInterfacesAndReadDetails(devInfo, true, DevIfData, unusedDetailVec)) return;
        key = setupApi_->SetupDiOpenDeviceInterfaceRegKey(devInfo, &DevIfData, 0, KEY_READ);
        if (key == none)
            TRACE_WARNING(11, "SetupDiOpenDeviceInterfaceRegKey() failed, LE(%u)", kernel32_->GetLastError());
    });
    return key;
}

bool DeviceInterface::EnumerateDeviceInterfacesAndReadDetails(HDEVINFO DevInfo, bool onlyCheck,
                                                              SP_DEVICE_INTERFACE_DATA& DevIfData,
                                                              RawDetailList& rawDetailList) {
    FUNCTION_TRACE();
    MODUL_ASSERT(DevInfo != nullptr);
    MODUL_ASSERT(DevInfo != INVALID_HANDLE_VALUE);
    rawDetailList.clear();
    bool found = false;
    for (DWORD index = 0; ReadNextInterface(DevInfo, index, DevIfData); ++index) {
        if ((DevIfData.Flags & SPINT_ACTIVE) == 0) continue;  // registered but inactive counts as absent
        found = true;
        if (onlyCheck) break;
        ReadDeviceDetails(DevInfo, DevIfData, rawDetailList);
    }
    return found;
}

bool DeviceInterface::ReadNextInterface(HDEVINFO DevInfo, DWORD index, SP_DEVICE_INTERFACE_DATA& DevIfData) {
    FUNCTION_TRACE();
    Reset(DevIfData);
    if (setupApi_->SetupDiEnumDeviceInterfaces(DevInfo, nullptr, &devIf_, index, &DevIfData)) {
        MODUL_ASSERT(IsEqualGUID(DevIfData.InterfaceClassGuid, devIf_));
        return true;
    }
    const DWORD lastError = kernel32_->GetLastError();
    if (lastError != ERROR_NO_MORE_ITEMS)
        MODUL_THROW(
            CWindowsApiExcp("SetupDiEnumDeviceInterfaces", lastError, toolbox::GuidToString(&devIf_)));
    return false;
}

void DeviceInterface::ReadDeviceDetails(HDEVINFO DevInfo, SP_DEVICE_INTERFACE_DATA& DevIfData,
                                        RawDetailList& rawDetailList) {
    FUNCTION_TRACE();
    constexpr int kAttempts = 3;
    std::vector<BYTE> buffer(256);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        DWORD requiredSize = 0;
        auto* detail = DetailIn(buffer);
        if (setupApi_->SetupDiGetDeviceInterfaceDetailW(
                DevInfo, &DevIfData, detail, static_cast<DWORD>(buffer.size()), &requiredSize, nullptr)) {
            TRACE_INFO(12, "Device path %S", detail->DevicePath);
            rawDetailList.push_back(std::move(buffer));
            return;
        }
        const DWORD lastError = kernel32_->GetLastError();
        if (lastError != ERROR_INSUFFICIENT_BUFFER)
            MODUL_THROW(CWindowsApiExcp("SetupDiGetDeviceInterfaceDetailW", lastError,
                                        attempt == 0 ? "FIRST" : "SECOND"));
        // Never smaller than the fixed part, which is written to before every call.
        buffer.resize(std::max<std::size_t>(requiredSize, sizeof *detail));
    }
    MODUL_THROW(std::runtime_error("Never matched correct DEVICE_INTERFACE_DETAIL_DATA"));
}

void DeviceInterface::CopyDeviceIfDataTo(const RawDetailList& RawInterfaceList,
                                         std::vector<std::wstring>& DevInterfaceNameList) {
    FUNCTION_TRACE();
    MODUL_ASSERT(!RawInterfaceList.empty());
    MODUL_ASSERT(DevInterfaceNameList.empty());
    for (const std::vector<BYTE>& raw : RawInterfaceList) {
        const auto* path = reinterpret_cast<const wchar_t*>(
            raw.data() + offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath));
        DevInterfaceNameList.emplace_back(path);
    }
}

std::shared_ptr<DeviceInterface> DeviceInterfaceFactory::create_from(const GUID& guid) {
    FUNCTION_TRACE();
    const auto deviceInterface = std::make_shared<DeviceInterface>();
    deviceInterface->Register(guid);
    return deviceInterface;
}

}  // namespace operating_system::plug_and_play
