#include <windows.h>
#include <dbt.h>
#include <setupapi.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cwchar>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "adapter_control.h"
#include "component_store.h"
#include "event_log_file.h"
#include "event_log_settings.h"
#include "exception_history.h"
#include "function_trace.h"
#include "log_device_store.h"
#include "memory_dump.h"
#include "station_manager.h"
#include "tessaplug_intern.h"
#include "trace_decoder.h"
#include "trace_point.h"
#include "wine_gap_loader.h"

TRACE_SOURCE("bench\\tessabench", "3d9e6c18-52b7-4a0f-8c61-b7f4e29d0a51", trace::kModule);

// Each measure of the plug-in stands beside its bare counterpart, made in the same run; the ratio is what
// counts. Times are medians of several rounds.
namespace {

using Clock = std::chrono::steady_clock;
using tessaplug::Service;

double Median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

/// Nanoseconds of one call, the median of eleven rounds.
double NanosecondsOf(int calls, const std::function<void()>& call) {
    std::vector<double> rounds;
    for (int round = 0; round < 11; ++round) {
        const auto start = Clock::now();
        for (int i = 0; i < calls; ++i)
            call();
        rounds.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count() / calls);
    }
    return Median(rounds);
}

double MillisecondsOf(const std::function<void()>& call) {
    const auto start = Clock::now();
    call();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void Print(const char* what, double value, const char* unit) {
    std::printf("%-52s %10.2f %s\n", what, value, unit);
}

void PrintRatio(double measured, double bare) {
    std::printf("%-52s %10.2f\n\n", "  ratio", measured / bare);
}

[[gnu::noinline]] void Empty(int value) {
    asm volatile("" : : "r"(value));
}
[[gnu::noinline]] void WithTracePoint(int value) {
    TRACE_INFO(10, "value %d", value);
    asm volatile("" : : "r"(value));
}
[[gnu::noinline]] void WithFunctionTrace(int value) {
    FUNCTION_TRACE();
    asm volatile("" : : "r"(value));
}

void MeasureTracing() {
    constexpr int kCalls = 5'000'000;
    const auto timed = [](void (*function)(int)) {
        std::vector<double> rounds;
        for (int round = 0; round < 11; ++round) {
            const auto start = Clock::now();
            for (int i = 0; i < kCalls; ++i)
                function(i);
            rounds.push_back(std::chrono::duration<double, std::nano>(Clock::now() - start).count() / kCalls);
        }
        return Median(rounds);
    };
    const double bare = timed(&Empty);
    const double point = timed(&WithTracePoint);
    const double function = timed(&WithFunctionTrace);
    Print("an empty function", bare, "ns");
    Print("with a disabled trace point", point, "ns");
    PrintRatio(point, bare);
    Print("with a disabled FunctionTrace", function, "ns");
    PrintRatio(function, bare);
}

class IdleNotifier : public tessaplug::DeviceNotifier {
  public:
    void Initialize(SERVICE_STATUS_HANDLE) override {}
    void Register(const tessaplug::ModelRecord&) override {}
    void OnDeviceArrival(const GUID&, DWORD) override {
        if (busy) ::WaitForSingleObject(busy, INFINITE);
    }
    HANDLE busy = nullptr;
};

void WINAPI IgnoreStatus(void*, SERVICE_STATUS*) {}

void MeasureControlHandler() {
    constexpr int kCalls = 20'000;
    const auto notifier = std::make_shared<IdleNotifier>();
    tessaplug::ServiceCollaborators collaborators;
    collaborators.deviceNotifier = notifier;
    Service service(std::move(collaborators));
    if (service.init(TESSAPLUG_API_VERSION, reinterpret_cast<SERVICE_STATUS_HANDLE>(1), &IgnoreStatus,
                     nullptr, 0) != 1)
        return;
    DEV_BROADCAST_DEVICEINTERFACE_W data = {};
    data.dbcc_size = sizeof data;
    data.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    data.dbcc_classguid = tessaplug::kNx4120InterfaceGuid;
    const auto event = [&] {
        service.service_ctrl_handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, &data, nullptr);
    };
    const double idle = NanosecondsOf(kCalls, event);
    const HANDLE release = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    notifier->busy = release;
    event();
    const double busy = NanosecondsOf(kCalls, event);
    ::SetEvent(release);
    service.cleanup();

    std::mutex lock;
    const HANDLE wake = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const double bare = NanosecondsOf(kCalls, [&] {
        const auto allocation = std::make_unique<tessaplug::Request>();
        const std::lock_guard guard(lock);
        asm volatile("" : : "r"(allocation.get()));
        ::SetEvent(wake);
    });
    Print("one lock, one allocation, one SetEvent", bare, "ns");
    Print("control handler, worker idle", idle, "ns");
    PrintRatio(idle, bare);
    Print("control handler, worker busy", busy, "ns");
    PrintRatio(busy, bare);
}

