#include "event_forwarder.h"

#include <dbt.h>
#include <winsvc.h>

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "command.h"
#include "unique_handle.h"

using host::EventForwarder;
using test_support::Eventually;

namespace {

/// Takes events down; is held up from `Hold` to `Release`.
class Receiver {
  public:
    EventForwarder::Receiver Function() {
        return [this, life = life_](DWORD control, DWORD eventType, void* eventData) {
            ++entered_;
            ::WaitForSingleObject(go_.get(), INFINITE);
            const std::lock_guard guard(lock_);
            eventTypes_.push_back(eventType);
            threadId_ = ::GetCurrentThreadId();
            if (control == SERVICE_CONTROL_DEVICEEVENT && eventData != nullptr)
                names_.emplace_back(
                    static_cast<const DEV_BROADCAST_DEVICEINTERFACE_W*>(eventData)->dbcc_name);
            if (eventType == PBT_POWERSETTINGCHANGE)
                settings_.push_back(*static_cast<const POWERBROADCAST_SETTING*>(eventData));
        };
    }
    /// A receiver that knows when the forwarder has let go of it.
    EventForwarder::Receiver FunctionOnce() {
        auto function = Function();
        life_.reset();
        return function;
    }
    void Hold() { ::ResetEvent(go_.get()); }
    void Release() { ::SetEvent(go_.get()); }
    bool IsGone() const { return gone_.expired(); }
    int Entered() const { return entered_; }
    std::vector<DWORD> EventTypes() {
        const std::lock_guard guard(lock_);
        return eventTypes_;
    }
    bool Takes(std::size_t count) {
        return Eventually([&] { return EventTypes().size() == count; });
    }

    std::vector<std::wstring> names_;
    std::vector<POWERBROADCAST_SETTING> settings_;
    DWORD threadId_ = 0;

  private:
    std::shared_ptr<int> life_ = std::make_shared<int>();
    std::weak_ptr<int> gone_ = life_;
    UniqueKernelHandle go_{::CreateEventW(nullptr, TRUE, TRUE, nullptr)};
    std::atomic<int> entered_ = 0;
    std::mutex lock_;  // guards the records
    std::vector<DWORD> eventTypes_;
};

}  // namespace

TEST(EventForwarder, PassesEventsOnInOrderOnAThreadOfItsOwn) {
    Receiver receiver;
    EventForwarder forwarder(receiver.Function());
    for (DWORD i = 1; i <= 50; ++i)
        forwarder.Post(SERVICE_CONTROL_POWEREVENT, i, nullptr);
    ASSERT_TRUE(receiver.Takes(50));
    const std::vector<DWORD> taken = receiver.EventTypes();
    for (DWORD i = 1; i <= 50; ++i)
        EXPECT_EQ(taken[i - 1], i);
    EXPECT_NE(receiver.threadId_, ::GetCurrentThreadId());
}

TEST(EventForwarder, CopiesTheDataAsTheCallersIsGoneWhenItsTurnComes) {
    Receiver receiver;
    receiver.Hold();
    EventForwarder forwarder(receiver.Function());
    constexpr wchar_t kName[] = L"\\\\?\\a device with a name that is longer than the record's own room";
    std::vector<BYTE> device(offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name) + sizeof kName);
    auto* record = reinterpret_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(device.data());
    record->dbcc_size = static_cast<DWORD>(device.size());
    record->dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    std::memcpy(record->dbcc_name, kName, sizeof kName);
    forwarder.Post(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, device.data());
    std::memset(device.data(), 0xEE, device.size());
    POWERBROADCAST_SETTING setting = {};
    setting.PowerSetting.Data1 = 0x12345678;
    setting.DataLength = 1;
    setting.Data[0] = 7;
    forwarder.Post(SERVICE_CONTROL_POWEREVENT, PBT_POWERSETTINGCHANGE, &setting);
    setting = {};
    receiver.Release();
    ASSERT_TRUE(receiver.Takes(2));
    EXPECT_EQ(receiver.names_, (std::vector<std::wstring>{kName}));
    ASSERT_EQ(receiver.settings_.size(), 1u);
    EXPECT_EQ(receiver.settings_[0].PowerSetting.Data1, 0x12345678u);
    EXPECT_EQ(receiver.settings_[0].Data[0], 7);
}

