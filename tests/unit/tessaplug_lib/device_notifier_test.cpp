#include <windows.h>

#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "module_hooks.h"
#include "scripted_notifier.h"
#include "tessaplug_pnp.h"
#include "text_of.h"
#include "trace_recorder.h"
#include "windows_api_excp.h"

using namespace scripted;
using tessaplug::DeviceContainer;
using test_support::ModuleHooks;
using test_support::TextOf;

TEST(DeviceContainer, KeepsModelsInOrderAndFindsThemByGuid) {
    DeviceContainer container;
    const ModelRecord a = Model(kGuidA, L"A");
    container.push(a, NotificationOf(1));
    container.push(Model(kGuidB, L"B"), NotificationOf(2));

    EXPECT_TRUE(container.contains_device_with(kGuidA));
    EXPECT_FALSE(container.contains_device_with(kGuidC));
    EXPECT_EQ(container.get_device_from(kGuidA), a);
    EXPECT_EQ(container.pop()->Notification(), NotificationOf(2));
    EXPECT_EQ(container.pop(kGuidA)->Model(), a);
    EXPECT_TRUE(container.empty());
}

TEST(DeviceContainer, RefusesWhatItCannotDo) {
    DeviceContainer container;
    EXPECT_THROW(container.pop(), std::runtime_error);
    container.push(Model(kGuidA, L"A"), NotificationOf(1));
    EXPECT_EQ(TextOf<std::runtime_error>([&] { container.push(Model(kGuidA, L"Again"), NotificationOf(2)); }),
              "Device already in container!");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { container.get_device_from(kGuidB); }),
              "Device not in container!");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { container.pop(kGuidB); }), "Device not in container!");
    container.pop();
    EXPECT_TRUE(container.empty()) << "the refused one was not kept";
    EXPECT_EQ(TextOf<std::runtime_error>([&] { container.pop(); }), "Container is empty!");
}

TEST(DeviceContainer, TakesOutTheOneThatIsAskedFor) {
    DeviceContainer container;
    container.push(Model(kGuidA, L"A"), NotificationOf(1));
    container.push(Model(kGuidB, L"B"), NotificationOf(2));
    container.push(Model(kGuidC, L"C"), NotificationOf(3));
    EXPECT_EQ(container.pop(kGuidB)->Notification(), NotificationOf(2));
    EXPECT_FALSE(container.contains_device_with(kGuidB));
    EXPECT_EQ(container.pop()->Notification(), NotificationOf(3));
    EXPECT_EQ(container.pop()->Notification(), NotificationOf(1));
}

TEST(DeviceContainer, IsTracedWhenItIsSearched) {
    DeviceContainer container;
    container.push(Model(kGuidA, L"A"), NotificationOf(1));
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kModuleGuid, trace::kVerbose, trace::kMessage, 1);

    container.contains_device_with(kGuidB);

    const auto traced = test_support::TakeTraceRecords();
    ASSERT_EQ(traced.size(), 1u);
    EXPECT_EQ(traced[0].Text(0), container.Print());
}

TEST(DeviceContainer, PrintsItsEntries) {
    DeviceContainer container;
    EXPECT_EQ(container.Print(), "DeviceContainer:[]");
    container.push(Model(kGuidA, L"A"), NotificationOf(1));
    EXPECT_EQ(container.Print(),
              "DeviceContainer:[Device: A, Guid: {A0000000-0001-0002-0304-05060708090A}; ]");
    container.push(Model(kGuidB, L"B"), NotificationOf(2));
    EXPECT_EQ(container.Print(),
              "DeviceContainer:[Device: A, Guid: {A0000000-0001-0002-0304-05060708090A}; "
              "Device: B, Guid: {B0000000-0001-0002-0304-05060708090A}; ]");
}

TEST_F(Notifier, RegistersWithServiceHandleAndFilter) {
    notifier_->Initialize(kServiceHandle);
    notifier_->Register(Model(kGuidA, L"A"));

    EXPECT_EQ(user32_->lastRecipient, kServiceHandle);
    EXPECT_EQ(user32_->lastFlags, 1u) << "a service handle, and the class of the filter only";
    EXPECT_EQ(user32_->lastFilter.dbcc_size, 32u);
    EXPECT_EQ(user32_->lastFilter.dbcc_devicetype, 5u);
    EXPECT_EQ(user32_->lastFilter.dbcc_reserved, 0u);
    EXPECT_TRUE(IsEqualGUID(user32_->lastFilter.dbcc_classguid, kGuidA));
}