/// The configuration library's own calls, without the plug-in.
class BareLibrary {
  public:
    BareLibrary() : module_(::LoadLibraryW(quelm::ConfigurationLibraryPath().c_str())) {
        Resolve(exists_, "LogDeviceExists");
        Resolve(setNdiValue_, "LogDeviceSetNdiValue");
        Resolve(templateGetEnum_, "TemplateGetEnum");
    }
    ~BareLibrary() { ::FreeLibrary(module_); }
    BareLibrary(const BareLibrary&) = delete;
    BareLibrary& operator=(const BareLibrary&) = delete;

    void ListTemplate() const {
        wchar_t name[256];
        DWORD length = 256;
        for (DWORD i = 0; templateGetEnum_(L"DefaultLogDevices", i, name, &length) == 0; ++i)
            length = 256;
    }
    void Show(const std::wstring& logDevice, const wchar_t* hidden) const {
        if (exists_(logDevice.c_str(), 0) == 0) setNdiValue_(logDevice.c_str(), L"hidden", hidden);
    }

  private:
    template <typename Function>
    void Resolve(Function*& pointer, const char* name) {
        pointer = reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(module_, name)));
    }
    HMODULE module_;
    DWORD(WINAPI* exists_)(const wchar_t*, DWORD) = nullptr;
    DWORD(WINAPI* setNdiValue_)(const wchar_t*, const wchar_t*, const wchar_t*) = nullptr;
    DWORD(WINAPI* templateGetEnum_)(const wchar_t*, DWORD, wchar_t*, DWORD*) = nullptr;
};

const std::vector<std::wstring> kKinds = {L"AUTO", L"XLI", L"PROFIBUS", L"FWL", L"FWL_FAST_LOAD"};

/// What the plug-in asks of the library to show or hide one model, a library for each database as it does.
void ShowBare(const wchar_t* model, const wchar_t* hidden) {
    BareLibrary().ListTemplate();
    for (const auto& kind : kKinds)
        BareLibrary().Show(std::wstring(model) + L"." + kind + L".1", hidden);
}

bool AllAre(const wchar_t* hidden) {
    const configuration_library::LogDeviceStore store;
    return std::ranges::all_of(kKinds, [&](const std::wstring& kind) {
        std::wstring value;
        store.GetValue(L"NX4120." + kind + L".1", L"hidden", value);
        return value == hidden;
    });
}

/// Needs the service to run.
void MeasurePlugToVisible() {
    const auto* nx4120 = adapter_control::FindModel(L"NX4120");
    std::vector<double> plugged;
    std::vector<double> bare;
    for (int i = 0; i < 11; ++i) {
        adapter_control::Unplug(*nx4120);
        while (!AllAre(L"true"))
            ::Sleep(1);
        plugged.push_back(MillisecondsOf([&] {
            adapter_control::Plug(*nx4120);
            while (!AllAre(L"false"))
                ::Sleep(0);
        }));
        bare.push_back(MillisecondsOf([] { ShowBare(L"NX4120", L"false"); }));
    }
    adapter_control::Unplug(*nx4120);
    Print("the configuration library's calls made bare", Median(bare), "ms");
    Print("plug to visible", Median(plugged), "ms");
    PrintRatio(Median(plugged), Median(bare));
}