TEST(EventForwarder, LeavesACallThatDoesNotReturnAlone) {
    Receiver receiver;
    receiver.Hold();
    auto forwarder = std::make_unique<EventForwarder>(receiver.FunctionOnce());
    forwarder->Post(SERVICE_CONTROL_POWEREVENT, 1, nullptr);
    forwarder->Post(SERVICE_CONTROL_POWEREVENT, 2, nullptr);
    ASSERT_TRUE(Eventually([&] { return receiver.Entered() == 1; }));
    EXPECT_FALSE(forwarder->Close());
    EXPECT_FALSE(forwarder->Close()) << "a second time as well";
    forwarder.reset();
    EXPECT_FALSE(receiver.IsGone()) << "what the call works with stays";
    receiver.Release();
    EXPECT_TRUE(Eventually([&] { return receiver.IsGone(); })) << "until it has returned";
    EXPECT_EQ(receiver.EventTypes(), (std::vector<DWORD>{1})) << "what waited comes no more";
}

TEST(EventForwarder, IsDoneWithTheReceiverWhenItIsClosed) {
    Receiver receiver;
    EventForwarder forwarder(receiver.FunctionOnce());
    forwarder.Post(SERVICE_CONTROL_POWEREVENT, 1, nullptr);
    ASSERT_TRUE(receiver.Takes(1));
    EXPECT_TRUE(forwarder.Close());
    EXPECT_TRUE(receiver.IsGone());
    forwarder.Post(SERVICE_CONTROL_POWEREVENT, 2, nullptr);
    EXPECT_EQ(receiver.EventTypes(), (std::vector<DWORD>{1}));
}

TEST(EventForwarder, DropsOfTooManyTheOldestThatALaterOneOutdates) {
    Receiver receiver;
    receiver.Hold();
    EventForwarder forwarder(receiver.Function());
    forwarder.Post(SERVICE_CONTROL_POWEREVENT, 0, nullptr);
    ASSERT_TRUE(Eventually([&] { return receiver.Entered() == 1; }));
    DEV_BROADCAST_DEVICEINTERFACE_W device = {};
    device.dbcc_size = sizeof device;
    device.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    const auto postOfClass = [&](unsigned long modelClass, DWORD eventType) {
        device.dbcc_classguid.Data1 = modelClass;
        return forwarder.Post(SERVICE_CONTROL_DEVICEEVENT, eventType, &device);
    };
    constexpr DWORD kMost = EventForwarder::kMostWaiting;
    EXPECT_TRUE(postOfClass(1, 1));
    for (DWORD i = 2; i <= kMost; ++i)
        EXPECT_TRUE(postOfClass(2, i));
    EXPECT_FALSE(postOfClass(2, kMost + 1));
    receiver.Release();
    ASSERT_TRUE(receiver.Takes(1 + kMost));
    EXPECT_EQ(receiver.EventTypes()[1], 1u) << "the only one of its model stays";
    EXPECT_EQ(receiver.EventTypes()[2], 3u);
    EXPECT_EQ(receiver.EventTypes().back(), kMost + 1);
}

TEST(EventForwarder, DropsTheOldestOfTooMany) {
    Receiver receiver;
    receiver.Hold();
    EventForwarder forwarder(receiver.Function());
    forwarder.Post(SERVICE_CONTROL_POWEREVENT, 0, nullptr);
    ASSERT_TRUE(Eventually([&] { return receiver.Entered() == 1; }));
    constexpr DWORD kMost = EventForwarder::kMostWaiting;
    for (DWORD i = 1; i <= kMost + 3; ++i)
        forwarder.Post(SERVICE_CONTROL_POWEREVENT, i, nullptr);
    receiver.Release();
    ASSERT_TRUE(receiver.Takes(1 + kMost));
    EXPECT_EQ(receiver.EventTypes()[1], 4u);
    EXPECT_EQ(receiver.EventTypes().back(), kMost + 3) << "the last state is what counts";
}
