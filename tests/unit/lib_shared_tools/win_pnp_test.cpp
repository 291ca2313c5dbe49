#include "win_pnp.h"

#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "text_of.h"
#include "windows_api_excp.h"

using modul_exception::CWindowsApiExcp;
using operating_system::plug_and_play::DeviceInfoHandle;
using operating_system::plug_and_play::DeviceInterface;
using operating_system::plug_and_play::DeviceInterfaceFactory;

using test_support::TextOf;

namespace {

constexpr GUID kClass = {0x11112222, 0x3333, 0x4444, {5, 5, 6, 6, 7, 7, 8, 8}};
constexpr char kClassText[] = "{11112222-3333-4444-0505-060607070808}";

struct FakeInterface {
    bool active = true;
    std::wstring path;
};

/// A machine with scripted device interfaces and failures.
class FakeSetupApi : public windows_api::SetupApi {
  public:
    std::vector<FakeInterface> interfaces;
    bool failGetClassDevs = false;
    bool failDestroy = false;
    std::optional<DWORD> enumerationError;
    std::vector<DWORD> detailErrors;  // one for each call, until they are used up
    bool alwaysTooSmall = false;
    HKEY regKey = reinterpret_cast<HKEY>(0x99);
    int openSets = 0;
    int enumerations = 0;
    std::vector<DWORD> detailSizes;
    DWORD lastFlags = 0;
    std::pair<DWORD, REGSAM> lastRegKeyArguments = {1, 0};

    HDEVINFO SetupDiGetClassDevsW(const GUID* guid, const wchar_t*, HWND, DWORD flags) override {
        EXPECT_TRUE(IsEqualGUID(*guid, kClass));
        lastFlags = flags;
        if (failGetClassDevs) return Fail<HDEVINFO>(ERROR_INVALID_CLASS, INVALID_HANDLE_VALUE);
        ++openSets;
        return reinterpret_cast<HDEVINFO>(0x10);
    }
    BOOL SetupDiDestroyDeviceInfoList(HDEVINFO) override {
        --openSets;
        return failDestroy ? Fail<BOOL>(ERROR_INVALID_HANDLE, FALSE) : TRUE;
    }
    BOOL SetupDiEnumDeviceInterfaces(HDEVINFO, SP_DEVINFO_DATA*, const GUID*, DWORD index,
                                     SP_DEVICE_INTERFACE_DATA* data) override {
        ++enumerations;
        EXPECT_EQ(data->cbSize, 32u);
        if (enumerationError) return Fail<BOOL>(*enumerationError, FALSE);
        if (index >= interfaces.size()) return Fail<BOOL>(ERROR_NO_MORE_ITEMS, FALSE);
        data->InterfaceClassGuid = kClass;
        data->Flags = interfaces[index].active ? SPINT_ACTIVE : 0;
        data->Reserved = index;
        return TRUE;
    }
    BOOL SetupDiGetDeviceInterfaceDetailW(HDEVINFO, SP_DEVICE_INTERFACE_DATA* data,
                                          SP_DEVICE_INTERFACE_DETAIL_DATA_W* detail, DWORD size,
                                          DWORD* required, SP_DEVINFO_DATA*) override {
        EXPECT_EQ(detail->cbSize, 8u);
        detailSizes.push_back(size);
        const std::wstring& path = interfaces[data->Reserved].path;
        *required = static_cast<DWORD>(4 + (path.length() + 1) * sizeof(wchar_t));
        if (alwaysTooSmall) *required = size + 2;
        if (!detailErrors.empty()) {
            const DWORD error = detailErrors.front();
            detailErrors.erase(detailErrors.begin());
            return Fail<BOOL>(error, FALSE);
        }
        if (size < *required) return Fail<BOOL>(ERROR_INSUFFICIENT_BUFFER, FALSE);
        std::memcpy(detail->DevicePath, path.c_str(), (path.length() + 1) * sizeof(wchar_t));
        return TRUE;
    }
    HKEY SetupDiOpenDeviceInterfaceRegKey(HDEVINFO, SP_DEVICE_INTERFACE_DATA* data, DWORD reserved,
                                          REGSAM access) override {
        EXPECT_NE(data->Flags & SPINT_ACTIVE, 0u);
        lastRegKeyArguments = {reserved, access};
        return regKey;
    }

