#include <windows.h>
#include <psapi.h>
#include <winsvc.h>

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>

#include "process_census.h"
#include "station.h"

// What a service that runs for months must not do: grow.
namespace {

using adapter_control::Plug;
using adapter_control::Unplug;
using system_tests::Station;
using test_support::CommittedMemory;

DWORD ServiceProcessId() {
    const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    const SC_HANDLE service = ::OpenServiceW(manager, L"tessahost", SERVICE_QUERY_STATUS);
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    ::QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status,
                           &needed);
    ::CloseServiceHandle(service);
    ::CloseServiceHandle(manager);
    return status.dwProcessId;
}

/// Bytes of a process that are in memory; 0 if they are not known.
std::size_t WorkingSet(DWORD processId) {
    const HANDLE process = ::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, processId);
    PROCESS_MEMORY_COUNTERS counters = {};
    ::GetProcessMemoryInfo(process, &counters, sizeof counters);
    ::CloseHandle(process);
    return counters.WorkingSetSize;
}

/// A quick run unless the environment asks for a long one.
int EventCount() {
    const char* text = std::getenv("TESSAPLUG_PLUG_EVENTS");
    return text != nullptr ? static_cast<int>(std::strtol(text, nullptr, 10)) : 200;
}

}  // namespace

TEST_F(Station, PlugEventsLeaveTheMemoryOfTheServiceAsItWas) {
    StartService();
    const DWORD processId = ServiceProcessId();
    const auto plugAndUnplug = [this](int events) {
        for (int i = 0; i < events; i += 2) {
            Plug(nx4120_);
            ASSERT_TRUE(AllBecome(L"NX4120", L"visible")) << "event " << i;
            Unplug(nx4120_);
            ASSERT_TRUE(AllBecome(L"NX4120", L"hidden")) << "event " << i;
        }
    };
    plugAndUnplug(40);
    const std::size_t before = CommittedMemory(processId);
    const std::size_t inMemoryBefore = WorkingSet(processId);
    ASSERT_NE(before, 0u);
    ASSERT_NE(inMemoryBefore, 0u);

    plugAndUnplug(EventCount());

    const std::size_t after = CommittedMemory(processId);
    std::printf("%zu KB before, %zu KB after %d plug events\n", before / 1024, after / 1024, EventCount());
    EXPECT_LE(after, before + before / 100);
    const std::size_t inMemoryAfter = WorkingSet(processId);
    std::printf("%zu KB in memory before, %zu KB after\n", inMemoryBefore / 1024, inMemoryAfter / 1024);
    EXPECT_LE(inMemoryAfter, inMemoryBefore + inMemoryBefore / 50);
}