/// What the plug-in asks of the station manager when an NX4120 goes, without the plug-in.
void StopComponentsBare() {
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    IUnknown* station = nullptr;
    ISetupSupport* setup = nullptr;
    ::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_LOCAL_SERVER, __uuidof(IUnknown),
                       reinterpret_cast<void**>(&station));
    if (FAILED(::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_ALL, __uuidof(ISetupSupport),
                                  reinterpret_cast<void**>(&setup))))
        throw std::runtime_error("no station manager");
    VARIANT data;
    ::VariantInit(&data);
    setup->GetData(STATION_CONFIG_DATA, &data);
    ::VariantClear(&data);
    IComponentControl* control = nullptr;
    IDiagnostics* diagnostics = nullptr;
    station->QueryInterface(__uuidof(IComponentControl), reinterpret_cast<void**>(&control));
    station->QueryInterface(__uuidof(IDiagnostics), reinterpret_cast<void**>(&diagnostics));
    for (const LONG virtualDevice : {2, 3}) {
        control->StopComponent(virtualDevice, 0);
        diagnostics->AddEntry(165, 0xA523, 1, static_cast<ULONG>(virtualDevice) << 24);
    }
    for (IUnknown* object : std::initializer_list<IUnknown*>{diagnostics, control, setup, station})
        object->Release();
    ::CoUninitialize();
}

/// Needs the service to run and the station manager to be registered with the list of "stationmgr init".
/// @param keepRunning whether the station manager runs already when it is needed
void MeasureUnplugToHidden(bool keepRunning) {
    const auto* nx4120 = adapter_control::FindModel(L"NX4120");
    const station_manager::ComponentStore components;
    std::vector<double> unplugged;
    std::vector<double> bare;
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    IUnknown* kept = nullptr;
    if (keepRunning && FAILED(::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_LOCAL_SERVER,
                                                 __uuidof(IUnknown), reinterpret_cast<void**>(&kept))))
        throw std::runtime_error("no station manager");
    const auto prepare = [&] {
        for (const LONG virtualDevice : {2, 3})
            components.SetStatus(virtualDevice, station_manager::kRunning);
        if (!keepRunning) ::Sleep(200);  // until the one used last has ended
    };
    for (int i = 0; i < 11; ++i) {
        adapter_control::Plug(*nx4120);
        while (!AllAre(L"false"))
            ::Sleep(1);
        prepare();
        unplugged.push_back(MillisecondsOf([&] {
            adapter_control::Unplug(*nx4120);
            while (!AllAre(L"true"))
                ::Sleep(0);
        }));
        prepare();
        bare.push_back(MillisecondsOf([] { StopComponentsBare(); }));
    }
    if (kept != nullptr) kept->Release();
    ::CoUninitialize();
    Print("the station manager's calls made bare", Median(bare), "ms");
    Print(keepRunning ? "unplug to hidden, station manager running"
                      : "unplug to hidden, station manager started by COM",
          Median(unplugged), "ms");
    PrintRatio(Median(unplugged), Median(bare));
}

