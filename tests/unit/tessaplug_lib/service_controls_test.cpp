#include <windows.h>
#include <dbt.h>

#include <atomic>
#include <cstddef>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "service_test.h"
#include "trace_point.h"
#include "trace_recorder.h"

// What the service makes of the controls that the host forwards.

using namespace service_test;
using tessaplug::kFennlinkU3InterfaceGuid;
using tessaplug::kNx4120InterfaceGuid;

namespace {

constexpr GUID kServiceMessageGuid = trace::GuidFrom("8b5d2e70-6a9c-4f14-9d3b-1c7e4f8a2d14");

/// The text that the service has traced under a number since the last look.
std::string TracedText(USHORT number) {
    for (const auto& record : test_support::TakeTraceRecords())
        if (IsEqualGUID(record.messageGuid, kServiceMessageGuid) && record.number == number)
            return record.Text(0);
    return "nothing";
}

}  // namespace

TEST_F(ServiceTest, DeviceEventReachesTheNotifier) {
    ASSERT_EQ(Init(), 1u);
    auto data = EventDataOf(kFennlinkU3InterfaceGuid);

    EXPECT_EQ(service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr),
              0u);

    ASSERT_TRUE(Arrived());
    EXPECT_TRUE(IsEqualGUID(notifier_->lastGuid, kFennlinkU3InterfaceGuid));
    service_->cleanup();
}

TEST_F(ServiceTest, DeviceEventWithoutInterfaceRecordCarriesAZeroGuid) {
    ASSERT_EQ(Init(), 1u);
    notifier_->lastGuid = kNx4120InterfaceGuid;
    auto data = EventDataOf(kNx4120InterfaceGuid);
    data.dbcc_devicetype = DBT_DEVTYP_PORT;

    service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr);
    ASSERT_TRUE(Arrived());
    EXPECT_TRUE(IsEqualGUID(notifier_->lastGuid, GUID{}));

    notifier_->lastGuid = kNx4120InterfaceGuid;
    service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, nullptr, nullptr);
    ASSERT_TRUE(Arrived());
    EXPECT_TRUE(IsEqualGUID(notifier_->lastGuid, GUID{}));
    service_->cleanup();
}

TEST_F(ServiceTest, DeviceEventBeforeInitAndAfterCleanupIsDroppedAndLogged) {
    auto data = EventDataOf(kNx4120InterfaceGuid);
    EXPECT_EQ(service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr),
              0u);
    ASSERT_EQ(Init(), 1u);
    service_->cleanup();
    EXPECT_EQ(service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr),
              0u);

    EXPECT_EQ(hooks_.SysLogEntries(), (std::vector<SysLogEntry>{kNotRunning, kStarted, kNotRunning}));
}

TEST_F(ServiceTest, ExceptionInsideTheHandlerIsAssertedAndStaysInside) {
    hooks_.throwFromSysLog = true;
    EXPECT_EQ(
        service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, nullptr, nullptr), 0u);
    ASSERT_EQ(hooks_.Assertions().size(), 1u);
    EXPECT_EQ(hooks_.Assertions()[0].expression, L"!\"Unexpected Exception!\"");
    EXPECT_EQ(hooks_.Assertions()[0].sourcePath, L"tessaplug_lib\\src\\tessaplug_intern");
}

TEST_F(ServiceTest, OtherControlsAreIgnored) {
    for (const DWORD control :
         std::initializer_list<DWORD>{SERVICE_CONTROL_STOP, SERVICE_CONTROL_SHUTDOWN,
                                      SERVICE_CONTROL_INTERROGATE, SERVICE_CONTROL_PAUSE, 200}) {
        EXPECT_EQ(service_->service_ctrl_handler(control, 0, nullptr, nullptr), 0u);
    }
    EXPECT_TRUE(hooks_.SysLogEntries().empty());
}