/// A model for which memory runs out when it is to be kept: at the second look at its class.
class ModelThatCannotBeKept : public tessaplug::CommunicationProcessorDb {
  public:
    ModelThatCannotBeKept() : CommunicationProcessorDb({}, kGuidA, L"A") {}
    const GUID& DeviceInterfaceGuid() const override {
        if (++looks_ == 2) throw std::bad_alloc();
        return CommunicationProcessorDb::DeviceInterfaceGuid();
    }

  private:
    mutable int looks_ = 0;
};

TEST_F(Notifier, NotificationThatCannotBeKeptIsUnregisteredAgain) {
    notifier_->Initialize(kServiceHandle);
    EXPECT_THROW(notifier_->Register(std::make_shared<ModelThatCannotBeKept>()), std::bad_alloc);
    EXPECT_EQ(user32_->handedOut, 1);
    EXPECT_EQ(journal_, (Journal{"unregister 1"}));
}

TEST_F(Notifier, RefusesAWrongSequence) {
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { notifier_->Initialize(nullptr); }),
              "Invalid Parameter! ServiceHndl is NULL");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { notifier_->Register(Model(kGuidA, L"A")); }),
              "Wrong Sequence! Missing Initialize.");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { notifier_->UnRegister(kGuidA); }),
              "Invalid sequence: Register before unregister!");
    notifier_->Initialize(kServiceHandle);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { notifier_->Initialize(kServiceHandle); }),
              "Wrong sequence! Already initialized");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { notifier_->UnRegister(kGuidA); }), "No registered devices!");
    notifier_->Register(Model(kGuidA, L"A"));
    EXPECT_EQ(TextOf<std::runtime_error>([&] { notifier_->Register(Model(kGuidA, L"A")); }),
              "Device already registered!");
    EXPECT_EQ(user32_->handedOut, 1) << "Windows was not asked again";
    EXPECT_EQ(TextOf<std::runtime_error>([&] { notifier_->Initialize(nullptr); }),
              "Wrong sequence! Already initialized");
}

TEST_F(Notifier, ModelIsRegisteredAndKeptBeforeItsLogDevicesAreUpdated) {
    notifier_->Initialize(kServiceHandle);
    std::string text;
    deviceInterfaces_->onQuery = [&] {
        deviceInterfaces_->onQuery = nullptr;
        EXPECT_EQ(user32_->handedOut, 1);
        text = TextOf<std::runtime_error>([&] { notifier_->Register(Model(kGuidA, L"A")); });
    };

    notifier_->Register(Model(kGuidA, L"A"));

    EXPECT_EQ(text, "Device already registered!");
    EXPECT_TRUE(IsEqualGUID(deviceInterfaces_->lastClass, kGuidA));
}

TEST_F(Notifier, FailedUpdateLeavesTheModelRegistered) {
    notifier_->Initialize(kServiceHandle);
    deviceInterfaces_->fail = true;
    notifier_->Register(Model(kGuidA, L"A"));
    EXPECT_EQ(TextOf<std::runtime_error>([&] { notifier_->Register(Model(kGuidA, L"A")); }),
              "Device already registered!");
    notifier_->Cleanup();
    EXPECT_EQ(journal_, (Journal{"unregister 1"}));
}