void EnumerateBare(const GUID& guid) {
    const HMODULE setupapi = ::LoadLibraryW(L"setupapi.dll");
    const HDEVINFO set =
        ::SetupDiGetClassDevsW(&guid, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    SP_DEVICE_INTERFACE_DATA data = {};
    data.cbSize = sizeof data;
    for (DWORD i = 0; ::SetupDiEnumDeviceInterfaces(set, nullptr, &guid, i, &data); ++i)
        continue;
    ::SetupDiDestroyDeviceInfoList(set);
    ::FreeLibrary(setupapi);
}

/// What init asks of the system, without the plug-in.
void InitBare(HANDLE recipient) {
    const HANDLE lock = ::CreateMutexW(nullptr, TRUE, L"Global\\tessabench_lock");
    HDEVNOTIFY notifications[2] = {};
    int i = 0;
    for (const GUID& guid : {tessaplug::kFennlinkU3InterfaceGuid, tessaplug::kNx4120InterfaceGuid}) {
        DEV_BROADCAST_DEVICEINTERFACE_W filter = {};
        filter.dbcc_size = sizeof filter;
        filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
        filter.dbcc_classguid = guid;
        notifications[i++] = ::RegisterDeviceNotificationW(recipient, &filter, DEVICE_NOTIFY_SERVICE_HANDLE);
        EnumerateBare(guid);
        ShowBare(i == 1 ? L"FENNLINK U3" : L"NX4120", L"true");
    }
    HANDLE objects[6] = {};
    for (std::size_t model = 0; model < 3; ++model) {
        objects[2 * model] =
            ::CreateMutexW(nullptr, FALSE, (L"Global\\tessabench_mtx" + std::to_wstring(model)).c_str());
        objects[2 * model + 1] =
            ::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 24,
                                 (L"Global\\tessabench_shm" + std::to_wstring(model)).c_str());
        ::UnmapViewOfFile(::MapViewOfFile(objects[2 * model + 1], FILE_MAP_ALL_ACCESS, 0, 0, 24));
    }
    const HANDLE wake = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const HANDLE thread = ::CreateThread(
        nullptr, 0, [](void* event) -> DWORD { return ::WaitForSingleObject(event, INFINITE); }, wake, 0,
        nullptr);
    ::SetEvent(wake);
    ::WaitForSingleObject(thread, INFINITE);
    for (const HANDLE handle : {thread, wake, lock})
        ::CloseHandle(handle);
    for (const HANDLE handle : objects)
        ::CloseHandle(handle);
    for (const HDEVNOTIFY notification : notifications)
        ::UnregisterDeviceNotification(notification);
}

/// Tells when a box is asked for.
class TimedBox : public operating_system::SystemMessageBox {
  public:
    DWORD Show(const wchar_t*, const wchar_t*, DWORD) override {
        shownAt = Clock::now();
        ::SetEvent(shown);
        return IDOK;
    }
    Clock::time_point shownAt;
    const HANDLE shown = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
};

/// The way in which the machine's event log tells of changes (event_log_settings.h).
void TellBySetting(bool sets) {
    const DWORD value = sets ? 1 : 0;
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, wine_gap::kEventLogSettingsKey, wine_gap::kNotificationSets,
                      REG_DWORD, &value, sizeof value);
}

/// From the driver's record, which is written after a pause, to its box; in milliseconds.
double TimeToBox(TimedBox& timed, DWORD pause) {
    ::Sleep(pause);
    const auto start = Clock::now();
    adapter_control::Report(*adapter_control::FindModel(L"FennlinkU3"), 3, L"measured");
    ::WaitForSingleObject(timed.shown, INFINITE);
    return std::chrono::duration<double, std::milli>(timed.shownAt - start).count();
}

void PrintTimes(const char* what, const std::vector<double>& times) {
    Print(what, Median(times), "ms");
    Print("  at most", *std::ranges::max_element(times), "ms");
}