TEST_F(ServiceTest, PowerEventsChangeNothing) {
    POWERBROADCAST_SETTING setting = {};
    setting.PowerSetting = GUID_MONITOR_POWER_ON;
    EXPECT_EQ(service_->service_ctrl_handler(SERVICE_CONTROL_POWEREVENT, PBT_APMSUSPEND, nullptr, nullptr),
              0u);
    EXPECT_EQ(
        service_->service_ctrl_handler(SERVICE_CONTROL_POWEREVENT, PBT_POWERSETTINGCHANGE, &setting, nullptr),
        0u);
    EXPECT_TRUE(hooks_.Assertions().empty());
}

TEST_F(ServiceTest, PowerSettingChangeWithoutDataIsAsserted) {
    EXPECT_EQ(
        service_->service_ctrl_handler(SERVICE_CONTROL_POWEREVENT, PBT_POWERSETTINGCHANGE, nullptr, nullptr),
        0u);
    ASSERT_EQ(hooks_.Assertions().size(), 1u);
    EXPECT_EQ(hooks_.Assertions()[0].expression, L"lpEventData != nullptr");
    EXPECT_EQ(hooks_.Assertions()[0].line, 657u);
}

TEST_F(ServiceTest, EventDataThatPointsNowhereIsAssertedAndTheNextEventIsHandled) {
    ASSERT_EQ(Init(), 1u);
    for (void* nowhere : {reinterpret_cast<void*>(8), reinterpret_cast<void*>(~ULONG_PTR{15})}) {
        EXPECT_EQ(
            service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, nowhere, nullptr),
            0u);
        EXPECT_EQ(service_->service_ctrl_handler(SERVICE_CONTROL_POWEREVENT, PBT_POWERSETTINGCHANGE, nowhere,
                                                 nullptr),
                  0u);
    }
    EXPECT_EQ(hooks_.AssertedExpressions(), (std::vector<std::wstring>(4, L"!\"Unexpected Exception!\"")));

    auto data = EventDataOf(kFennlinkU3InterfaceGuid);
    service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr);
    EXPECT_TRUE(Arrived());
    service_->cleanup();
}

/// Event data at the very end of a page that nothing readable follows.
class EventDataAtTheEndOfAPage {
  public:
    EventDataAtTheEndOfAPage(const std::wstring& name, DWORD size)
        : page_(static_cast<BYTE*>(::VirtualAlloc(nullptr, 2 * kPage, MEM_RESERVE, PAGE_NOACCESS))) {
        ::VirtualAlloc(page_, kPage, MEM_COMMIT, PAGE_READWRITE);
        const std::size_t bytes =
            offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name) + name.size() * sizeof(wchar_t);
        data_ = page_ + kPage - (bytes + 3) / 4 * 4;
        auto* record = reinterpret_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(data_);
        record->dbcc_size = size;
        record->dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
        record->dbcc_classguid = kFennlinkU3InterfaceGuid;
        name.copy(record->dbcc_name, name.size());
    }
    ~EventDataAtTheEndOfAPage() { ::VirtualFree(page_, 0, MEM_RELEASE); }
    EventDataAtTheEndOfAPage(const EventDataAtTheEndOfAPage&) = delete;
    EventDataAtTheEndOfAPage& operator=(const EventDataAtTheEndOfAPage&) = delete;

    void* get() { return data_; }

  private:
    static constexpr std::size_t kPage = 4096;
    BYTE* page_;
    BYTE* data_ = nullptr;
};

TEST_F(ServiceTest, DeviceNameEndsWithTheEventDataEvenWithoutAZero) {
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kModuleGuid, trace::kInformation, trace::kMessage, 1);
    ASSERT_EQ(Init(), 1u);
    constexpr DWORD kNameOffset = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name);
    EventDataAtTheEndOfAPage named(L"\\\\?\\USB#U3", kNameOffset + 20);
    service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, named.get(), nullptr);
    ASSERT_TRUE(Arrived());
    EventDataAtTheEndOfAPage nameless(L"", kNameOffset);
    service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, nameless.get(), nullptr);
    ASSERT_TRUE(Arrived());
    service_->cleanup();

    std::vector<std::wstring> names;
    for (const auto& record : test_support::TakeTraceRecords())
        if (IsEqualGUID(record.messageGuid, kServiceMessageGuid) && record.number == 32)
            names.push_back(record.WideText(0));
    EXPECT_EQ(names, (std::vector<std::wstring>{L"\\\\?\\USB#U3", L""}));
}

