#include <windows.h>
#include <dbt.h>
#include <setupapi.h>

#include <cstddef>
#include <cstdio>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bare_library.h"
#include "idle_host.h"
#include "measure.h"
#include "private_bytes.h"
#include "subjects.h"
#include "tessaplug.h"
#include "tessaplug_database.h"

namespace bench {
namespace {

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

DWORD WINAPI WaitFor(void* event) {
    return ::WaitForSingleObject(event, INFINITE);
}

/// What init asks of the system, without the plug-in, and at its end what belongs to a clean-up.
class BareInit {
  public:
    explicit BareInit(HANDLE recipient) {
        Own(::CreateMutexW(nullptr, TRUE, L"Global\\tessabench_lock"));
        RegisterModels(recipient);
        for (const wchar_t* model : {L"0", L"1", L"2"})
            ShareMemory(model);
        const HANDLE isOpen = Own(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
        StartThread(&OpenSystemLog, isOpen);
        ::WaitForSingleObject(isOpen, INFINITE);
        wake_ = Own(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
        StartThread(&WaitFor, wake_);
        ReportStart();
    }
    ~BareInit() {
        ::SetEvent(wake_);
        for (const HANDLE thread : threads_)
            ::WaitForSingleObject(thread, INFINITE);
        for (const HDEVNOTIFY notification : notifications_)
            ::UnregisterDeviceNotification(notification);
        for (const HANDLE handle : handles_)
            ::CloseHandle(handle);
        ::DeregisterEventSource(eventSource_);
    }
    BareInit(const BareInit&) = delete;
    BareInit& operator=(const BareInit&) = delete;

  private:
    HANDLE Own(HANDLE handle) {
        handles_.push_back(handle);
        return handle;
    }
    void StartThread(LPTHREAD_START_ROUTINE body, HANDLE event) {
        threads_.push_back(Own(::CreateThread(nullptr, 0, body, event, 0, nullptr)));
    }
    static DWORD WINAPI OpenSystemLog(void* isOpen) {
        const HANDLE log = ::OpenEventLogW(nullptr, L"System");
        ::SetEvent(isOpen);
        ::CloseEventLog(log);
        return 0;
    }
    void ReportStart() {
        constexpr wchar_t kKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Application\\tessabench";
        constexpr wchar_t kMessageFile[] = L"C:\\windows\\system32\\tessabench.exe";
        const DWORD types = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
        HKEY key = nullptr;
        ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
        ::RegSetValueExW(key, L"EventMessageFile", 0, REG_EXPAND_SZ,
                         reinterpret_cast<const BYTE*>(kMessageFile), sizeof kMessageFile);
        ::RegSetValueExW(key, L"TypesSupported", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&types),
                         sizeof types);
        ::RegCloseKey(key);
        eventSource_ = ::RegisterEventSourceW(nullptr, L"tessabench");
        ::ReportEventW(eventSource_, EVENTLOG_INFORMATION_TYPE, 0, TESSAPLUG_EVENT_STARTED, nullptr, 0, 0,
                       nullptr, nullptr);
    }
    void RegisterModels(HANDLE recipient) {
        const BareLibrary library;
        for (const auto& [guid, model] : {std::pair(tessaplug::kFennlinkU3InterfaceGuid, L"FENNLINK U3"),
                                          std::pair(tessaplug::kNx4120InterfaceGuid, L"NX4120")}) {
            DEV_BROADCAST_DEVICEINTERFACE_W filter = {};
            filter.dbcc_size = sizeof filter;
            filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
            filter.dbcc_classguid = guid;
            notifications_.push_back(
                ::RegisterDeviceNotificationW(recipient, &filter, DEVICE_NOTIFY_SERVICE_HANDLE));
            EnumerateBare(guid);
            library.ShowOrHide(model, L"true");
        }
    }
    void ShareMemory(const std::wstring& model) {
        Own(::CreateMutexW(nullptr, FALSE, (L"Global\\tessabench_mtx" + model).c_str()));
        const std::wstring name = L"Global\\tessabench_shm" + model;
        ::OpenFileMappingW(FILE_MAP_ALL_ACCESS, FALSE, name.c_str());  // there is none
        const HANDLE mapping =
            Own(::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 24, name.c_str()));
        ::UnmapViewOfFile(::MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 24));
    }

    std::vector<HANDLE> handles_;
    std::vector<HANDLE> threads_;
    std::vector<HDEVNOTIFY> notifications_;
    HANDLE wake_ = nullptr;
    HANDLE eventSource_ = nullptr;
};

/// What was added to the private memory since then, in KB, committed and of that in memory.
std::string Added(const PrivateMemory& before) {
    const PrivateMemory now;
    return std::to_string((now.committed - before.committed) / 1024) + " " +
           std::to_string((now.inMemory - before.inMemory) / 1024);
}

/// What two threads that only wait add.
std::string AddedByTwoThreads() {
    const PrivateMemory before;
    const HANDLE end = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE threads[2] = {};
    for (HANDLE& thread : threads)
        thread = ::CreateThread(nullptr, 0, &WaitFor, end, 0, nullptr);
    ::Sleep(100);  // until they wait
    const std::string added = Added(before);
    ::SetEvent(end);
    ::WaitForMultipleObjects(2, threads, TRUE, INFINITE);
    for (const HANDLE handle : {threads[0], threads[1], end})
        ::CloseHandle(handle);
    return added;
}

}  // namespace

void MeasureInitOnce() {
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring library(path);
    library.replace(library.rfind(L'\\') + 1, std::wstring::npos, L"tessaplug.dll");
    const auto recipient = reinterpret_cast<SERVICE_STATUS_HANDLE>(1);
    const auto initBare = [&] {
        std::unique_ptr<BareInit> started;
        const double time = MillisecondsOf([&] { started = std::make_unique<BareInit>(recipient); });
        return time;
    };
    initBare();  // warm
    const double bare = initBare();
    const PrivateMemory before;
    const HMODULE module = ::LoadLibraryW(library.c_str());
    const auto init = reinterpret_cast<decltype(&::tessaplug_init)>(
        reinterpret_cast<void*>(::GetProcAddress(module, "tessaplug_init")));
    const auto cleanup = reinterpret_cast<decltype(&::tessaplug_cleanup)>(
        reinterpret_cast<void*>(::GetProcAddress(module, "tessaplug_cleanup")));
    DWORD started = 0;
    const double real =
        MillisecondsOf([&] { started = init(TESSAPLUG_API_VERSION, recipient, &IgnoreStatus, nullptr, 0); });
    const std::string added = Added(before);
    cleanup();
    ::FreeLibrary(module);
    if (started != 1) throw std::runtime_error("the plug-in does not start");
    std::printf("%.3f %.3f %s %s\n", real, bare, added.c_str(), AddedByTwoThreads().c_str());
}

void SummariseInits() {
    Comparison times;
    struct {
        const char* what;
        std::vector<double> kilobytes;
    } memory[] = {{"private memory that loading and init add", {}},
                  {"what of it was used and is in memory", {}},
                  {"private memory that two bare threads add", {}},
                  {"what of that is in memory", {}}};
    double init = 0;
    double bare = 0;
    while (std::cin >> init >> bare) {
        times.Add(init, bare);
        for (auto& column : memory)
            std::cin >> column.kilobytes.emplace_back();
    }
    if (times.measured.size() < kRounds) throw std::runtime_error("a start failed");
    Print("the same system calls made bare", "tessaplug_init", "ms", times);
    for (const auto& column : memory)
        Print(column.what, Median(column.kilobytes), "KB");
}

}  // namespace bench