/// Needs the Fennlink U3's driver to be installed.
void MeasureRecordToBox() {
    constexpr DWORD kToldMs = 5500;  // longer than Windows is quiet after a pulse
    LoadWineGap();
    auto box = std::make_unique<TimedBox>();
    TimedBox& timed = *box;
    tessaplug::EventLogMonitorCollaborators collaborators;
    collaborators.messageBox = std::move(box);
    tessaplug::EventLogMonitor monitor(std::move(collaborators));
    std::thread thread([&monitor] { monitor.Run(); });
    monitor.WaitBlockingForStateChange(INFINITE);
    ::Sleep(500);  // until it waits
    std::vector<double> set;
    std::vector<double> pulsed;
    std::vector<double> quiet;
    TellBySetting(true);
    for (int i = 0; i < 11; ++i)
        set.push_back(TimeToBox(timed, 50));
    TellBySetting(false);
    for (const DWORD pause : std::initializer_list<DWORD>{50, 500, 1000, 1500, 2000, 3000, 4000}) {
        pulsed.push_back(TimeToBox(timed, kToldMs));
        quiet.push_back(TimeToBox(timed, pause));
    }
    PrintTimes("the driver's record written to message box requested", set);
    PrintTimes("  by an event that is pulsed", pulsed);
    PrintTimes("  in the quiet five seconds after that", quiet);
    monitor.Stop(false);
    thread.join();
}

constexpr wchar_t kBenchLog[] = L"TessaBench";
constexpr wchar_t kBenchLogKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\TessaBench";
constexpr std::size_t kForeignRecords = 1000000;

void AppendForeignRecords(const wine_gap::EventLogFile& file) {
    constexpr std::size_t kBatch = 10000;
    const std::vector<wine_gap::Event> batch(
        kBatch,
        {L"Service Control Manager", EVENTLOG_INFORMATION_TYPE, 0, 0x40001B7C, {L"spooler", L"running"}, {}});
    for (std::size_t i = 0; i < kForeignRecords; i += kBatch)
        file.Append(batch);
}

std::size_t CountWholeRecords(const std::vector<std::byte>& buffer) {
    std::size_t count = 0;
    for (std::size_t at = 0; at < buffer.size(); ++count)
        at += reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at)->Length;
    return count;
}

/// The same buffers, each record copied and its source name compared.
double ReadBare(HANDLE log) {
    std::vector<std::byte> buffer(0x10000);
    std::vector<std::byte> record;
    std::size_t count = 0;
    std::size_t ours = 0;
    const auto start = Clock::now();
    while (count < kForeignRecords) {
        DWORD read = 0;
        DWORD needed = 0;
        if (!::ReadEventLogW(log, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ, 0, buffer.data(),
                             0x10000, &read, &needed))
            throw std::runtime_error("the log cannot be read");
        for (DWORD at = 0; at < read; ++count) {
            const auto* raw = reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at);
            record.assign(buffer.data() + at, buffer.data() + at + raw->Length);
            ours += std::wcscmp(reinterpret_cast<const wchar_t*>(record.data() + sizeof(EVENTLOGRECORD)),
                                L"fenlu3") == 0;
            at += raw->Length;
        }
    }
    if (ours != 0) throw std::runtime_error("there should be no record of the driver");
    return static_cast<double>(kForeignRecords) / std::chrono::duration<double>(Clock::now() - start).count();
}

/// Committed private memory, by the address space's own account: Wine reports none in the process counters.
SIZE_T PrivateBytes() {
    SIZE_T bytes = 0;
    MEMORY_BASIC_INFORMATION region = {};
    for (const BYTE* at = nullptr; ::VirtualQuery(at, &region, sizeof region) == sizeof region;
         at = static_cast<const BYTE*>(region.BaseAddress) + region.RegionSize)
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) bytes += region.RegionSize;
    return bytes;
}