TEST_F(ServiceTest, EventsNobodyHandlesDisplaceNoneOfAModel) {
    ASSERT_EQ(Init(), 1u);
    auto ofTheU3 = EventDataOf(kFennlinkU3InterfaceGuid);
    const GUID foreign = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
    auto ofAnother = EventDataOf(foreign);
    std::atomic<int> ofTheModel = 0;
    std::atomic<int> ofOthers = 0;
    notifier_->onArrival = [&] {
        ++(IsEqualGUID(notifier_->lastGuid, kFennlinkU3InterfaceGuid) ? ofTheModel : ofOthers);
        if (ofTheModel != 1) return;
        service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &ofTheU3, nullptr);
        for (int i = 0; i < 3; ++i)
            service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &ofAnother,
                                           nullptr);
    };
    service_->service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &ofTheU3, nullptr);
    EXPECT_TRUE(test_support::Eventually([&] { return ofTheModel == 2; }));
    service_->cleanup();
    EXPECT_EQ(ofOthers, 0);
}

TEST_F(ServiceTest, PowerEventsAreTracedByName) {
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kModuleGuid, trace::kInformation, trace::kMessage, 1);
    const std::vector<std::pair<DWORD, std::string>> events = {
        {0, "PBT_APMQUERYSUSPEND"},     {1, "UNKONW: PBT_APM!"},          {2, "PBT_APMQUERYSUSPENDFAILED"},
        {4, "PBT_APMSUSPEND"},          {6, "PBT_APMRESUMECRITICAL"},     {7, "PBT_APMRESUMESUSPEND"},
        {9, "PBT_APMBATTERYLOW"},       {10, "PBT_APMPOWERSTATUSCHANGE"}, {11, "PBT_APMOEMEVENT"},
        {18, "PBT_APMRESUMEAUTOMATIC"}, {0x8014, "UNKONW: PBT_APM!"}};
    for (const auto& [type, name] : events) {
        test_support::TakeTraceRecords();
        service_->service_ctrl_handler(SERVICE_CONTROL_POWEREVENT, type, nullptr, nullptr);
        EXPECT_EQ(TracedText(33), name) << type;
    }
    const std::vector<std::pair<GUID, std::string>> settings = {
        {GUID_ACDC_POWER_SOURCE, "GUID_ACDC_POWER_SOURCE"},
        {GUID_BATTERY_PERCENTAGE_REMAINING, "GUID_BATTERY_PERCENTAGE_REMAINING"},
        {GUID_IDLE_BACKGROUND_TASK, "GUID_IDLE_BACKGROUND_TASK"},
        {GUID_MONITOR_POWER_ON, "GUID_MONITOR_POWER_ON"},
        {GUID_POWERSCHEME_PERSONALITY, "GUID_POWERSCHEME_PERSONALITY"},
        {GUID_SYSTEM_AWAYMODE, "GUID_SYSTEM_AWAYMODE"},
        {GUID_CONSOLE_DISPLAY_STATE, "UNKNOWN! PWR SETTING GUID!"}};
    for (const auto& [guid, name] : settings) {
        test_support::TakeTraceRecords();
        POWERBROADCAST_SETTING setting = {};
        setting.PowerSetting = guid;
        service_->service_ctrl_handler(SERVICE_CONTROL_POWEREVENT, PBT_POWERSETTINGCHANGE, &setting, nullptr);
        EXPECT_EQ(TracedText(34), name);
    }
}
