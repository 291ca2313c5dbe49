#pragma once

#include <windows.h>
#include <dbt.h>

#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tessaplug_pnp.h"

/// A device notifier whose partners are scripted and write down what is asked of them.
namespace scripted {

using operating_system::plug_and_play::DeviceInterface;
using tessaplug::CommunicationProcessorDb;
using tessaplug::DeviceNotifier;
using tessaplug::ModelRecord;

using Journal = std::vector<std::string>;

inline constexpr GUID kGuidA = {0xA0000000, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
inline constexpr GUID kGuidB = {0xB0000000, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
inline constexpr GUID kGuidC = {0xC0000000, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};

inline ModelRecord Model(const GUID& guid, const std::wstring& name,
                         const std::vector<std::wstring>& logDevices = {}) {
    return std::make_shared<CommunicationProcessorDb>(logDevices, guid, name);
}

inline const auto kServiceHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(0x77);

inline HDEVNOTIFY NotificationOf(int number) {
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
        return NotificationOf(++handedOut);
    }
    BOOL UnregisterDeviceNotification(HDEVNOTIFY notification) override {
        journal_.push_back("unregister " + std::to_string(reinterpret_cast<INT_PTR>(notification)));
        if (const auto hook = onUnregister) hook();  // a copy, as it may take itself out
        if (refuse) ::SetLastError(ERROR_INVALID_HANDLE);
        return refuse ? FALSE : TRUE;
    }

    bool refuse = false;
    std::function<void()> onUnregister;
    int handedOut = 0;
    HANDLE lastRecipient = nullptr;
    DWORD lastFlags = 0;
    DEV_BROADCAST_DEVICEINTERFACE_W lastFilter = {};

  private:
    Journal& journal_;
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
    std::shared_ptr<DeviceInterface> create_from(const GUID& guid) override {
        lastClass = guid;
        if (const auto hook = onQuery) hook();  // a copy, as it may take itself out
        if (fail) throw std::runtime_error("no device interfaces");
        return std::make_shared<FakeDeviceInterface>(plugged);
    }
    bool plugged = false;
    bool fail = false;
    std::function<void()> onQuery;
    GUID lastClass = {};
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
        if (raise != 0) ::RaiseException(raise, 0, 0, nullptr);
        if (fail) throw std::runtime_error("panel failed");
        if (throwNonStandard) throw 42;
    }
    bool fail = false;
    bool throwNonStandard = false;
    DWORD raise = 0;  // code of a structured exception

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

}  // namespace scripted