void MeasureForeignRecords() {
    LoadWineGap();
    const DWORD limit = 0x20000000;
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kBenchLogKey, L"MaxSize", REG_DWORD, &limit, sizeof limit);
    const wine_gap::EventLogFile file(kBenchLog);
    file.Clear();
    TellBySetting(true);  // the first read is not to wait for a pulse that came before it
    const HANDLE bareLog = ::OpenEventLogW(nullptr, kBenchLog);
    operating_system::EventLog log(kBenchLog);
    log.Open();
    log.CancelRead();
    log.BlockingRead();  // takes its position
    AppendForeignRecords(file);
    operating_system::EventRecordParser parser(std::make_shared<operating_system::FilterChain>(
        operating_system::FilterChain{std::make_shared<operating_system::Fenlu3>()}));
    std::vector<operating_system::UserMessage> messages;

    const double bare = ReadBare(bareLog);
    const SIZE_T before = PrivateBytes();
    std::size_t count = 0;
    const auto start = Clock::now();
    while (count < kForeignRecords) {
        const std::vector<std::byte> buffer = log.BlockingRead();
        parser.Process(buffer, messages);
        count += CountWholeRecords(buffer);
    }
    const double real =
        static_cast<double>(count) / std::chrono::duration<double>(Clock::now() - start).count();
    const SIZE_T after = PrivateBytes();
    ::CloseEventLog(bareLog);
    log.Close();
    file.Clear();
    TellBySetting(false);
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kBenchLogKey);
    Print("a bare loop over a million foreign records", bare / 1000, "thousand/s");
    Print("reader, parser and filter", real / 1000, "thousand/s");
    std::printf("%-52s %10.2f\n", "  ratio of the times", bare / real);
    Print("memory after the million, compared with before",
          (static_cast<double>(after) - static_cast<double>(before)) / 1024, "KB");
}

/// A monitor that does nothing.
class NoMonitor : public tessaplug::EventLogMonitor {
  public:
    DWORD Run() override { return 0; }
    void Stop(bool) override {}
    bool WaitBlockingForStateChange(DWORD) override { return true; }
};

class OwnLockName : public tessaplug::ServiceDb {
  public:
    const std::wstring& GlobalInstanceLockName() const override { return name_; }

  private:
    static inline int count_ = 0;
    std::wstring name_ = L"tessabench_" + std::to_wstring(++count_);
};

/// Milliseconds of one start and one stop.
std::pair<double, double> StartAndStop(bool withMonitor) {
    tessaplug::ServiceCollaborators collaborators;
    collaborators.settings = std::make_shared<OwnLockName>();
    if (!withMonitor) {
        collaborators.eventLogMonitor = std::make_shared<NoMonitor>();
        collaborators.sleep = [](DWORD) {};
    }
    Service service(std::move(collaborators));
    DWORD started = 0;
    const double start = MillisecondsOf([&] {
        started = service.init(TESSAPLUG_API_VERSION, reinterpret_cast<SERVICE_STATUS_HANDLE>(1),
                               &IgnoreStatus, nullptr, 0);
    });
    if (started == 0) throw std::runtime_error("the service does not start");
    return {start, MillisecondsOf([&] { service.cleanup(); })};
}

void MeasureStartAndStop() {
    StartAndStop(false);  // warm
    std::vector<double> starts[2];
    std::vector<double> stops[2];
    for (int i = 0; i < 11; ++i) {
        for (const bool withMonitor : {false, true}) {
            const auto [start, stop] = StartAndStop(withMonitor);
            starts[withMonitor].push_back(start);
            stops[withMonitor].push_back(stop);
        }
    }
    Print("start without the monitor", Median(starts[false]), "ms");
    Print("start with the monitor", Median(starts[true]), "ms");
    Print("stop without the monitor", Median(stops[false]), "ms");
    Print("stop with the monitor, two seconds of it fixed", Median(stops[true]), "ms");
}

void MeasureDump() {
    LoadWineGap();
    operating_system::MemoryDump dump;
    const double time = MillisecondsOf([&dump] {
        if (!dump.Create(L"tessabench.exe")) throw std::runtime_error("no dump can be written");
    });
    const std::wstring path = dump.GetMemoryDumpAbsFileName();
    WIN32_FILE_ATTRIBUTE_DATA file = {};
    ::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &file);
    ::DeleteFileW(path.c_str());
    Print("a full dump of this process", time, "ms");
    Print("  its size", file.nFileSizeLow / 1048576.0, "MB");
    const std::runtime_error exception("the text of an exception");
    Print("filing one exception into the history",
          NanosecondsOf(100000,
                        [&exception] {
                            modul_exception::RecordException(exception, "std::runtime_error(text)",
                                                             kSourcePath, "Class::Function", 1);
                        }),
          "ns");
}

