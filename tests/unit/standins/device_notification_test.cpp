#include <windows.h>
#include <dbt.h>
#include <winsvc.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <thread>

#include "adapter_control.h"
#include "command.h"
#include "unique_handle.h"
#include "wine_gap_fixture.h"

// Device notifications to a service: when its handler is called, and what cannot be asked for.
namespace {

using test_support::Eventually;

/// A service, a process of its own, whose handler waits in every device event and in the control 200.
class ServiceWithASlowHandler : public WineGap {
  protected:
    ServiceWithASlowHandler() {
        adapter_control::Install(nx4120_, test_support::ProgramFolder() + L"adapters.inf");
        adapter_control::Unplug(nx4120_);
        std::filesystem::remove(kRecord);
        const std::wstring commandLine =
            L"\"" + test_support::ProgramFolder() + L"slow_service.exe\" " + kRecord;
        service_ = ::CreateServiceW(manager_, L"slow_service", L"slow_service", SERVICE_ALL_ACCESS,
                                    SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                    commandLine.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
    }
    ~ServiceWithASlowHandler() override {
        LetGoOn(100);
        Control(SERVICE_CONTROL_STOP);
        EXPECT_TRUE(Eventually([this] { return State() == SERVICE_STOPPED; }));
        ::DeleteService(service_);
        ::CloseServiceHandle(service_);
        ::CloseServiceHandle(manager_);
        adapter_control::Unplug(nx4120_);
    }
    void SetUp() override {
        WineGap::SetUp();
        ASSERT_TRUE(::StartServiceW(service_, 0, nullptr)) << ::GetLastError();
        ASSERT_TRUE(Eventually([this] { return State() == SERVICE_RUNNING; }));
        test_support::WaitUntilDeviceEventsCome();
    }

    DWORD State() const {
        SERVICE_STATUS status = {};
        ::QueryServiceStatus(service_, &status);
        return status.dwCurrentState;
    }
    void Control(DWORD control) const {
        SERVICE_STATUS status = {};
        ::ControlService(service_, control, &status);
    }
    void LetGoOn(LONG times) const { ::ReleaseSemaphore(goesOn_.get(), times, nullptr); }
    /// In small letters, as device paths come in both.
    static std::string Record() {
        std::ifstream file{std::filesystem::path(kRecord)};
        std::string record{std::istreambuf_iterator<char>(file), {}};
        for (char& c : record)
            c = static_cast<char>(std::tolower(c));
        return record;
    }
    static bool RecordBecomes(const std::string& record) {
        return Eventually([&] { return Record() == record; });
    }
    /// Whether nothing more happens for a while.
    static bool RecordStays(const std::string& record) {
        ::Sleep(500);
        return Record() == record;
    }

    static constexpr wchar_t kRecord[] = L"C:\\windows\\temp\\slow_service.txt";
    const adapter_control::Model& nx4120_ = *adapter_control::FindModel(L"NX4120");
    const UniqueKernelHandle goesOn_{::CreateSemaphoreW(nullptr, 0, 1000, L"Global\\slow_service_goes_on")};
    SC_HANDLE manager_ = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    SC_HANDLE service_ = nullptr;
};

std::string PathOf(const adapter_control::Model& model) {
    const std::wstring path = adapter_control::DevicePaths(model).at(0);
    std::string narrow;
    for (const wchar_t c : path)
        narrow += static_cast<char>(std::tolower(c));
    return narrow;
}

}  // namespace

TEST_F(ServiceWithASlowHandler, GetsAStopOnlyWhenItHasReturnedFromTheDeviceEventsBefore) {
    adapter_control::Plug(nx4120_);
    const std::string device = PathOf(nx4120_);
    EXPECT_TRUE(RecordBecomes("begin 11\n"));
    adapter_control::Unplug(nx4120_);
    EXPECT_TRUE(RecordStays("begin 11\n")) << "one event at a time";
    std::thread stop([this] { Control(SERVICE_CONTROL_STOP); });
    EXPECT_TRUE(RecordStays("begin 11\n")) << "and one control";
    LetGoOn(1);
    const std::string first = "begin 11\nend 11 " + device + "\nbegin 11\n";
    EXPECT_TRUE(RecordBecomes(first)) << "the one that came first is next: " << Record();
    EXPECT_TRUE(RecordStays(first));
    LetGoOn(1);
    EXPECT_TRUE(RecordBecomes(first + "end 11 " + device + "\nbegin 1\nend 1\n")) << Record();
    stop.join();
}

TEST_F(ServiceWithASlowHandler, GetsADeviceEventOnlyWhenItHasReturnedFromTheControlBefore) {
    std::thread control([this] { Control(200); });
    EXPECT_TRUE(RecordBecomes("begin 200\n"));
    adapter_control::Plug(nx4120_);
    const std::string device = PathOf(nx4120_);
    EXPECT_TRUE(RecordStays("begin 200\n"));
    LetGoOn(2);
    EXPECT_TRUE(RecordBecomes("begin 200\nend 200\nbegin 11\nend 11 " + device + "\n")) << Record();
    control.join();
}

TEST_F(ServiceWithASlowHandler, LosesNoEventAndItsDataStaysHoweverLongItTakes) {
    adapter_control::Plug(nx4120_);
    const std::string device = PathOf(nx4120_);
    EXPECT_TRUE(RecordBecomes("begin 11\n"));
    ::Sleep(6000);  // longer than Wine waits for a window, and than it takes it for hung
    adapter_control::Unplug(nx4120_);
    adapter_control::Plug(nx4120_);
    LetGoOn(3);
    const std::string once = "begin 11\nend 11 " + device + "\n";
    EXPECT_TRUE(RecordBecomes(once + once + once)) << Record();
}

namespace {

class DeviceNotificationFilter : public WineGap {
  protected:
    /// The error of a registration for `filter_`; 0 if it is granted.
    DWORD Register(HANDLE recipient, DWORD flags = 0) {
        ::SetLastError(0);
        const HDEVNOTIFY notification = ::RegisterDeviceNotificationW(recipient, &filter_, flags);
        if (notification == nullptr) return ::GetLastError();
        EXPECT_TRUE(::UnregisterDeviceNotification(notification));
        return 0;
    }
    struct {
        DEV_BROADCAST_DEVICEINTERFACE_W head = {sizeof(DEV_BROADCAST_DEVICEINTERFACE_W),
                                                DBT_DEVTYP_DEVICEINTERFACE,
                                                0,
                                                {0x11223344, 1, 2, {}},
                                                {}};
        BYTE more[64] = {};
    } filter_;
    const HWND window_ =
        ::CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
    static constexpr DWORD kInvalidParameter = ERROR_INVALID_PARAMETER;
    static constexpr DWORD kInvalidData = ERROR_INVALID_DATA;
};

}  // namespace

TEST_F(DeviceNotificationFilter, OfAnInterfaceClassIsGranted) {
    EXPECT_EQ(Register(window_), 0u);
    EXPECT_EQ(Register(window_, DEVICE_NOTIFY_ALL_INTERFACE_CLASSES), 0u);
}

TEST_F(DeviceNotificationFilter, NeedsARecipient) {
    EXPECT_EQ(Register(nullptr), kInvalidParameter);
    EXPECT_EQ(Register(nullptr, DEVICE_NOTIFY_SERVICE_HANDLE), kInvalidParameter);
    EXPECT_EQ(Register(reinterpret_cast<HANDLE>(0x123456), DEVICE_NOTIFY_SERVICE_HANDLE),
              static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

TEST_F(DeviceNotificationFilter, ThatIsMissingIsRefused) {
    EXPECT_EQ(::RegisterDeviceNotificationW(window_, nullptr, 0), nullptr);
    EXPECT_EQ(::GetLastError(), kInvalidParameter);
}

TEST_F(DeviceNotificationFilter, WithUnknownFlagsIsRefused) {
    EXPECT_EQ(Register(window_, 2), kInvalidParameter);
    EXPECT_EQ(Register(window_, 8), kInvalidParameter);
}

TEST_F(DeviceNotificationFilter, ThatIsTooSmallIsRefused) {
    for (const DWORD size : {DWORD{0}, DWORD{11}, DWORD{12}, DWORD{31}}) {
        filter_.head.dbcc_size = size;
        EXPECT_EQ(Register(window_), kInvalidData) << size;
    }
}

TEST_F(DeviceNotificationFilter, OfPortsVolumesAndOemDevicesIsRefused) {
    filter_.head.dbcc_size = sizeof filter_;
    for (const int type :
         {DBT_DEVTYP_OEM, DBT_DEVTYP_DEVNODE, DBT_DEVTYP_VOLUME, DBT_DEVTYP_PORT, DBT_DEVTYP_NET}) {
        filter_.head.dbcc_devicetype = static_cast<DWORD>(type);
        EXPECT_EQ(Register(window_), kInvalidData) << type;
    }
}

TEST_F(DeviceNotificationFilter, OfAllClassesIsForInterfacesOnly) {
    filter_.head.dbcc_size = sizeof filter_;
    filter_.head.dbcc_devicetype = DBT_DEVTYP_HANDLE;
    EXPECT_EQ(Register(window_, DEVICE_NOTIFY_ALL_INTERFACE_CLASSES), kInvalidParameter);
    EXPECT_EQ(Register(window_), static_cast<DWORD>(ERROR_NOT_SUPPORTED)) << "left out here";
}