  private:
    template <typename Result, typename Value>
    static Result Fail(DWORD error, Value result) {
        ::SetLastError(error);
        return static_cast<Result>(result);
    }
};

class DeviceInterfaces : public testing::Test {
  protected:
    DeviceInterfaces() { deviceInterface_.Register(kClass); }
    std::vector<std::wstring> Paths() {
        std::vector<std::wstring> paths{L"stale"};
        deviceInterface_.Get_DeviceInterfaceDetails(paths);
        return paths;
    }

    std::shared_ptr<FakeSetupApi> machine_ = std::make_shared<FakeSetupApi>();
    DeviceInterface deviceInterface_{machine_};
};

}  // namespace

TEST(DeviceInterface, RefusesTheEmptyGuidAndASecondRegistration) {
    DeviceInterface deviceInterface;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { deviceInterface.IsPresent(); }), "Empty GUID not allowed!");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { deviceInterface.Register({}); }), "Empty GUID not allowed!");
    deviceInterface.Register(kClass);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { deviceInterface.Register(kClass); }),
              "GUID already registered!");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { deviceInterface.Register(GUID{1, 2, 3, {}}); }),
              "GUID already registered!");
}

TEST_F(DeviceInterfaces, InactiveOnesCountAsAbsent) {
    machine_->interfaces = {{false, L"a"}, {false, L"b"}};
    EXPECT_FALSE(deviceInterface_.IsPresent());
    EXPECT_TRUE(Paths().empty());
    EXPECT_EQ(deviceInterface_.OpenDeviceInterfaceRegKey(), reinterpret_cast<HKEY>(INVALID_HANDLE_VALUE));
    EXPECT_EQ(machine_->openSets, 0);
}

TEST_F(DeviceInterfaces, TwoActiveOnesAreListedInOrder) {
    machine_->interfaces = {{true, L"\\\\?\\first"}, {false, L"inactive"}, {true, L"\\\\?\\second"}};
    EXPECT_EQ(Paths(), (std::vector<std::wstring>{L"\\\\?\\first", L"\\\\?\\second"}));
    EXPECT_EQ(machine_->lastFlags, 0x12u);
}

TEST_F(DeviceInterfaces, PresenceStopsAtTheFirstActiveOne) {
    machine_->interfaces = {{true, L"a"}, {true, L"b"}};
    EXPECT_TRUE(deviceInterface_.IsPresent());
    EXPECT_EQ(machine_->enumerations, 1);
    EXPECT_TRUE(machine_->detailSizes.empty());
}

TEST_F(DeviceInterfaces, LongPathIsReadOnTheSecondAttempt) {
    const std::wstring path(200, L'p');
    machine_->interfaces = {{true, path}};
    EXPECT_EQ(Paths(), (std::vector<std::wstring>{path}));
    EXPECT_EQ(machine_->detailSizes, (std::vector<DWORD>{256, 4 + 201 * 2}));
}

TEST_F(DeviceInterfaces, BufferThatNeverFitsLeavesTheSetOpen) {
    machine_->interfaces = {{true, L"a"}};
    machine_->alwaysTooSmall = true;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { Paths(); }),
              "Never matched correct DEVICE_INTERFACE_DETAIL_DATA");
    EXPECT_EQ(machine_->detailSizes.size(), 3u);
    EXPECT_EQ(machine_->openSets, 1);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { deviceInterface_.IsPresent(); }),
              "Invalid sequence! DeviceInterfaceGuid already opened!");
}

TEST_F(DeviceInterfaces, OtherDetailErrorsNameTheAttempt) {
    machine_->interfaces = {{true, L"a"}};
    machine_->detailErrors = {ERROR_INVALID_DATA};
    const std::string first = TextOf<CWindowsApiExcp>([&] { Paths(); });
    EXPECT_TRUE(first.starts_with("FAILED! SetupDiGetDeviceInterfaceDetailW! ReturnValue(13): ")) << first;
    EXPECT_TRUE(first.ends_with(" Hint: FIRST\n")) << first;
    machine_->detailErrors = {ERROR_INSUFFICIENT_BUFFER, ERROR_INVALID_DATA};
    EXPECT_TRUE(TextOf<CWindowsApiExcp>([&] { Paths(); }).ends_with(" Hint: SECOND\n"));
    machine_->detailErrors = {ERROR_INSUFFICIENT_BUFFER, ERROR_INSUFFICIENT_BUFFER, ERROR_INVALID_DATA};
    EXPECT_TRUE(TextOf<CWindowsApiExcp>([&] { Paths(); }).ends_with(" Hint: SECOND\n"));
    EXPECT_EQ(machine_->openSets, 0) << "closed after a failed system call";
}

