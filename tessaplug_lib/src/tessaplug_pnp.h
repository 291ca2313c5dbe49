#pragma once

#include <windows.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kept_library.h"
#include "logdevice_db.h"
#include "quelm_orvix.h"
#include "statmgr_wrapper.h"
#include "tessaplug_database.h"
#include "tessaplug_orvix.h"
#include "thread_executor.h"
#include "win_api.h"
#include "win_pnp.h"

namespace tessaplug {

using ModelRecord = std::shared_ptr<CommunicationProcessorDb>;

/// A model for which a device notification is registered.
class RegisteredDevice {
  public:
    RegisteredDevice(ModelRecord model, HDEVNOTIFY notification)
        : model_(std::move(model)), notification_(notification) {}
    virtual ~RegisteredDevice() = default;

    const ModelRecord& Model() const { return model_; }
    HDEVNOTIFY Notification() const { return notification_; }
    bool Has(const GUID& guid) const { return IsEqualGUID(model_->DeviceInterfaceGuid(), guid) != 0; }

  private:
    ModelRecord model_;
    HDEVNOTIFY notification_;
};

/// The registered models, in the order of their registration. No two have the same device interface GUID.
class DeviceContainer {
  public:
    /// @throws std::runtime_error if a model with the same GUID is held
    void push(const ModelRecord& model, HDEVNOTIFY notification);
    bool contains_device_with(const GUID& guid) const;
    /// @throws std::runtime_error if no model has the GUID
    ModelRecord get_device_from(const GUID& guid) const;
    /// Removes the model with the GUID.
    /// @throws std::runtime_error if there is none
    std::shared_ptr<RegisteredDevice> pop(const GUID& guid);
    /// Removes the model that was registered last.
    /// @throws std::runtime_error if the container is empty
    std::shared_ptr<RegisteredDevice> pop();
    bool empty() const { return devices_.empty(); }
    /// All entries on one line, for traces.
    std::string Print() const;

  private:
    std::vector<std::shared_ptr<RegisteredDevice>> devices_;
};

/// What a DeviceNotifier works with.
struct DeviceNotifierCollaborators {
    std::shared_ptr<windows_api::CUser32> user32 = std::make_shared<windows_api::CUser32>();
    std::shared_ptr<quelm::TvorPanel> panel = std::make_shared<quelm::TvorPanel>();
    std::shared_ptr<operating_system::plug_and_play::DeviceInterfaceFactory> deviceInterfaces =
        std::make_shared<operating_system::plug_and_play::DeviceInterfaceFactory>();
    std::shared_ptr<korvane::LogDeviceDatabaseFactory> logDevices =
        std::make_shared<korvane::LogDeviceDatabaseFactory>();
    std::function<std::unique_ptr<korvane::DefaultLogDeviceDatabaseIf>()> createDefaultLogDevices =
        &korvane::DefaultLogDeviceDatabaseIf::Create;
    std::shared_ptr<korvane::StationManagerFactory> stationManagers =
        std::make_shared<korvane::StationManagerFactory>();
};

/// Has Windows tell the service about arrivals and removals of the models' device interfaces, and shows or
/// hides the models' log devices accordingly: a log device is hidden by its NDI flag "hidden".
///
/// Threads: Initialize, Register, UnRegister, Cleanup and the destructor belong to the thread that starts and
/// stops the service; OnDeviceArrival and OnDeviceRemoval to the request worker, which runs only between the
/// last Register and Cleanup. Nothing is locked.
class DeviceNotifier {
  public:
    /// As long as one lives, the libraries that the notifier's work has loaded stay loaded for what it does
    /// next, and are looked for once. Without one nothing is held: a library's file can be replaced between
    /// two events. For the thread on which the notifier works.
    class KeepLibraries {
      public:
        explicit KeepLibraries(DeviceNotifier& notifier);
        ~KeepLibraries();
        KeepLibraries(const KeepLibraries&) = delete;
        KeepLibraries& operator=(const KeepLibraries&) = delete;

      private:
        DeviceNotifier& notifier_;
        const quelm::LookUpPathOnce lookUpPathOnce_;
    };

    explicit DeviceNotifier(DeviceNotifierCollaborators collaborators = {});
    virtual ~DeviceNotifier();
    DeviceNotifier(const DeviceNotifier&) = delete;
    DeviceNotifier& operator=(const DeviceNotifier&) = delete;

