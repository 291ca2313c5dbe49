#include "win_pnp.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "adapter_control.h"
#include "module_hooks.h"
#include "program_folder.h"
#include "structured_exception.h"
#include "text_of.h"
#include "trace_recorder.h"
#include "unique_handle.h"
#include "windows_api_excp.h"

using modul_exception::CWindowsApiExcp;
using operating_system::ForeignException;
using operating_system::plug_and_play::DeviceInfoHandle;
using operating_system::plug_and_play::DeviceInterface;
using operating_system::plug_and_play::DeviceInterfaceFactory;

using test_support::ModuleHooks;
using test_support::TextOf;

namespace {

constexpr GUID kClass = {0x11112222, 0x3333, 0x4444, {5, 5, 6, 6, 7, 7, 8, 8}};
constexpr DWORD kCppExceptionOfAnotherRunTime = 0xE06D7363;
constexpr char kClassText[] = "{11112222-3333-4444-0505-060607070808}";

constexpr DWORD kActive = SPINT_ACTIVE;
constexpr DWORD kInactive = 0;
const auto kSet = reinterpret_cast<HDEVINFO>(0x10);

struct FakeInterface {
    DWORD flags = kActive;
    std::wstring path;
};

/// A machine with scripted device interfaces and failures.
class FakeSetupApi : public windows_api::SetupApi {
  public:
    std::vector<FakeInterface> interfaces;
    HDEVINFO set = kSet;
    bool failGetClassDevs = false;
    bool failDestroy = false;
    bool enumerationFaults = false;
    bool destroyFaults = false;
    GUID classOfInterfaces = kClass;
    std::optional<DWORD> enumerationError;
    std::vector<DWORD> detailErrors;  // one for each call, until they are used up
    bool alwaysTooSmall = false;
    HKEY regKey = reinterpret_cast<HKEY>(0x99);
    int openSets = 0;
    int enumerations = 0;
    std::vector<DWORD> detailSizes;
    DWORD lastFlags = 0;
    std::pair<DWORD, REGSAM> lastRegKeyArguments = {1, 0};
    ULONG_PTR lastRegKeyIndex = 99;

