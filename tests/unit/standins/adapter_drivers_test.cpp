#include <windows.h>
#include <dbt.h>
#include <initguid.h>
#include <setupapi.h>

#include <devguid.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "adapter_control.h"
#include "program_folder.h"

using adapter_control::DevicePaths;
using adapter_control::Model;
using adapter_control::Plug;
using adapter_control::Unplug;

namespace {

/// Both models installed and unplugged.
class Adapters : public testing::Test {
  protected:
    Adapters() {
        for (const Model& model : adapter_control::Models())
            adapter_control::Install(model, InfPath());
        UnplugAll();
    }
    ~Adapters() override { UnplugAll(); }

    static std::wstring InfPath() { return test_support::ProgramFolder() + L"adapters.inf"; }
    static void UnplugAll() {
        for (const Model& model : adapter_control::Models())
            for (const DWORD port : {0u, 1u})
                Unplug(model, port);
    }

    const Model& nx4120_ = *adapter_control::FindModel(L"nx4120");
    const Model& fennlinkU3_ = *adapter_control::FindModel(L"Fennlink U3");
};

/// A device as an installation leaves it that is killed before the driver is assigned.
void RegisterWithoutDriver(const Model& model) {
    const HDEVINFO set = ::SetupDiCreateDeviceInfoList(&GUID_DEVCLASS_SYSTEM, nullptr);
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof device;
    EXPECT_TRUE(::SetupDiCreateDeviceInfoW(set, L"System", &GUID_DEVCLASS_SYSTEM, nullptr, nullptr,
                                           DICD_GENERATE_ID, &device));
    const std::wstring ids = model.hardwareId + std::wstring(2, L'\0');
    EXPECT_TRUE(::SetupDiSetDeviceRegistryPropertyW(set, &device, SPDRP_HARDWAREID,
                                                    reinterpret_cast<const BYTE*>(ids.data()),
                                                    static_cast<DWORD>(ids.size() * sizeof(wchar_t))));
    EXPECT_TRUE(::SetupDiCallClassInstaller(DIF_REGISTERDEVICE, set, &device));
    ::SetupDiDestroyDeviceInfoList(set);
}

struct Event {
    WPARAM type;
    GUID guid;
    std::wstring path;
};
std::vector<Event> events;

LRESULT CALLBACK RecordEvents(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message != WM_DEVICECHANGE || lParam == 0) return ::DefWindowProcW(window, message, wParam, lParam);
    const auto* data = reinterpret_cast<const DEV_BROADCAST_DEVICEINTERFACE_W*>(lParam);
    events.push_back({wParam, data->dbcc_classguid, data->dbcc_name});
    return TRUE;
}

/// Dispatches messages until so many events have come, or the time is up.
bool WaitForEvents(std::size_t count, ULONGLONG milliseconds = 10000) {
    const ULONGLONG deadline = ::GetTickCount64() + milliseconds;
    while (events.size() < count && ::GetTickCount64() < deadline) {
        ::MsgWaitForMultipleObjects(0, nullptr, FALSE, 100, QS_ALLINPUT);
        MSG message;
        while (::PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE))
            ::DispatchMessageW(&message);
    }
    return events.size() == count;
}

}  // namespace

TEST_F(Adapters, PluggedOneIsEnumeratedAndUnpluggedOneIsNot) {
    EXPECT_TRUE(DevicePaths(nx4120_).empty());
    Plug(nx4120_);
    EXPECT_EQ(DevicePaths(nx4120_).size(), 1u);
    EXPECT_TRUE(DevicePaths(fennlinkU3_).empty()) << "the models are independent";
    Plug(nx4120_);
    EXPECT_EQ(DevicePaths(nx4120_).size(), 1u) << "plugged in already";
    Unplug(nx4120_);
    EXPECT_TRUE(DevicePaths(nx4120_).empty());
}

TEST_F(Adapters, TwoPortsAreTwoInterfaces) {
    Plug(fennlinkU3_, 0);
    Plug(fennlinkU3_, 1);
    const auto paths = DevicePaths(fennlinkU3_);
    ASSERT_EQ(paths.size(), 2u);
    EXPECT_NE(paths[0], paths[1]);
    Unplug(fennlinkU3_, 0);
    EXPECT_EQ(DevicePaths(fennlinkU3_), (std::vector<std::wstring>{paths[1]}));
    EXPECT_THROW(Plug(fennlinkU3_, 2), adapter_control::AdapterError);
}

TEST_F(Adapters, WindowsAreNotified) {
    WNDCLASSW windowClass = {};
    windowClass.lpfnWndProc = &RecordEvents;
    windowClass.lpszClassName = L"AdapterTest";
    ::RegisterClassW(&windowClass);
    const HWND window =
        ::CreateWindowExW(0, L"AdapterTest", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
    DEV_BROADCAST_DEVICEINTERFACE_W filter = {};
    filter.dbcc_size = sizeof filter;
    filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    filter.dbcc_classguid = nx4120_.interfaceClass;
    const HDEVNOTIFY notification =
        ::RegisterDeviceNotificationW(window, &filter, DEVICE_NOTIFY_WINDOW_HANDLE);
    ASSERT_NE(notification, nullptr);

    // Under Wine a registration takes effect a little after it was made.
    for (int i = 0; i < 50 && events.empty(); ++i) {
        Plug(nx4120_, 1);
        Unplug(nx4120_, 1);
        WaitForEvents(2, 200);
    }
    events.clear();

    Plug(fennlinkU3_);  // another class: not to be seen
    Plug(nx4120_);
    const auto paths = DevicePaths(nx4120_);
    Unplug(nx4120_);

    ASSERT_TRUE(WaitForEvents(2));
    EXPECT_EQ(events[0].type, static_cast<WPARAM>(DBT_DEVICEARRIVAL));
    EXPECT_EQ(events[1].type, static_cast<WPARAM>(DBT_DEVICEREMOVECOMPLETE));
    for (const Event& event : events) {
        EXPECT_TRUE(IsEqualGUID(event.guid, nx4120_.interfaceClass));
        EXPECT_EQ(::_wcsicmp(event.path.c_str(), paths.at(0).c_str()), 0);
    }
    ::UnregisterDeviceNotification(notification);
    ::DestroyWindow(window);
}

TEST_F(Adapters, InstallationIsRepeatable) {
    EXPECT_TRUE(adapter_control::IsInstalled(nx4120_));
    EXPECT_FALSE(adapter_control::Install(nx4120_, L"not read when installed"));
    EXPECT_TRUE(adapter_control::Uninstall(nx4120_));
    EXPECT_FALSE(adapter_control::IsInstalled(nx4120_));
    EXPECT_FALSE(adapter_control::Uninstall(nx4120_));
    EXPECT_TRUE(adapter_control::Install(nx4120_, InfPath()));
    EXPECT_TRUE(DevicePaths(nx4120_).empty()) << "a fresh one is unplugged";
}

TEST_F(Adapters, InterruptedInstallationIsRepeated) {
    adapter_control::Uninstall(nx4120_);
    for (int port = 0; port < 2; ++port)
        RegisterWithoutDriver(nx4120_);
    EXPECT_FALSE(adapter_control::IsInstalled(nx4120_));
    EXPECT_TRUE(adapter_control::Install(nx4120_, InfPath()));
    EXPECT_TRUE(adapter_control::IsInstalled(nx4120_));
    Plug(nx4120_);
    EXPECT_EQ(DevicePaths(nx4120_).size(), 1u);
}