    /// @throws std::runtime_error if it is initialised already
    /// @throws std::invalid_argument if the handle is null
    virtual void Initialize(SERVICE_STATUS_HANDLE serviceHandle);
    /// Unregisters every model, the last one first, and forgets the service handle. Never throws.
    virtual void Cleanup();
    /// Unregisters one model; a GUID that is not registered is only traced.
    /// @throws std::runtime_error before Initialize or if nothing is registered
    /// @throws modul_exception::CWindowsApiExcp if Windows refuses
    virtual void UnRegister(const GUID& guid);
    /// Registers one model for notifications and brings its log devices in line with the hardware as it is
    /// now.
    /// @throws std::runtime_error before Initialize or if the model is registered already
    /// @throws modul_exception::CWindowsApiExcp if Windows refuses
    virtual void Register(const ModelRecord& model);
    /// Shows the model's log devices and has the panel make those that are missing. Never throws.
    virtual void OnDeviceArrival(const GUID& guid, DWORD eventType);
    /// Has the station manager stop the model's components and hides its log devices. Never throws.
    virtual void OnDeviceRemoval(const GUID& guid, DWORD eventType);

  private:
    HDEVNOTIFY RegisterNotification(const GUID& guid);
    void UnregInternal(HDEVNOTIFY Hndl, bool NoThrow);
    void OnPnpEvent(const GUID& guid, bool arrival);
    void UpdateLogDeviceStateToDeviceState(const ModelRecord& model);
    void RemoveNotInstalledProfiles(std::vector<std::wstring>& filtered,
                                    const std::vector<std::wstring>& names);
    std::vector<std::string> InstalledLogDevices();
    std::shared_ptr<korvane::LogDeviceDatabaseIf> OpenLogDevice(const std::wstring& name);
    bool IsPresent(const GUID& guid);
    void StopDeviceInStationManager(const ModelRecord& model) const;
    /// @param runPanel whether the first missing log device has the interface-setup panel run
    void ShowOrHideAll(const ModelRecord& model, bool arrival, bool runPanel);

    SERVICE_STATUS_HANDLE serviceHndl_ = nullptr;
    DeviceContainer devices_;
    DeviceNotifierCollaborators collaborators_;
    int keepers_ = 0;  // how many KeepLibraries there are
    operating_system::KeptLibrary configurationLibrary_{quelm::kConfigurationLibraryName};
    operating_system::KeptLibrary setupApi_{L"setupapi.dll"};
};

/// One device event on its way from the control handler to the worker. The notifier outlives it.
struct Request {
    DWORD eventType = 0;
    GUID interfaceClass = {};
    std::shared_ptr<DeviceNotifier> notifier;
};

/// At most two requests: the one whose turn is next and the newest.
class RequestQueue {
  public:
    /// Appends a request, or puts it in the place of the second.
    /// @return the request that was replaced, for deletion outside of locks
    std::unique_ptr<Request> Push(std::unique_ptr<Request> request);
    /// Removes the request to be handled next. Of two the first is deleted unhandled: it is stale, as a newer
    /// event of the same model waits behind it. Null if the queue is empty.
    std::unique_ptr<Request> Take();
    bool empty() const { return requests_.empty(); }
    void clear() { requests_.clear(); }

  private:
    std::vector<std::unique_ptr<Request>> requests_;
};

/// The plug-and-play request worker: one thread that handles the requests of two module-wide queues, one for
/// the NX4120 and one for every other device interface class. One monitor exists at a time.
class DeviceMonitor : public interprocess::Executor<DeviceMonitor> {
  public:
    /// @throws std::runtime_error "CreateEvent failed!"
    /// @throws std::system_error if the thread cannot be created
    explicit DeviceMonitor(
        std::shared_ptr<windows_api::CKernel32> kernel32 = std::make_shared<windows_api::CKernel32>())
        : Executor(std::move(kernel32)) {}

    /// Queues a request and wakes the worker. Called on the control handler's thread; never waits for a
    /// device being handled. A request that is no arrival or removal of a model is queued into an empty queue
    /// only, and dropped otherwise.
    /// @return false if no monitor runs; the request is dropped then
    static bool Enqueue(std::unique_ptr<Request> request);

  private:
    friend Executor;
    static void HandleThreadStart(std::shared_ptr<windows_api::CKernel32> kernel32);
    static void RequestHandler(const interprocess::StopFlag& stopFlag);
    static void HandleThreadStop();
    static void HandleThreadEnd();

    static void ServeRequests(const std::atomic<bool>& stop);
    static void WaitForRequests();
    static void ServeOne(RequestQueue& queue);
    static void Handle(const Request& request);
};

/// Name of a device event (DBT_...) for traces.
const char* DeviceEventName(DWORD eventType);

}  // namespace tessaplug