    HDEVINFO SetupDiGetClassDevsW(const GUID* guid, const wchar_t* enumerator, HWND parent,
                                  DWORD flags) override {
        EXPECT_TRUE(IsEqualGUID(*guid, kClass));
        EXPECT_EQ(enumerator, nullptr);
        EXPECT_EQ(parent, nullptr);
        lastFlags = flags;
        if (failGetClassDevs) return Fail<HDEVINFO>(ERROR_INVALID_CLASS, INVALID_HANDLE_VALUE);
        ++openSets;
        return set;
    }
    BOOL SetupDiDestroyDeviceInfoList(HDEVINFO destroyed) override {
        EXPECT_EQ(destroyed, kSet);
        --openSets;
        if (destroyFaults) throw ForeignException{kCppExceptionOfAnotherRunTime};
        return failDestroy ? Fail<BOOL>(ERROR_INVALID_HANDLE, FALSE) : TRUE;
    }
    BOOL SetupDiEnumDeviceInterfaces(HDEVINFO enumerated, SP_DEVINFO_DATA* device, const GUID* guid,
                                     DWORD index, SP_DEVICE_INTERFACE_DATA* data) override {
        ++enumerations;
        EXPECT_EQ(enumerated, set);
        EXPECT_EQ(device, nullptr);
        EXPECT_TRUE(IsEqualGUID(*guid, kClass));
        EXPECT_EQ(data->cbSize, 32u);
        EXPECT_TRUE(IsEqualGUID(data->InterfaceClassGuid, GUID{}) && data->Flags == 0 && data->Reserved == 0)
            << "nothing is left of the interface before";
        if (enumerationFaults) throw ForeignException{kCppExceptionOfAnotherRunTime};
        if (enumerationError) return Fail<BOOL>(*enumerationError, FALSE);
        if (index >= interfaces.size()) return Fail<BOOL>(ERROR_NO_MORE_ITEMS, FALSE);
        data->InterfaceClassGuid = classOfInterfaces;
        data->Flags = interfaces[index].flags;
        data->Reserved = index;
        return TRUE;
    }
    BOOL SetupDiGetDeviceInterfaceDetailW(HDEVINFO, SP_DEVICE_INTERFACE_DATA* data,
                                          SP_DEVICE_INTERFACE_DETAIL_DATA_W* detail, DWORD size,
                                          DWORD* required, SP_DEVINFO_DATA* device) override {
        EXPECT_EQ(device, nullptr);
        EXPECT_EQ(detail->cbSize, 8u);
        detail->cbSize = 0xFFFF;  // whoever asks again has to write it again
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
        lastRegKeyIndex = data->Reserved;
        ::SetLastError(ERROR_FILE_NOT_FOUND);
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
    DeviceInterfaces() { deviceInterface_->Register(kClass); }
    std::vector<std::wstring> Paths() {
        std::vector<std::wstring> paths{L"stale"};
        deviceInterface_->Get_DeviceInterfaceDetails(paths);
        return paths;
    }

    std::shared_ptr<FakeSetupApi> machine_ = std::make_shared<FakeSetupApi>();
    std::unique_ptr<DeviceInterface> deviceInterface_ = std::make_unique<DeviceInterface>(machine_);
};

/// A real driver's device interfaces: an adapter with two ports, installed and unplugged.
class RealDeviceInterfaces : public testing::Test {
  protected:
    RealDeviceInterfaces() {
        adapter_control::Install(model_, test_support::ProgramFolder() + L"adapters.inf");
        UnplugAll();
    }
    ~RealDeviceInterfaces() override { UnplugAll(); }
    void UnplugAll() {
        for (const DWORD port : {0u, 1u})
            adapter_control::Unplug(model_, port);
    }
    /// What a driver's installation does; without it there is no key to be opened.
    void MakeRegistryKey() {
        windows_api::SetupApi setupApi;
        const HDEVINFO set = setupApi.SetupDiGetClassDevsW(&model_.interfaceClass, nullptr, nullptr,
                                                           DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
        SP_DEVICE_INTERFACE_DATA data = {};
        data.cbSize = sizeof data;
        EXPECT_TRUE(setupApi.SetupDiEnumDeviceInterfaces(set, nullptr, &model_.interfaceClass, 0, &data));
        const UniqueRegistryKey made(
            ::SetupDiCreateDeviceInterfaceRegKeyW(set, &data, 0, KEY_ALL_ACCESS, nullptr, nullptr));
        EXPECT_TRUE(made);
        setupApi.SetupDiDestroyDeviceInfoList(set);
    }
    std::vector<std::wstring> Paths() {
        std::vector<std::wstring> paths;
        deviceInterface_->Get_DeviceInterfaceDetails(paths);
        return paths;
    }

    const adapter_control::Model& model_ = *adapter_control::FindModel(L"nx4120");
    std::shared_ptr<DeviceInterface> deviceInterface_ =
        DeviceInterfaceFactory().create_from(model_.interfaceClass);
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

TEST(DeviceInterface, WithoutAGuidRefusesEveryQuery) {
    const auto machine = std::make_shared<FakeSetupApi>();
    DeviceInterface deviceInterface(machine);
    std::vector<std::wstring> paths{L"untouched"};
    EXPECT_EQ(TextOf<std::runtime_error>([&] { deviceInterface.Get_DeviceInterfaceDetails(paths); }),
              "Empty GUID not allowed!");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { deviceInterface.OpenDeviceInterfaceRegKey(); }),
              "Empty GUID not allowed!");
    EXPECT_EQ(paths, (std::vector<std::wstring>{L"untouched"}));
    EXPECT_EQ(machine->openSets, 0);
}

TEST_F(DeviceInterfaces, OnlyTheActiveFlagCounts) {
    machine_->interfaces = {{SPINT_DEFAULT | SPINT_REMOVED, L"removed"},
                            {SPINT_ACTIVE | SPINT_DEFAULT, L"a"}};
    EXPECT_EQ(Paths(), (std::vector<std::wstring>{L"a"}));
}

TEST_F(DeviceInterfaces, InactiveOnesCountAsAbsent) {
    machine_->interfaces = {{kInactive, L"a"}, {kInactive, L"b"}};
    EXPECT_FALSE(deviceInterface_->IsPresent());
    EXPECT_TRUE(Paths().empty());
    EXPECT_EQ(deviceInterface_->OpenDeviceInterfaceRegKey(), reinterpret_cast<HKEY>(INVALID_HANDLE_VALUE));
    EXPECT_EQ(machine_->openSets, 0);
}

TEST_F(DeviceInterfaces, TwoActiveOnesAreListedInOrder) {
    machine_->interfaces = {
        {kActive, L"\\\\?\\first"}, {kInactive, L"inactive"}, {kActive, L"\\\\?\\second"}};
    EXPECT_EQ(Paths(), (std::vector<std::wstring>{L"\\\\?\\first", L"\\\\?\\second"}));
    EXPECT_EQ(machine_->lastFlags, 0x12u);
}

TEST_F(DeviceInterfaces, PresenceStopsAtTheFirstActiveOne) {
    machine_->interfaces = {{kActive, L"a"}, {kActive, L"b"}};
    EXPECT_TRUE(deviceInterface_->IsPresent());
    EXPECT_EQ(machine_->enumerations, 1);
    EXPECT_TRUE(machine_->detailSizes.empty());
}

TEST_F(DeviceInterfaces, LongPathIsReadOnTheSecondAttempt) {
    const std::wstring path(200, L'p');
    machine_->interfaces = {{kActive, path}};
    EXPECT_EQ(Paths(), (std::vector<std::wstring>{path}));
    EXPECT_EQ(machine_->detailSizes, (std::vector<DWORD>{256, 4 + 201 * 2}));
}

TEST_F(DeviceInterfaces, BufferShrinksToWhatIsNeeded) {
    machine_->interfaces = {{kActive, L"abc"}};
    machine_->detailErrors = {ERROR_INSUFFICIENT_BUFFER};
    EXPECT_EQ(Paths(), (std::vector<std::wstring>{L"abc"}));
    EXPECT_EQ(machine_->detailSizes, (std::vector<DWORD>{256, 12}));
}

TEST_F(DeviceInterfaces, ThirdAttemptIsTheLast) {
    machine_->interfaces = {{kActive, L"abc"}};
    machine_->detailErrors = {ERROR_INSUFFICIENT_BUFFER, ERROR_INSUFFICIENT_BUFFER};
    EXPECT_EQ(Paths(), (std::vector<std::wstring>{L"abc"}));
    machine_->detailErrors.assign(3, ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { Paths(); }),
              "Never matched correct DEVICE_INTERFACE_DETAIL_DATA");
}

TEST_F(DeviceInterfaces, SetThatWasLeftOpenIsClosedWithTheObject) {
    machine_->interfaces = {{kActive, L"a"}};
    machine_->alwaysTooSmall = true;
    EXPECT_THROW(Paths(), std::runtime_error);
    deviceInterface_.reset();
    EXPECT_EQ(machine_->openSets, 0);
}

TEST_F(DeviceInterfaces, OneOfAnotherClassIsAssertedAndUsed) {
    machine_->interfaces = {{kActive, L"a"}};
    machine_->classOfInterfaces = {1, 2, 3, {}};
    const ModuleHooks hooks;
    EXPECT_TRUE(deviceInterface_->IsPresent());
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"IsEqualGUID(DevIfData.InterfaceClassGuid, devIf_)"}));
}

