#include <windows.h>
#include <dbt.h>

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "module_hooks.h"
#include "tessaplug_pnp.h"
#include "text_of.h"
#include "trace_recorder.h"
#include "windows_api_excp.h"

using operating_system::plug_and_play::DeviceInterface;
using tessaplug::CommunicationProcessorDb;
using tessaplug::DeviceContainer;
using tessaplug::DeviceNotifier;
using tessaplug::ModelRecord;
using test_support::ModuleHooks;
using test_support::TextOf;

namespace {

using Journal = std::vector<std::string>;

constexpr GUID kGuidA = {0xA0000000, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
constexpr GUID kGuidB = {0xB0000000, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
constexpr GUID kGuidC = {0xC0000000, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};

ModelRecord Model(const GUID& guid, const std::wstring& name,
                  const std::vector<std::wstring>& logDevices = {}) {
    return std::make_shared<CommunicationProcessorDb>(logDevices, guid, name);
}

const auto kServiceHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(0x77);

HDEVNOTIFY NotificationOf(int number) {
    return reinterpret_cast<HDEVNOTIFY>(static_cast<INT_PTR>(number));
}

/// Hands out the notifications 1, 2, 3...
class FakeUser32 : public windows_api::CUser32 {
  public:
    explicit FakeUser32(Journal& journal) : journal_(journal) {}

    HDEVNOTIFY RegisterDeviceNotificationW(HANDLE recipient, void* filter, DWORD flags) override {
        lastRecipient = recipient;
        lastFlags = flags;
        lastFilter = *static_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(filter);
        if (refuse) {
            ::SetLastError(ERROR_ACCESS_DENIED);
            return nullptr;
        }
        return NotificationOf(++handedOut_);
    }
    BOOL UnregisterDeviceNotification(HDEVNOTIFY notification) override {
        journal_.push_back("unregister " + std::to_string(reinterpret_cast<INT_PTR>(notification)));
        if (refuse) ::SetLastError(ERROR_INVALID_HANDLE);
        return refuse ? FALSE : TRUE;
    }

    bool refuse = false;
    HANDLE lastRecipient = nullptr;
    DWORD lastFlags = 0;
    DEV_BROADCAST_DEVICEINTERFACE_W lastFilter = {};

  private:
    Journal& journal_;
    int handedOut_ = 0;
};

class FakeDeviceInterface : public DeviceInterface {
  public:
    explicit FakeDeviceInterface(bool present) : present_(present) {}
    void Register(const GUID&) override {}
    bool IsPresent() override { return present_; }

  private:
    bool present_;
};

class FakeDeviceInterfaces : public operating_system::plug_and_play::DeviceInterfaceFactory {
  public:
    std::shared_ptr<DeviceInterface> create_from(const GUID&) override {
        if (fail) throw std::runtime_error("no device interfaces");
        return std::make_shared<FakeDeviceInterface>(plugged);
    }
    bool plugged = false;
    bool fail = false;
};

/// The configuration as the tests set it up: installed names, and existing log devices with their state.
struct Configuration {
    std::vector<std::string> installed;
    std::map<std::string, bool> hiddenByName;  // by classic, upper-case name
    std::string failingName;                   // writing its flag throws
    bool throwNonStandard = false;
    bool installedFails = false;
};

class FakeLogDevice : public korvane::LogDeviceDatabaseIf {
  public:
    FakeLogDevice(Configuration& configuration, Journal& journal, std::string name)
        : configuration_(configuration), journal_(journal), name_(std::move(name)) {}

    std::wstring ReadStringParameter(const std::wstring&) override { return {}; }
    unsigned long ReadParameter(const std::wstring&) override { return 0; }
    std::wstring ReadStringParameterNdi(const std::wstring&) override { return {}; }
    unsigned long ReadParameterNdi(const std::wstring&) override { return 0; }
    void DisableFlagNdi(const std::wstring& flag) override { Write(flag, false); }
    void EnableFlagNdi(const std::wstring& flag) override { Write(flag, true); }
    bool Exists() override {
        const bool exists = configuration_.hiddenByName.contains(name_);
        if (!exists) journal_.push_back("missing " + name_);
        return exists;
    }

  private:
    void Write(const std::wstring& flag, bool value) {
        if (name_ == configuration_.failingName) {
            if (configuration_.throwNonStandard) throw 42;
            throw std::runtime_error("write failed");
        }
        EXPECT_EQ(flag, L"hidden");
        journal_.push_back((value ? "hide " : "show ") + name_);
        configuration_.hiddenByName[name_] = value;
    }

    Configuration& configuration_;
    Journal& journal_;
    std::string name_;
};

class FakeLogDevices : public korvane::LogDeviceDatabaseFactory {
  public:
    FakeLogDevices(Configuration& configuration, Journal& journal)
        : configuration_(configuration), journal_(journal) {}
    std::shared_ptr<korvane::LogDeviceDatabaseIf> create_from_log_device(
        const std::shared_ptr<korvane::LogDeviceName>& name) override {
        return std::make_shared<FakeLogDevice>(configuration_, journal_, name->GetLogNameClassicA());
    }

  private:
    Configuration& configuration_;
    Journal& journal_;
};

class FakeDefaultLogDevices : public korvane::DefaultLogDeviceDatabaseIf {
  public:
    explicit FakeDefaultLogDevices(const Configuration& configuration) : configuration_(configuration) {}
    std::vector<std::string> Installed() override {
        if (configuration_.installedFails) throw std::runtime_error("template unreadable");
        return configuration_.installed;
    }

  private:
    const Configuration& configuration_;
};

class FakePanel : public quelm::TvorPanel {
  public:
    explicit FakePanel(Journal& journal) : journal_(journal) {}
    void CallSilent() override {
        journal_.push_back("panel");
        if (fail) throw std::runtime_error("panel failed");
        if (throwNonStandard) throw 42;
    }
    bool fail = false;
    bool throwNonStandard = false;

  private:
    Journal& journal_;
};

class FakeStationManager : public korvane::StationManagerIf {
  public:
    explicit FakeStationManager(Journal& journal) : journal_(journal) {}
    void Initialize() override { journal_.push_back("station manager"); }
    bool HasPluggedComponentes() override { return true; }
    void StopCpBy(const std::string& CpName) override { journal_.push_back("stop " + CpName); }

  private:
    Journal& journal_;
};

class FakeStationManagers : public korvane::StationManagerFactory {
  public:
    explicit FakeStationManagers(Journal& journal) : journal_(journal) {}
    std::shared_ptr<korvane::StationManagerIf> Create() override {
        if (fail) throw std::runtime_error("no station manager");
        if (throwNonStandard) throw 42;
        return std::make_shared<FakeStationManager>(journal_);
    }
    bool fail = false;
    bool throwNonStandard = false;

  private:
    Journal& journal_;
};

class Notifier : public testing::Test {
  protected:
    Notifier() {
        tessaplug::DeviceNotifierCollaborators collaborators;
        collaborators.user32 = user32_;
        collaborators.deviceInterfaces = deviceInterfaces_;
        collaborators.logDevices = std::make_shared<FakeLogDevices>(configuration_, journal_);
        collaborators.createDefaultLogDevices = [this] {
            return std::make_unique<FakeDefaultLogDevices>(configuration_);
        };
        collaborators.panel = panel_;
        collaborators.stationManagers = stationManagers_;
        notifier_ = std::make_unique<DeviceNotifier>(std::move(collaborators));
    }

    /// Registers a model while its device is absent and forgets what that wrote.
    void RegisterQuietly(const ModelRecord& model) {
        notifier_->Initialize(kServiceHandle);
        notifier_->Register(model);
        journal_.clear();
    }

    Journal journal_;
    Configuration configuration_;
    std::shared_ptr<FakeUser32> user32_ = std::make_shared<FakeUser32>(journal_);
    std::shared_ptr<FakeDeviceInterfaces> deviceInterfaces_ = std::make_shared<FakeDeviceInterfaces>();
    std::shared_ptr<FakePanel> panel_ = std::make_shared<FakePanel>(journal_);
    std::shared_ptr<FakeStationManagers> stationManagers_ = std::make_shared<FakeStationManagers>(journal_);
    std::unique_ptr<DeviceNotifier> notifier_;
};

class ModelWithThreeLogDevices : public Notifier {
  protected:
    ModelWithThreeLogDevices() {
        configuration_.installed = {"DEV(A)", "DEV(B)", "DEV(C)"};
        configuration_.hiddenByName = {{"DEV(A)", false}, {"DEV(B)", false}, {"DEV(C)", false}};
    }
    ModelRecord model_ = Model(kGuidA, L"Device", {L"DEV(A)", L"DEV(B)", L"DEV(C)"});
};

/// The same, known to the station manager.
class ModelOfTheStationManager : public ModelWithThreeLogDevices {
  protected:
    ModelOfTheStationManager() {
        RegisterQuietly(std::make_shared<CommunicationProcessorDb>(
            std::vector<std::wstring>{L"DEV(A)", L"DEV(B)", L"DEV(C)"}, kGuidA, L"Device", L"CATALOGUE"));
    }
};

}  // namespace

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
    EXPECT_EQ(TextOf<std::runtime_error>([&] { container.pop(); }), "Container is empty!");
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
    EXPECT_EQ(user32_->lastFlags, static_cast<DWORD>(DEVICE_NOTIFY_SERVICE_HANDLE));
    EXPECT_EQ(user32_->lastFilter.dbcc_size, 32u);
    EXPECT_EQ(user32_->lastFilter.dbcc_devicetype, 5u);
    EXPECT_EQ(user32_->lastFilter.dbcc_reserved, 0u);
    EXPECT_TRUE(IsEqualGUID(user32_->lastFilter.dbcc_classguid, kGuidA));
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
}

TEST_F(Notifier, RefusedRegistrationNamesTheCall) {
    notifier_->Initialize(kServiceHandle);
    user32_->refuse = true;
    const std::string text =
        TextOf<modul_exception::CWindowsApiExcp>([&] { notifier_->Register(Model(kGuidA, L"A")); });
    EXPECT_TRUE(text.starts_with("FAILED! RegisterDeviceNotificationW()! LE(5): ")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: Unknown\n")) << text;
}

TEST_F(Notifier, UnRegisterOfAnUnknownGuidLeavesTheOtherInPlace) {
    RegisterQuietly(Model(kGuidA, L"A"));

    notifier_->UnRegister(kGuidB);

    EXPECT_TRUE(journal_.empty());
    notifier_->UnRegister(kGuidA);
    EXPECT_EQ(journal_, (Journal{"unregister 1"}));
}

TEST_F(Notifier, RefusedUnRegisterNamesTheCall) {
    RegisterQuietly(Model(kGuidA, L"A"));
    user32_->refuse = true;
    const std::string text = TextOf<modul_exception::CWindowsApiExcp>([&] { notifier_->UnRegister(kGuidA); });
    EXPECT_TRUE(text.starts_with("FAILED! UnregisterDeviceNotification()! LE(6): ")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: \n")) << text;
}

TEST_F(Notifier, CleanupUnregistersInReverseOrderAndGoesOnAfterAFailure) {
    notifier_->Initialize(kServiceHandle);
    for (const GUID& guid : {kGuidA, kGuidB, kGuidC})
        notifier_->Register(Model(guid, L"M"));
    user32_->refuse = true;

    notifier_->Cleanup();

    EXPECT_EQ(journal_, (Journal{"unregister 3", "unregister 2", "unregister 1"}));
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

TEST_F(ModelWithThreeLogDevices, RegistrationShowsThemWhenTheDeviceIsPresent) {
    deviceInterfaces_->plugged = true;
    notifier_->Initialize(kServiceHandle);
    notifier_->Register(model_);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "show DEV(B)", "show DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, RegistrationHidesThemWhenTheDeviceIsAbsent) {
    notifier_->Initialize(kServiceHandle);
    notifier_->Register(model_);
    EXPECT_EQ(journal_, (Journal{"hide DEV(A)", "hide DEV(B)", "hide DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, RegistrationSkipsTheMissingOne) {
    configuration_.hiddenByName.erase("DEV(B)");
    notifier_->Initialize(kServiceHandle);
    notifier_->Register(model_);
    EXPECT_EQ(journal_, (Journal{"hide DEV(A)", "missing DEV(B)", "hide DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, FailureDuringRegistrationStaysInside) {
    deviceInterfaces_->fail = true;
    notifier_->Initialize(kServiceHandle);
    EXPECT_NO_THROW(notifier_->Register(model_));
    EXPECT_TRUE(journal_.empty());
}

TEST_F(ModelWithThreeLogDevices, ArrivalShowsAndRemovalHides) {
    RegisterQuietly(model_);
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "show DEV(B)", "show DEV(C)"}));
    journal_.clear();
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(journal_, (Journal{"hide DEV(A)", "hide DEV(B)", "hide DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, ArrivalHandlesTheNamesAfterAMissingOne) {
    configuration_.hiddenByName.erase("DEV(B)");
    RegisterQuietly(model_);
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "missing DEV(B)", "panel", "show DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, PanelRunsOncePerArrival) {
    configuration_.hiddenByName.clear();
    RegisterQuietly(model_);
    const Journal once = {"missing DEV(A)", "panel", "missing DEV(B)", "missing DEV(C)"};
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kModuleGuid, trace::kWarning, trace::kMessage, 1);
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, once);
    const auto traced = test_support::TakeTraceRecords();
    ASSERT_EQ(traced.size(), 3u) << "each missing one is traced";
    EXPECT_EQ(traced[0].WideText(0), L"DEV(A)");
    EXPECT_EQ(traced[2].WideText(0), L"DEV(C)");
    journal_.clear();
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, once) << "each arrival anew";
}

TEST_F(ModelWithThreeLogDevices, PanelDoesNotRunOnRemoval) {
    configuration_.hiddenByName.erase("DEV(B)");
    RegisterQuietly(model_);
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(journal_, (Journal{"hide DEV(A)", "missing DEV(B)", "hide DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, PanelDoesNotRunAtRegistration) {
    configuration_.hiddenByName.clear();
    deviceInterfaces_->plugged = true;
    notifier_->Initialize(kServiceHandle);
    notifier_->Register(model_);
    EXPECT_EQ(journal_, (Journal{"missing DEV(A)", "missing DEV(B)", "missing DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, FailingPanelEndsTheEvent) {
    configuration_.hiddenByName.erase("DEV(B)");
    RegisterQuietly(model_);
    panel_->fail = true;
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "missing DEV(B)", "panel"}));
}

TEST_F(ModelOfTheStationManager, RemovalStopsBeforeTheFirstIsHidden) {
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(journal_,
              (Journal{"station manager", "stop CATALOGUE", "hide DEV(A)", "hide DEV(B)", "hide DEV(C)"}));
}

TEST_F(ModelOfTheStationManager, ArrivalLeavesTheStationManagerAlone) {
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "show DEV(B)", "show DEV(C)"}));
}

TEST_F(ModelOfTheStationManager, RemovalGoesOnWithoutAStationManager) {
    stationManagers_->fail = true;
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(journal_, (Journal{"hide DEV(A)", "hide DEV(B)", "hide DEV(C)"}));
}

TEST_F(ModelOfTheStationManager, AnyOtherExceptionOfItIsAssertedAndEndsTheEvent) {
    stationManagers_->throwNonStandard = true;
    const ModuleHooks hooks;
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"!\"Unexpected exception!\""}));
    EXPECT_TRUE(journal_.empty());
}

TEST_F(ModelWithThreeLogDevices, OnlyInstalledOnesAreTouched) {
    configuration_.installed = {"DEV(C)", "OTHER(A)", "dev(b)", "DEV(A)X"};
    RegisterQuietly(model_);
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(C)"})) << "names are compared by case and whole";
}

TEST_F(ModelWithThreeLogDevices, NothingIsWrittenWhenNoneIsInstalled) {
    configuration_.installed.clear();
    RegisterQuietly(model_);
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_TRUE(journal_.empty());
}

TEST_F(ModelWithThreeLogDevices, EventOfAnUnregisteredClassChangesNothing) {
    RegisterQuietly(model_);
    notifier_->OnDeviceArrival(kGuidB, DBT_DEVICEARRIVAL);
    notifier_->OnDeviceRemoval({}, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_TRUE(journal_.empty());
}

TEST_F(ModelWithThreeLogDevices, FailureEndsTheEventAndKeepsTheLaterOnes) {
    RegisterQuietly(model_);
    configuration_.hiddenByName = {{"DEV(A)", false}, {"DEV(B)", false}, {"DEV(C)", false}};
    configuration_.failingName = "DEV(A)";

    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);

    EXPECT_TRUE(journal_.empty());
    EXPECT_FALSE(configuration_.hiddenByName["DEV(B)"]);
}

TEST_F(ModelWithThreeLogDevices, UnreadableTemplateEndsTheEvent) {
    RegisterQuietly(model_);
    configuration_.installedFails = true;
    EXPECT_NO_THROW(notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL));
    EXPECT_TRUE(journal_.empty());
}

TEST_F(ModelWithThreeLogDevices, AnyOtherExceptionIsAsserted) {
    RegisterQuietly(model_);
    configuration_.failingName = "DEV(B)";
    configuration_.throwNonStandard = true;
    const ModuleHooks hooks;

    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);

    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"!\"Unexpected exception!\""}));
    EXPECT_EQ(journal_, (Journal{"show DEV(A)"}));
}

TEST_F(ModelWithThreeLogDevices, AnyOtherExceptionDuringRegistrationIsAsserted) {
    configuration_.failingName = "DEV(B)";
    configuration_.throwNonStandard = true;
    const ModuleHooks hooks;
    notifier_->Initialize(kServiceHandle);

    EXPECT_NO_THROW(notifier_->Register(model_));

    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"!\"Unexpected exception!\""}));
}