void MeasureDecoding() {
    wchar_t self[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring folder(self);
    folder.replace(folder.rfind(L'\\') + 1, std::wstring::npos, L"tmf");
    const auto catalog = tessactl::TmfCatalog::FromFolder(folder);
    // "Unhide %S" of tessaplug_pnp, as it is recorded.
    constexpr wchar_t kName[] = L"Fennlink U3(FWL_FAST_LOAD)";
    const auto* bytes = reinterpret_cast<const BYTE*>(kName);
    tessactl::RecordedMessage message;
    message.messageGuid = trace::GuidFrom("a4c8e2b6-7f1d-4e35-8c90-2d6b9f3a1e12");
    message.number = 22;
    message.arguments.assign(bytes, bytes + sizeof kName);
    if (tessactl::Decode(catalog, message).text != "Unhide Fennlink U3(FWL_FAST_LOAD)")
        throw std::runtime_error("the message is not decoded");
    const double line =
        NanosecondsOf(20000, [&] { tessactl::TextLine(message, tessactl::Decode(catalog, message)); });
    Print("trace messages decoded to text", 1e6 / line, "thousand/s");
}

/// One process, one init: prints "bare init kilobytes" for the script to take the median of.
void MeasureInitOnce() {
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring library(path);
    library.replace(library.rfind(L'\\') + 1, std::wstring::npos, L"tessaplug.dll");
    const auto recipient = reinterpret_cast<SERVICE_STATUS_HANDLE>(1);
    InitBare(recipient);  // warm
    const double bare = MillisecondsOf([&] { InitBare(recipient); });
    const SIZE_T before = PrivateBytes();
    const HMODULE module = ::LoadLibraryW(library.c_str());
    const auto init = reinterpret_cast<decltype(&::tessaplug_init)>(
        reinterpret_cast<void*>(::GetProcAddress(module, "tessaplug_init")));
    const auto cleanup = reinterpret_cast<decltype(&::tessaplug_cleanup)>(
        reinterpret_cast<void*>(::GetProcAddress(module, "tessaplug_cleanup")));
    DWORD started = 0;
    const double real =
        MillisecondsOf([&] { started = init(TESSAPLUG_API_VERSION, recipient, &IgnoreStatus, nullptr, 0); });
    const SIZE_T after = PrivateBytes();
    cleanup();
    ::FreeLibrary(module);
    if (started == 1) std::printf("%.3f %.3f %llu\n", bare, real, (after - before) / 1024);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    modul_exception::InitializeExceptionHistory();
    const std::wstring what = argc == 2 ? argv[1] : L"";
    try {
        if (what == L"trace")
            MeasureTracing();
        else if (what == L"handler")
            MeasureControlHandler();
        else if (what == L"visible")
            MeasurePlugToVisible();
        else if (what == L"hidden")
            for (const bool keepRunning : {true, false})
                MeasureUnplugToHidden(keepRunning);
        else if (what == L"messages")
            MeasureRecordToBox();
        else if (what == L"records")
            MeasureForeignRecords();
        else if (what == L"lifecycle")
            MeasureStartAndStop();
        else if (what == L"dump")
            MeasureDump();
        else if (what == L"decode")
            MeasureDecoding();
        else if (what == L"init")
            MeasureInitOnce();
        else
            return std::fputs("usage: tessabench WHAT; scripts/bench.sh runs them all\n", stderr), 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tessabench: %s\n", error.what());
        return 1;
    }
    return 0;
}