TEST_F(DeviceInterfaces, NullSetIsAssertedAndNotDestroyed) {
    machine_->set = nullptr;
    const ModuleHooks hooks;
    EXPECT_FALSE(deviceInterface_->IsPresent());
    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"DevInfo != nullptr"}));
    EXPECT_EQ(machine_->openSets, 1);
}

TEST_F(DeviceInterfaces, ForeignExceptionPassesAndLeavesTheSetToTheDestructor) {
    machine_->enumerationFaults = true;
    EXPECT_THROW(deviceInterface_->IsPresent(), ForeignException);
    machine_->enumerationFaults = false;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { deviceInterface_->IsPresent(); }),
              "Invalid sequence! DeviceInterfaceGuid already opened!");
    EXPECT_EQ(machine_->openSets, 1);
    deviceInterface_.reset();
    EXPECT_EQ(machine_->openSets, 0);
}

TEST_F(DeviceInterfaces, ForeignExceptionOfTheDestructionStaysInside) {
    machine_->destroyFaults = true;
    machine_->interfaces = {{kActive, L"a"}};
    EXPECT_TRUE(deviceInterface_->IsPresent());
    EXPECT_EQ(Paths(), (std::vector<std::wstring>{L"a"})) << "usable again";
    machine_->enumerationFaults = true;
    EXPECT_THROW(deviceInterface_->IsPresent(), ForeignException);
    deviceInterface_.reset();
    EXPECT_EQ(machine_->openSets, 0);
}

TEST_F(DeviceInterfaces, BufferThatNeverFitsLeavesTheSetOpen) {
    machine_->interfaces = {{kActive, L"a"}};
    machine_->alwaysTooSmall = true;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { Paths(); }),
              "Never matched correct DEVICE_INTERFACE_DETAIL_DATA");
    EXPECT_EQ(machine_->detailSizes.size(), 3u);
    EXPECT_EQ(machine_->openSets, 1);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { deviceInterface_->IsPresent(); }),
              "Invalid sequence! DeviceInterfaceGuid already opened!");
}

