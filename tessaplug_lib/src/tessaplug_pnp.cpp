#include "tessaplug_pnp.h"

#include <windows.h>
#include <dbt.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "slim_lock.h"
#include "structured_exception.h"
#include "toolbox.h"
#include "trace_point.h"
#include "windows_api_excp.h"

TRACE_SOURCE("tessaplug_lib\\src\\tessaplug_pnp", "a4c8e2b6-7f1d-4e35-8c90-2d6b9f3a1e12", trace::kModule);

namespace tessaplug {
namespace {

constexpr wchar_t kHiddenFlag[] = L"hidden";

std::string NarrowName(const ModelRecord& model) {
    FUNCTION_TRACE();
    return toolbox::WstringToString(model->DisplayedDeviceName());
}

std::wstring Joined(const std::vector<std::wstring>& names) {
    FUNCTION_TRACE();
    std::wstring text;
    for (const std::wstring& name : names)
        text += name + L"; ";
    return text;
}

}  // namespace

void DeviceContainer::push(const ModelRecord& model, HDEVNOTIFY notification) {
    FUNCTION_TRACE();
    if (contains_device_with(model->DeviceInterfaceGuid()))
        MODUL_THROW(std::runtime_error("Device already in container!"));
    devices_.push_back(std::make_shared<RegisteredDevice>(model, notification));
}

bool DeviceContainer::contains_device_with(const GUID& guid) const {
    FUNCTION_TRACE();
    TRACE_VERBOSE(10, "%s", Print());
    return std::ranges::any_of(devices_, [&guid](const auto& device) { return device->Has(guid); });
}

ModelRecord DeviceContainer::get_device_from(const GUID& guid) const {
    FUNCTION_TRACE();
    const auto found =
        std::ranges::find_if(devices_, [&guid](const auto& device) { return device->Has(guid); });
    if (found == devices_.end()) MODUL_THROW(std::runtime_error("Device not in container!"));
    return (*found)->Model();
}

std::shared_ptr<RegisteredDevice> DeviceContainer::pop(const GUID& guid) {
    FUNCTION_TRACE();
    const auto found =
        std::ranges::find_if(devices_, [&guid](const auto& device) { return device->Has(guid); });
    if (found == devices_.end()) MODUL_THROW(std::runtime_error("Device not in container!"));
    std::shared_ptr<RegisteredDevice> device = std::move(*found);
    devices_.erase(found);
    return device;
}

std::shared_ptr<RegisteredDevice> DeviceContainer::pop() {
    FUNCTION_TRACE();
    if (devices_.empty()) MODUL_THROW(std::runtime_error("Container is empty!"));
    std::shared_ptr<RegisteredDevice> device = std::move(devices_.back());
    devices_.pop_back();
    return device;
}

std::string DeviceContainer::Print() const {
    FUNCTION_TRACE();
    std::string text = "DeviceContainer:[";
    for (const auto& device : devices_) {
        text += "Device: " + NarrowName(device->Model()) +
                ", Guid: " + toolbox::GuidToString(&device->Model()->DeviceInterfaceGuid()) + "; ";
    }
    return text + "]";
}

DeviceNotifier::KeepLibraries::KeepLibraries(DeviceNotifier& notifier) : notifier_(notifier) {
    FUNCTION_TRACE();
    ++notifier_.keepers_;
}

DeviceNotifier::KeepLibraries::~KeepLibraries() {
    FUNCTION_TRACE();
    if (--notifier_.keepers_ > 0) return;
    notifier_.configurationLibrary_.Release();
    notifier_.setupApi_.Release();
}

DeviceNotifier::DeviceNotifier(DeviceNotifierCollaborators collaborators)
    : collaborators_(std::move(collaborators)) {
    FUNCTION_TRACE();
}

DeviceNotifier::~DeviceNotifier() {
    FUNCTION_TRACE();
    try {
        DeviceNotifier::Cleanup();
    } catch (...) {
        MODUL_FAIL("EXCEPTION in DTOR!");
    }
}

void DeviceNotifier::Initialize(SERVICE_STATUS_HANDLE serviceHandle) {
    FUNCTION_TRACE();
    if (serviceHndl_ != nullptr) MODUL_THROW(std::runtime_error("Wrong sequence! Already initialized"));
    if (serviceHandle == nullptr)
        MODUL_THROW(std::invalid_argument("Invalid Parameter! ServiceHndl is NULL"));
    serviceHndl_ = serviceHandle;
}

void DeviceNotifier::Register(const ModelRecord& model) {
    FUNCTION_TRACE();
    if (serviceHndl_ == nullptr) MODUL_THROW(std::runtime_error("Wrong Sequence! Missing Initialize."));
    const GUID& guid = model->DeviceInterfaceGuid();
    if (devices_.contains_device_with(guid)) {
        TRACE_ERROR(11, "%S %s is registered already", model->DisplayedDeviceName(),
                    toolbox::GuidToString(&guid));
        MODUL_THROW(std::runtime_error("Device already registered!"));
    }
    const HDEVNOTIFY notification = RegisterNotification(guid);
    try {
        devices_.push(model, notification);
    } catch (...) {
        UnregInternal(notification, true);  // nobody else knows of it
        throw;
    }
    UpdateLogDeviceStateToDeviceState(model);
    TRACE_INFO(12, "%S %s registered", model->DisplayedDeviceName(), toolbox::GuidToString(&guid));
}

HDEVNOTIFY DeviceNotifier::RegisterNotification(const GUID& guid) {
    FUNCTION_TRACE();
    MODUL_ASSERT(serviceHndl_ != nullptr);
    DEV_BROADCAST_DEVICEINTERFACE_W filter = {};
    static_assert(sizeof filter == 32);
    filter.dbcc_size = sizeof filter;
    filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    filter.dbcc_classguid = guid;
    const HDEVNOTIFY notification = collaborators_.user32->RegisterDeviceNotificationW(
        serviceHndl_, &filter, DEVICE_NOTIFY_SERVICE_HANDLE);
    if (notification == nullptr)
        MODUL_THROW(modul_exception::CWindowsApiExcp("RegisterDeviceNotificationW()", "Unknown"));
    TRACE_VERBOSE(13, "Notification registered for %s", toolbox::GuidToString(&guid));
    return notification;
}

void DeviceNotifier::UnRegister(const GUID& guid) {
    FUNCTION_TRACE();
    if (serviceHndl_ == nullptr)
        MODUL_THROW(std::runtime_error("Invalid sequence: Register before unregister!"));
    if (devices_.empty()) MODUL_THROW(std::runtime_error("No registered devices!"));
    if (!devices_.contains_device_with(guid)) {
        TRACE_WARNING(14, "%s is not registered", toolbox::GuidToString(&guid));
        return;
    }
    UnregInternal(devices_.pop(guid)->Notification(), false);
}

void DeviceNotifier::UnregInternal(HDEVNOTIFY Hndl, bool NoThrow) {
    FUNCTION_TRACE();
    MODUL_ASSERT(Hndl != nullptr);
    if (collaborators_.user32->UnregisterDeviceNotification(Hndl)) {
        TRACE_VERBOSE(15, "Notification %p unregistered", Hndl);
        return;
    }
    if (!NoThrow) MODUL_THROW(modul_exception::CWindowsApiExcp("UnregisterDeviceNotification()", ""));
    TRACE_ERROR(16, "UnregisterDeviceNotification() failed: %s",
                modul_exception::GetSystemErrorText(::GetLastError()));
}

void DeviceNotifier::Cleanup() {
    FUNCTION_TRACE();
    serviceHndl_ = nullptr;
    while (!devices_.empty())
        UnregInternal(devices_.pop()->Notification(), true);
}

void DeviceNotifier::OnDeviceArrival(const GUID& guid, DWORD /*eventType*/) {
    FUNCTION_TRACE();
    OnPnpEvent(guid, true);
}

void DeviceNotifier::OnDeviceRemoval(const GUID& guid, DWORD /*eventType*/) {
    FUNCTION_TRACE();
    OnPnpEvent(guid, false);
}

void DeviceNotifier::OnPnpEvent(const GUID& guid, bool arrival) {
    FUNCTION_TRACE();
    const char* event = arrival ? "arrival" : "removal";
    TRACE_INFO(17, "Device %s: %s", event, arrival ? "UnHide" : "Hide");
    try {
        if (!devices_.contains_device_with(guid)) {
            TRACE_INFO(18, "%s is not registered", toolbox::GuidToString(&guid));
            return;
        }
        const ModelRecord model = devices_.get_device_from(guid);
        const KeepLibraries keep(*this);
        operating_system::CallForeign([&] {
            // First, so that the processor is released before its access points disappear.
            if (!arrival) StopDeviceInStationManager(model);
            ShowOrHideAll(model, arrival, arrival);
        });
    } catch (const std::exception& error) {
        TRACE_ERROR(19, "Device %s: %s", event, error.what());
    } catch (...) {
        MODUL_FAIL("Unexpected exception!");
    }
    TRACE_INFO(20, "Device %s done", event);
}

void DeviceNotifier::StopDeviceInStationManager(const ModelRecord& model) const {
    FUNCTION_TRACE();
    const std::wstring& name = model->StationManagerCatalogName();
    if (name.empty()) {
        TRACE_INFO(33, "The station manager does not know %S", model->DisplayedDeviceName());
        return;
    }
    try {
        const auto stationManager = collaborators_.stationManagers->Create();
        stationManager->Initialize();
        stationManager->StopCpBy(toolbox::WstringToString(name));
        TRACE_INFO(34, "The station manager has let go of %S", name);
    } catch (const std::exception& error) {
        TRACE_ERROR(35, "The station manager does not let go of %S: %s", name, error.what());
    }
}

void DeviceNotifier::ShowOrHideAll(const ModelRecord& model, bool arrival, bool runPanel) {
    FUNCTION_TRACE();
    std::vector<std::wstring> filtered;
    RemoveNotInstalledProfiles(filtered, model->SupportedLogDevices());
    bool panelMayRun = runPanel;
    for (const std::wstring& name : filtered) {
        const auto logDevice = OpenLogDevice(name);
        if (!logDevice->Exists()) {
            TRACE_WARNING(21, "Log device %S does not exist", name);
            if (!panelMayRun) continue;
            panelMayRun = false;  // one run makes all that are missing
            // What it makes is looked for by a library that is loaded after it.
            configurationLibrary_.Release();
            quelm::LookUpPathOnce::Forget();
            collaborators_.panel->CallSilent();
            TRACE_INFO(36, "The interface-setup panel has run");
        } else if (arrival) {
            logDevice->DisableFlagNdi(kHiddenFlag);
            TRACE_INFO(22, "Unhide %S", name);
        } else {
            logDevice->EnableFlagNdi(kHiddenFlag);
            TRACE_INFO(23, "Hide %S", name);
        }
    }
}

void DeviceNotifier::UpdateLogDeviceStateToDeviceState(const ModelRecord& model) {
    FUNCTION_TRACE();
    try {
        const KeepLibraries keep(*this);
        operating_system::CallForeign([&] {
            const bool plugged = IsPresent(model->DeviceInterfaceGuid());
            TRACE_INFO(24, "%S: %s", model->DisplayedDeviceName(), plugged ? "PluggedIn" : "UnPlugged");
            ShowOrHideAll(model, plugged, false);
        });
    } catch (const std::exception& error) {
        TRACE_ERROR(25, "%S: %s", model->DisplayedDeviceName(), error.what());
    } catch (...) {
        MODUL_FAIL("Unexpected exception!");
    }
}

bool DeviceNotifier::IsPresent(const GUID& guid) {
    FUNCTION_TRACE();
    const auto device = collaborators_.deviceInterfaces->create_from(guid);
    setupApi_.KeepIfLoaded();
    return device->IsPresent();
}

std::shared_ptr<korvane::LogDeviceDatabaseIf> DeviceNotifier::OpenLogDevice(const std::wstring& name) {
    FUNCTION_TRACE();
    auto logDevice = collaborators_.logDevices->create_from_log_device(
        std::make_shared<korvane::LogDeviceName>(toolbox::WstringToString(name)));
    configurationLibrary_.KeepIfLoaded();
    return logDevice;
}

std::vector<std::string> DeviceNotifier::InstalledLogDevices() {
    FUNCTION_TRACE();
    const auto defaults = collaborators_.createDefaultLogDevices();
    configurationLibrary_.KeepIfLoaded();
    return defaults->Installed();
}

void DeviceNotifier::RemoveNotInstalledProfiles(std::vector<std::wstring>& filtered,
                                                const std::vector<std::wstring>& names) {
    FUNCTION_TRACE();
    filtered.clear();
    std::vector<std::wstring> installed;
    for (const std::string& name : InstalledLogDevices())
        installed.push_back(toolbox::StringToWstring(name));
    std::ranges::copy_if(names, std::back_inserter(filtered), [&installed](const std::wstring& name) {
        return std::ranges::find(installed, name) != installed.end();
    });
    TRACE_VERBOSE(26, "Supported: %S installed: %S kept: %S", Joined(names), Joined(installed),
                  Joined(filtered));
}

std::unique_ptr<Request> RequestQueue::Push(std::unique_ptr<Request> request) {
    FUNCTION_TRACE();
    if (requests_.size() < 2) {
        requests_.push_back(std::move(request));
        return nullptr;
    }
    return std::exchange(requests_[1], std::move(request));
}

std::unique_ptr<Request> RequestQueue::Take() {
    FUNCTION_TRACE();
    if (requests_.empty()) return nullptr;
    std::unique_ptr<Request> next = std::move(requests_.back());
    requests_.clear();
    return next;
}

namespace {

/// One for each loaded plug-in: the control handler's thread and the worker meet here.
struct PnpRequests {
    SlimLock lock;  // guards everything below
    RequestQueue nx4120;
    RequestQueue others;
    HANDLE ghPnPEvent = nullptr;  // auto-reset; null while no monitor runs
    std::shared_ptr<windows_api::CKernel32> kernel32;
} pnpRequests;

void WakeWorker() {
    FUNCTION_TRACE();
    if (!pnpRequests.kernel32->SetEvent(pnpRequests.ghPnPEvent))
        TRACE_ERROR(27, "SetEvent(PnPEvent) failed, LE(%u)", ::GetLastError());
}

bool HasRequests() {
    FUNCTION_TRACE();
    const std::lock_guard guard(pnpRequests.lock);
    return !pnpRequests.nx4120.empty() || !pnpRequests.others.empty();
}

/// The name is public. Where somebody else has it, whose event may be of another kind or be waited for by
/// others, or whose object is no event at all, the worker's event has none.
HANDLE CreateWakeUpEvent(windows_api::CKernel32& kernel32) {
    FUNCTION_TRACE();
    ::SetLastError(ERROR_SUCCESS);
    const HANDLE event = kernel32.CreateEventW(nullptr, FALSE, FALSE, L"PnPEvent");
    const DWORD error = ::GetLastError();
    const bool isOurs = event != nullptr && error != ERROR_ALREADY_EXISTS;
    const bool isTaken = error == ERROR_ALREADY_EXISTS || error == ERROR_INVALID_HANDLE ||  // another kind
                         error == ERROR_ACCESS_DENIED;
    if (isOurs || !isTaken) return event;
    TRACE_WARNING(38, "PnPEvent is somebody else's, LE(%u): an event without a name is used", error);
    if (event != nullptr && !kernel32.CloseHandle(event))
        TRACE_WARNING(39, "CloseHandle(PnPEvent) failed, LE(%u)", ::GetLastError());
    return kernel32.CreateEventW(nullptr, FALSE, FALSE, nullptr);
}

/// Whether the worker does anything but trace it.
bool ChangesAModel(const Request& request) {
    FUNCTION_TRACE();
    const bool isModel = IsEqualGUID(request.interfaceClass, kNx4120InterfaceGuid) ||
                         IsEqualGUID(request.interfaceClass, kFennlinkU3InterfaceGuid);
    return isModel &&
           (request.eventType == DBT_DEVICEARRIVAL || request.eventType == DBT_DEVICEREMOVECOMPLETE);
}

}  // namespace

bool DeviceMonitor::Enqueue(std::unique_ptr<Request> request) {
    FUNCTION_TRACE();
    std::unique_ptr<Request> replaced;
    const std::lock_guard guard(pnpRequests.lock);
    if (pnpRequests.ghPnPEvent == nullptr) return false;
    RequestQueue& queue =
        IsEqualGUID(request->interfaceClass, kNx4120InterfaceGuid) ? pnpRequests.nx4120 : pnpRequests.others;
    if (!queue.empty() && !ChangesAModel(*request)) {
        // In the queue it would make an arrival or removal stale, or take its place.
        TRACE_INFO(37, "%s for %s dropped", DeviceEventName(request->eventType),
                   toolbox::GuidToString(&request->interfaceClass));
        return true;
    }
    replaced = queue.Push(std::move(request));
    WakeWorker();
    return true;
}

void DeviceMonitor::HandleThreadStart(std::shared_ptr<windows_api::CKernel32> kernel32) {
    FUNCTION_TRACE();
    // First, as it can fail: an event made before would be lost.
    const std::lock_guard guard(pnpRequests.lock);
    const HANDLE event = CreateWakeUpEvent(*kernel32);
    if (event == nullptr) {
        TRACE_ERROR(28, "CreateEventW(PnPEvent) failed, LE(%u)", ::GetLastError());
        MODUL_THROW(std::runtime_error("CreateEvent failed!"));
    }
    pnpRequests.kernel32 = std::move(kernel32);
    pnpRequests.ghPnPEvent = event;
}

void DeviceMonitor::HandleThreadStop() {
    FUNCTION_TRACE();
    const std::lock_guard guard(pnpRequests.lock);
    WakeWorker();
}

void DeviceMonitor::HandleThreadEnd() {
    FUNCTION_TRACE();
    const std::lock_guard guard(pnpRequests.lock);
    pnpRequests.nx4120.clear();
    pnpRequests.others.clear();
    if (!pnpRequests.kernel32->CloseHandle(pnpRequests.ghPnPEvent))
        TRACE_ERROR(29, "CloseHandle(PnPEvent) failed, LE(%u)", ::GetLastError());
    pnpRequests.ghPnPEvent = nullptr;
    pnpRequests.kernel32.reset();
}

void DeviceMonitor::RequestHandler(const interprocess::StopFlag& stopFlag) {
    FUNCTION_TRACE();
    try {
        operating_system::CallForeign([&] { ServeRequests(*stopFlag); });
    } catch (const std::runtime_error& error) {
        TRACE_ERROR(30, "Request worker ends: %s", error.what());
    } catch (...) {
        MODUL_FAIL("Unexpected Exception!");
    }
}

void DeviceMonitor::ServeRequests(const std::atomic<bool>& stop) {
    FUNCTION_TRACE();
    do {
        if (!HasRequests()) WaitForRequests();
        // One of each in every pass, so that a burst on one model cannot starve the other.
        ServeOne(pnpRequests.nx4120);
        ServeOne(pnpRequests.others);
    } while (!stop);
}

void DeviceMonitor::WaitForRequests() {
    FUNCTION_TRACE();
    const HANDLE ghPnPEvent = pnpRequests.ghPnPEvent;  // set before the thread, closed after it
    MODUL_ASSERT(ghPnPEvent != NULL);
    if (pnpRequests.kernel32->WaitForSingleObject(ghPnPEvent, INFINITE) != WAIT_OBJECT_0) {
        TRACE_ERROR(31, "WaitForSingleObject(PnPEvent) failed, LE(%u)", ::GetLastError());
        MODUL_THROW(std::runtime_error("WaitForSingleObject failed!"));
    }
}

void DeviceMonitor::ServeOne(RequestQueue& queue) {
    FUNCTION_TRACE();
    std::unique_ptr<Request> next;
    {
        const std::lock_guard guard(pnpRequests.lock);
        next = queue.Take();
    }
    if (next == nullptr) return;
    // A request whose handling throws is not deleted: the worker ends with it, and whoever looks at a memory
    // dump finds it as it was.
    const Request* request = next.release();
    Handle(*request);
    delete request;
}

void DeviceMonitor::Handle(const Request& request) {
    FUNCTION_TRACE();
    TRACE_INFO(32, "Handling %s", DeviceEventName(request.eventType));
    if (request.eventType == DBT_DEVICEARRIVAL)
        request.notifier->OnDeviceArrival(request.interfaceClass, request.eventType);
    else if (request.eventType == DBT_DEVICEREMOVECOMPLETE)
        request.notifier->OnDeviceRemoval(request.interfaceClass, request.eventType);
}

const char* DeviceEventName(DWORD eventType) {
    FUNCTION_TRACE();
    switch (eventType) {
        case DBT_DEVICEARRIVAL:
            return "DBT_DEVICEARRIVAL";
        case DBT_DEVICEQUERYREMOVE:
            return "DBT_DEVICEQUERYREMOVE";
        case DBT_DEVICEQUERYREMOVEFAILED:
            return "DBT_DEVICEQUERYREMOVEFAILED";
        case DBT_DEVICEREMOVEPENDING:
            return "DBT_DEVICEREMOVEPENDING";
        case DBT_DEVICEREMOVECOMPLETE:
            return "DBT_DEVICEREMOVECOMPLETE";
        case DBT_DEVICETYPESPECIFIC:
            return "DBT_DEVICETYPESPECIFIC";
        case DBT_CUSTOMEVENT:
            return "DBT_CUSTOMEVENT";
        case DBT_USERDEFINED:
            return "DBT_USERDEFINED";
        case DBT_DEVNODES_CHANGED:
            return "DBT_DEVNODES_CHANGED";
        case DBT_QUERYCHANGECONFIG:
            return "DBT_QUERYCHANGECONFIG";
        case DBT_CONFIGCHANGED:
            return "DBT_CONFIGCHANGED";
        case DBT_CONFIGCHANGECANCELED:
            return "DBT_CONFIGCHANGECANCELED";
        default:
            return "DBT_UNKNOWN";
    }
}

}  // namespace tessaplug
