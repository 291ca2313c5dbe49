#include <windows.h>
#include <dbt.h>
#include <setupapi.h>

#include <cstddef>
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>
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

/// What init asks of the system, without the plug-in.
void InitBare(HANDLE recipient) {
    const HANDLE lock = ::CreateMutexW(nullptr, TRUE, L"Global\\tessabench_lock");
    HDEVNOTIFY notifications[2] = {};
    int i = 0;
    const BareLibrary library;
    for (const GUID& guid : {tessaplug::kFennlinkU3InterfaceGuid, tessaplug::kNx4120InterfaceGuid}) {
        DEV_BROADCAST_DEVICEINTERFACE_W filter = {};
        filter.dbcc_size = sizeof filter;
        filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
        filter.dbcc_classguid = guid;
        notifications[i++] = ::RegisterDeviceNotificationW(recipient, &filter, DEVICE_NOTIFY_SERVICE_HANDLE);
        EnumerateBare(guid);
        library.ShowOrHide(i == 1 ? L"FENNLINK U3" : L"NX4120", L"true");
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

/// What two threads that only wait add to the private memory, in bytes.
SIZE_T MemoryOfTwoThreads() {
    const SIZE_T before = PrivateBytes();
    const HANDLE end = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE threads[2] = {};
    for (HANDLE& thread : threads)
        thread = ::CreateThread(
            nullptr, 0, [](void* event) -> DWORD { return ::WaitForSingleObject(event, INFINITE); }, end, 0,
            nullptr);
    const SIZE_T after = PrivateBytes();
    ::SetEvent(end);
    ::WaitForMultipleObjects(2, threads, TRUE, INFINITE);
    for (const HANDLE handle : {threads[0], threads[1], end})
        ::CloseHandle(handle);
    return after - before;
}

}  // namespace

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
    if (started != 1) throw std::runtime_error("the plug-in does not start");
    std::printf("%.3f %.3f %llu %llu\n", real, bare, (after - before) / 1024, MemoryOfTwoThreads() / 1024);
}

void SummariseInits() {
    Comparison times;
    std::vector<double> kilobytes;
    std::vector<double> threadsKilobytes;
    double init = 0;
    double bare = 0;
    double added = 0;
    double ofThreads = 0;
    while (std::cin >> init >> bare >> added >> ofThreads) {
        times.Add(init, bare);
        kilobytes.push_back(added);
        threadsKilobytes.push_back(ofThreads);
    }
    if (kilobytes.size() < kRounds) throw std::runtime_error("a start failed");
    Print("the same system calls made bare", "tessaplug_init", "ms", times);
    Print("private memory that loading and init add", Median(kilobytes), "KB");
    Print("private memory that two bare threads add", Median(threadsKilobytes), "KB");
}

}  // namespace bench