TEST_F(Notifier, RefusedRegistrationNamesTheCall) {
    notifier_->Initialize(kServiceHandle);
    user32_->refuse = true;
    const std::string text =
        TextOf<modul_exception::CWindowsApiExcp>([&] { notifier_->Register(Model(kGuidA, L"A")); });
    EXPECT_TRUE(text.starts_with("FAILED! RegisterDeviceNotificationW()! LE(5): ")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: Unknown\n")) << text;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { notifier_->UnRegister(kGuidA); }), "No registered devices!");
    user32_->refuse = false;
    EXPECT_NO_THROW(notifier_->Register(Model(kGuidA, L"A")));
}

TEST_F(Notifier, UnRegisterOfAnUnknownGuidLeavesTheOtherInPlace) {
    RegisterQuietly(Model(kGuidA, L"A"));

    notifier_->UnRegister(kGuidB);

    EXPECT_TRUE(journal_.empty());
    notifier_->UnRegister(kGuidA);
    EXPECT_EQ(journal_, (Journal{"unregister 1"}));
    EXPECT_EQ(TextOf<std::runtime_error>([&] { notifier_->UnRegister(kGuidA); }), "No registered devices!");
    notifier_->Cleanup();
    EXPECT_EQ(journal_, (Journal{"unregister 1"})) << "once";
}

TEST_F(Notifier, UnRegisteredModelCanBeRegisteredAgain) {
    RegisterQuietly(Model(kGuidA, L"A"));
    notifier_->UnRegister(kGuidA);
    notifier_->Register(Model(kGuidA, L"A"));
    notifier_->Cleanup();
    EXPECT_EQ(journal_, (Journal{"unregister 1", "unregister 2"}));
}

TEST_F(Notifier, RefusedUnRegisterNamesTheCall) {
    RegisterQuietly(Model(kGuidA, L"A"));
    user32_->refuse = true;
    const std::string text = TextOf<modul_exception::CWindowsApiExcp>([&] { notifier_->UnRegister(kGuidA); });
    EXPECT_TRUE(text.starts_with("FAILED! UnregisterDeviceNotification()! LE(6): ")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: \n")) << text;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { notifier_->UnRegister(kGuidA); }), "No registered devices!")
        << "forgotten all the same";
}

TEST_F(Notifier, CleanupUnregistersInReverseOrderAndGoesOnAfterAFailure) {
    notifier_->Initialize(kServiceHandle);
    for (const GUID& guid : {kGuidA, kGuidB, kGuidC})
        notifier_->Register(Model(guid, L"M"));
    user32_->refuse = true;
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kModuleGuid, trace::kError, trace::kMessage, 1);

    notifier_->Cleanup();

    EXPECT_EQ(journal_, (Journal{"unregister 3", "unregister 2", "unregister 1"}));
    const auto traced = test_support::TakeTraceRecords();
    ASSERT_EQ(traced.size(), 3u);
    EXPECT_EQ(traced[0].Text(0), modul_exception::GetSystemErrorText(ERROR_INVALID_HANDLE));
}

TEST_F(Notifier, CleanupForgetsTheServiceHandleBeforeItUnregisters) {
    RegisterQuietly(Model(kGuidA, L"A"));
    std::string text;
    user32_->onUnregister = [&] {
        user32_->onUnregister = nullptr;
        text = TextOf<std::runtime_error>([&] { notifier_->Register(Model(kGuidB, L"B")); });
    };
    notifier_->Cleanup();
    EXPECT_EQ(text, "Wrong Sequence! Missing Initialize.");
}

TEST_F(Notifier, CleanupOfAnEmptyNotifierOnlyForgetsTheHandle) {
    notifier_->Initialize(kServiceHandle);
    notifier_->Cleanup();
    EXPECT_TRUE(journal_.empty());
    EXPECT_THROW(notifier_->Register(Model(kGuidA, L"A")), std::runtime_error);
}

TEST_F(Notifier, CanBeInitialisedAgainAfterCleanup) {
    RegisterQuietly(Model(kGuidA, L"A"));
    notifier_->Cleanup();
    notifier_->Initialize(reinterpret_cast<SERVICE_STATUS_HANDLE>(0x88));
    notifier_->Register(Model(kGuidA, L"A"));
    EXPECT_EQ(user32_->lastRecipient, reinterpret_cast<HANDLE>(0x88));
}

TEST_F(Notifier, DestructionUnregisters) {
    RegisterQuietly(Model(kGuidA, L"A"));
    notifier_.reset();
    EXPECT_EQ(journal_, (Journal{"unregister 1"}));
}

TEST_F(Notifier, ExceptionDuringDestructionIsAssertedAndStaysInside) {
    RegisterQuietly(Model(kGuidA, L"A"));
    user32_->onUnregister = [] { throw 42; };
    const ModuleHooks hooks;

    EXPECT_NO_THROW(notifier_.reset());

    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"!\"EXCEPTION in DTOR!\""}));
}