TEST_F(DeviceInterfaces, OtherDetailErrorsNameTheAttempt) {
    machine_->interfaces = {{kActive, L"a"}};
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
    const std::string text = TextOf<CWindowsApiExcp>([&] { deviceInterface_->IsPresent(); });
    EXPECT_TRUE(text.starts_with("FAILED! SetupDiEnumDeviceInterfaces! ReturnValue(5): ")) << text;
    EXPECT_TRUE(text.ends_with(std::string(" Hint: ") + kClassText + "\n")) << text;
    EXPECT_EQ(machine_->openSets, 0);
}

TEST_F(DeviceInterfaces, RefusedSetNamesTheClass) {
    machine_->failGetClassDevs = true;
    const std::string text = TextOf<CWindowsApiExcp>([&] { deviceInterface_->IsPresent(); });
    EXPECT_TRUE(text.starts_with("FAILED! SetupDiGetClassDevsW! LE(")) << text;
    EXPECT_TRUE(text.ends_with(std::string(" Hint: ") + kClassText + "\n")) << text;
    machine_->failGetClassDevs = false;
    EXPECT_FALSE(deviceInterface_->IsPresent()) << "usable again";
}

TEST_F(DeviceInterfaces, FailedDestroyIsIgnored) {
    machine_->failDestroy = true;
    EXPECT_FALSE(deviceInterface_->IsPresent());
    EXPECT_FALSE(deviceInterface_->IsPresent());
}

TEST_F(DeviceInterfaces, RegistryKeyIsOpenedForReading) {
    machine_->interfaces = {{kInactive, L"a"}, {kActive, L"b"}};
    EXPECT_EQ(deviceInterface_->OpenDeviceInterfaceRegKey(), reinterpret_cast<HKEY>(0x99));
    EXPECT_EQ(machine_->lastRegKeyArguments, (std::pair<DWORD, REGSAM>{0, 0x20019}));
    EXPECT_EQ(machine_->lastRegKeyIndex, 1u) << "the first active one's";
    machine_->regKey = reinterpret_cast<HKEY>(INVALID_HANDLE_VALUE);
    EXPECT_EQ(deviceInterface_->OpenDeviceInterfaceRegKey(), reinterpret_cast<HKEY>(INVALID_HANDLE_VALUE));
}

TEST_F(DeviceInterfaces, FailuresThatAreIgnoredAreTracedWithTheirCode) {
    machine_->interfaces = {{kActive, L"a"}};
    machine_->regKey = reinterpret_cast<HKEY>(INVALID_HANDLE_VALUE);
    machine_->failDestroy = true;
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kSharedToolsGuid, trace::kWarning, trace::kMessage, 1);

    deviceInterface_->OpenDeviceInterfaceRegKey();

    const auto traced = test_support::TakeTraceRecords();
    ASSERT_EQ(traced.size(), 2u);
    EXPECT_EQ(traced[0].Integer(0), static_cast<unsigned int>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(traced[1].Integer(0), static_cast<unsigned int>(ERROR_INVALID_HANDLE));
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

TEST_F(RealDeviceInterfaces, AreFoundWhilePluggedInAndNotAfterwards) {
    adapter_control::Plug(model_, 0);
    adapter_control::Plug(model_, 1);
    EXPECT_TRUE(deviceInterface_->IsPresent());
    const auto both = Paths();
    ASSERT_EQ(both.size(), 2u);
    EXPECT_EQ(both, adapter_control::DevicePaths(model_));

    adapter_control::Unplug(model_, 0);
    EXPECT_TRUE(deviceInterface_->IsPresent());
    EXPECT_EQ(Paths(), (std::vector<std::wstring>{both[1]}));

    adapter_control::Unplug(model_, 1);
    EXPECT_FALSE(deviceInterface_->IsPresent());
    EXPECT_TRUE(Paths().empty());
}

TEST_F(RealDeviceInterfaces, RegistryKeyCanBeReadAndNotWrittenTo) {
    adapter_control::Plug(model_);
    MakeRegistryKey();

    const UniqueRegistryKey key(deviceInterface_->OpenDeviceInterfaceRegKey());

    ASSERT_TRUE(key);
    EXPECT_EQ(::RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                 nullptr, nullptr, nullptr, nullptr),
              ERROR_SUCCESS);
    const DWORD value = 1;
    EXPECT_EQ(::RegSetValueExW(key.get(), L"test", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                               sizeof value),
              ERROR_ACCESS_DENIED);
}