TEST_F(DeviceInterfaces, EnumerationErrorNamesCodeAndClass) {
    machine_->enumerationError = ERROR_ACCESS_DENIED;
    const std::string text = TextOf<CWindowsApiExcp>([&] { deviceInterface_.IsPresent(); });
    EXPECT_TRUE(text.starts_with("FAILED! SetupDiEnumDeviceInterfaces! ReturnValue(5): ")) << text;
    EXPECT_TRUE(text.ends_with(std::string(" Hint: ") + kClassText + "\n")) << text;
    EXPECT_EQ(machine_->openSets, 0);
}

TEST_F(DeviceInterfaces, RefusedSetNamesTheClass) {
    machine_->failGetClassDevs = true;
    const std::string text = TextOf<CWindowsApiExcp>([&] { deviceInterface_.IsPresent(); });
    EXPECT_TRUE(text.starts_with("FAILED! SetupDiGetClassDevsW! LE(")) << text;
    EXPECT_TRUE(text.ends_with(std::string(" Hint: ") + kClassText + "\n")) << text;
    machine_->failGetClassDevs = false;
    EXPECT_FALSE(deviceInterface_.IsPresent()) << "usable again";
}

TEST_F(DeviceInterfaces, FailedDestroyIsIgnored) {
    machine_->failDestroy = true;
    EXPECT_FALSE(deviceInterface_.IsPresent());
    EXPECT_FALSE(deviceInterface_.IsPresent());
}

TEST_F(DeviceInterfaces, RegistryKeyIsOpenedForReading) {
    machine_->interfaces = {{false, L"a"}, {true, L"b"}};
    EXPECT_EQ(deviceInterface_.OpenDeviceInterfaceRegKey(), reinterpret_cast<HKEY>(0x99));
    EXPECT_EQ(machine_->lastRegKeyArguments, (std::pair<DWORD, REGSAM>{0, 0x20019}));
    machine_->regKey = reinterpret_cast<HKEY>(INVALID_HANDLE_VALUE);
    EXPECT_EQ(deviceInterface_.OpenDeviceInterfaceRegKey(), reinterpret_cast<HKEY>(INVALID_HANDLE_VALUE));
}

TEST(DeviceInfoHandle, HasAnOpenCloseSequence) {
    const auto machine = std::make_shared<FakeSetupApi>();
    DeviceInfoHandle handle(machine, std::make_shared<windows_api::CKernel32>());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { handle.Get_DeviceInfoSet(); }),
              "Invalid sequence! First call open");
    handle.Close();  // harmless
    EXPECT_TRUE(handle.Open(kClass, 0x12));
    EXPECT_EQ(handle.Get_DeviceInfoSet(), reinterpret_cast<HDEVINFO>(0x10));
    EXPECT_EQ(TextOf<std::runtime_error>([&] { handle.Open(kClass, 0x12); }),
              "Invalid sequence! DeviceInterfaceGuid already opened!");
    handle.Close();
    handle.Close();
    EXPECT_EQ(machine->openSets, 0);
}

TEST(DeviceInterfaceFactory, MakesAReadyObjectOnTheRealMachine) {
    const auto deviceInterface = DeviceInterfaceFactory().create_from(kClass);
    EXPECT_FALSE(deviceInterface->IsPresent());
    std::vector<std::wstring> paths;
    deviceInterface->Get_DeviceInterfaceDetails(paths);
    EXPECT_TRUE(paths.empty());
    EXPECT_EQ(deviceInterface->OpenDeviceInterfaceRegKey(), reinterpret_cast<HKEY>(INVALID_HANDLE_VALUE));
    EXPECT_EQ(TextOf<std::runtime_error>([] { DeviceInterfaceFactory().create_from({}); }),
              "Empty GUID not allowed!");
}
