#pragma once

#include <windows.h>
#include <dbt.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "module_hooks.h"
#include "tessaplug_intern.h"
#include "unique_handle.h"

/// A service on collaborators that tests can tell how to behave.
namespace service_test {

using test_support::ModuleHooks;
using test_support::SysLogEntry;

inline const auto kStatusHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(0x51);
inline constexpr SysLogEntry kStarted{1, 0x100};
inline constexpr SysLogEntry kStartFailed{3, 0xC0000101};
inline constexpr SysLogEntry kNotRunning{2, 0x80000104};

/// Settings with an instance lock of its own for each test.
class TestSettings : public tessaplug::ServiceDb {
  public:
    const std::wstring& GlobalInstanceLockName() const override { return name_; }
    unsigned int ApiVersion() const override {
        if (onApiVersion) onApiVersion();
        return ServiceDb::ApiVersion();
    }

    std::function<void()> onApiVersion;

  private:
    std::wstring name_ =
        L"TESSAPLUG_TEST_LOCK_" + std::to_wstring(::GetCurrentProcessId()) + L"_" + std::to_wstring(++count_);
    static inline int count_ = 0;
};

/// A notifier that records; events wait for the test if it says so.
class FakeNotifier : public tessaplug::DeviceNotifier {
  public:
    void Initialize(SERVICE_STATUS_HANDLE handle) override {
        DeviceNotifier::Initialize(handle);
        if (failInitialize) throw std::runtime_error("no notifications");
        initializedWith = handle;
    }
    void Cleanup() override {
        ++cleanups;
        if (onCleanup) onCleanup();
    }
    void Register(const tessaplug::ModelRecord& model) override {
        registered.push_back(model->DisplayedDeviceName());
    }
    void OnDeviceArrival(const GUID& guid, DWORD) override {
        lastGuid = guid;
        ::SetEvent(arrived.get());
        if (onArrival) onArrival();
    }

    bool failInitialize = false;
    std::function<void()> onCleanup;
    std::function<void()> onArrival;
    SERVICE_STATUS_HANDLE initializedWith = nullptr;
    int cleanups = 0;
    std::vector<std::wstring> registered;
    GUID lastGuid = {};
    UniqueKernelHandle arrived{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

/// A log that waits until it is cancelled.
class QuietLog : public operating_system::EventLog {
  public:
    QuietLog() : EventLog(L"System") {}
    void Open() override { ::Sleep(opensAfterMs); }
    void Close() override {}
    std::vector<std::byte> BlockingRead() override {
        ::WaitForSingleObject(cancelled_.get(), INFINITE);
        return {};
    }
    void CancelRead() override { ::SetEvent(cancelled_.get()); }

    std::atomic<DWORD> opensAfterMs = 0;

  private:
    UniqueKernelHandle cancelled_{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

/// A monitor that can be told not to report its changes of state, and to hang.
class FakeMonitor : public tessaplug::EventLogMonitor {
  public:
    FakeMonitor() : FakeMonitor(std::make_unique<QuietLog>()) {}
    DWORD Run() override {
        ++runs;
        const DWORD result = EventLogMonitor::Run();
        while (hang)
            ::Sleep(10);
        --runs;
        return result;
    }
    void Stop(bool stopFlag) override {
        stops.push_back(stopFlag);
        EventLogMonitor::Stop(stopFlag);
    }
    bool WaitBlockingForStateChange(DWORD timeout) override {
        timeouts.push_back(timeout);
        const bool changed =
            EventLogMonitor::WaitBlockingForStateChange(faster != 0 ? timeout / faster : 10000);
        return changed && !silent;
    }
    QuietLog& log() { return *log_; }

    std::atomic<int> runs = 0;  // bodies that have begun and not returned
    std::atomic<bool> hang = false;
    bool silent = false;
    DWORD faster = 0;  // how many times shorter it waits; 0 waits for long
    std::vector<bool> stops;
    std::vector<DWORD> timeouts;

  private:
    explicit FakeMonitor(std::unique_ptr<QuietLog> log) : FakeMonitor(log.get(), std::move(log)) {}
    FakeMonitor(QuietLog* log, std::unique_ptr<operating_system::EventLog> owned)
        : EventLogMonitor(With(std::move(owned))), log_(log) {}
    static tessaplug::EventLogMonitorCollaborators With(std::unique_ptr<operating_system::EventLog> log) {
        tessaplug::EventLogMonitorCollaborators collaborators;
        collaborators.eventLog = std::move(log);
        return collaborators;
    }

    QuietLog* log_;
};

/// What the host was told. One lives at a time: a clean-up makes the plug-in forget the context.
struct Host {
    Host() { live = this; }
    ~Host() { live = nullptr; }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    std::vector<SERVICE_STATUS> reports;
    std::vector<void*> contexts;
    std::function<void()> onReport;

    static void WINAPI Callback(void* context, SERVICE_STATUS* status) {
        live->reports.push_back(*status);
        live->contexts.push_back(context);
        if (live->onReport) live->onReport();
    }

  private:
    static inline Host* live = nullptr;
};

class ServiceTest : public testing::Test {
  protected:
    tessaplug::ServiceCollaborators Collaborators() {
        tessaplug::ServiceCollaborators collaborators;
        collaborators.settings = settings_;
        collaborators.deviceNotifier = notifier_;
        collaborators.eventLogMonitor = monitor_;
        collaborators.sleep = [this](DWORD milliseconds) {
            sleeps_.push_back(milliseconds);
            ::Sleep(50);  // enough for what does not hang
        };
        return collaborators;
    }
    DWORD Init() { return service_->init(0x00010001, kStatusHandle, &Host::Callback, &host_, 0); }
    bool Arrived() { return ::WaitForSingleObject(notifier_->arrived.get(), 10000) == WAIT_OBJECT_0; }

    ModuleHooks hooks_;
    Host host_;
    std::shared_ptr<TestSettings> settings_ = std::make_shared<TestSettings>();
    std::shared_ptr<FakeNotifier> notifier_ = std::make_shared<FakeNotifier>();
    std::shared_ptr<FakeMonitor> monitor_ = std::make_shared<FakeMonitor>();
    std::vector<DWORD> sleeps_;
    std::unique_ptr<tessaplug::Service> service_ = std::make_unique<tessaplug::Service>(Collaborators());
};

inline DEV_BROADCAST_DEVICEINTERFACE_W EventDataOf(const GUID& guid) {
    DEV_BROADCAST_DEVICEINTERFACE_W data = {};
    data.dbcc_size = sizeof data;
    data.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    data.dbcc_classguid = guid;
    return data;
}

inline bool Exists(const wchar_t* mutexName) {
    return UniqueKernelHandle(::OpenMutexW(SYNCHRONIZE, FALSE, mutexName)) ? true : false;
}

inline constexpr wchar_t kNx4120Mutex[] = L"Global\\NX4120_MTX__{16FBF2EA-4B2A-4A48-98A0-0E4C66BD1459}";

}  // namespace service_test
