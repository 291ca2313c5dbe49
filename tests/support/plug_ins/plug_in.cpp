#include <windows.h>
#include <dbt.h>

#include <stdexcept>

#include "tessaplug.h"

// Small plug-ins for tests of the host; the build chooses by a definition.
//
//   WORKS              reports one step and starts
//   REFUSES            does not start
//   WITHOUT_CLEANUP    lacks an export
//   SLOW_IN_CLEANUP    takes three and a half seconds to stop
//   HANGS_IN_CLEANUP   never stops
//   REFUSES_AND_HANGS  both
//   FAULTS_IN_...      raises an access violation in init, cleanup or the control handler
//   THROWS_IN_...      throws a C++ exception there, with a text of code page 1252 that is no UTF-8
//   BLOCKS_IN_HANDLER  asks for the events of the stand-in adapter NX4120 and never returns from the first,
//   as
//                      if a message box were open there; sets the event "Global\\plug_in_blocks" when it is
//                      in it
//   BLOCKS_IN_HANDLER_AND_CLEANUP  never stops either
//
// All of them raise a fault in a clean-up that is not called on the thread that has called init.

namespace {

DWORD mainThread = 0;

[[noreturn, maybe_unused]] void Fault() {
    ::RaiseException(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    __builtin_unreachable();
}

[[noreturn, maybe_unused]] void Throw() {
    throw std::runtime_error("thrown in a caf\xe9");
}

[[maybe_unused]] void AskForDeviceEvents(SERVICE_STATUS_HANDLE service) {
    DEV_BROADCAST_DEVICEINTERFACE_W filter = {};
    filter.dbcc_size = sizeof filter;
    filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    filter.dbcc_classguid = {0xAD4DCAAF, 0xA25B, 0x41BB, {0x80, 0x36, 0x04, 0x60, 0xA9, 0x89, 0xAF, 0xE1}};
    ::RegisterDeviceNotificationW(service, &filter, DEVICE_NOTIFY_SERVICE_HANDLE);
}

[[maybe_unused]] void Block() {
    if (const HANDLE blocks = ::OpenEventW(EVENT_MODIFY_STATE, FALSE, L"Global\\plug_in_blocks"))
        ::SetEvent(blocks);
    ::Sleep(INFINITE);
}

}  // namespace

extern "C" {

DWORD WINAPI tessaplug_init(DWORD, [[maybe_unused]] SERVICE_STATUS_HANDLE service,
                            TESSAPLUG_STATUS_CALLBACK callback, void* hostContext, ULONG_PTR) {
    mainThread = ::GetCurrentThreadId();
    SERVICE_STATUS status = {};
    status.dwCurrentState = SERVICE_START_PENDING;
    status.dwCheckPoint = 7;
    status.dwWaitHint = 3000;
    callback(hostContext, &status);
#if defined(BLOCKS_IN_HANDLER) || defined(BLOCKS_IN_HANDLER_AND_CLEANUP)
    AskForDeviceEvents(service);
#endif
#if defined(FAULTS_IN_INIT)
    Fault();
#elif defined(THROWS_IN_INIT)
    Throw();
#elif defined(REFUSES) || defined(REFUSES_AND_HANGS)
    return 0;
#else
    return 1;
#endif
}

#ifndef WITHOUT_CLEANUP
void WINAPI tessaplug_cleanup() {
    if (mainThread != ::GetCurrentThreadId()) Fault();
#if defined(FAULTS_IN_CLEANUP)
    Fault();
#elif defined(THROWS_IN_CLEANUP)
    Throw();
#elif defined(SLOW_IN_CLEANUP)
    ::Sleep(3500);
#elif defined(HANGS_IN_CLEANUP) || defined(REFUSES_AND_HANGS) || defined(BLOCKS_IN_HANDLER_AND_CLEANUP)
    ::Sleep(INFINITE);
#endif
}
#endif

DWORD WINAPI tessaplug_service_ctrl_handler(DWORD control, DWORD, void*, void*) {
#if defined(FAULTS_IN_HANDLER)
    Fault();
#elif defined(THROWS_IN_HANDLER)
    Throw();
#elif defined(BLOCKS_IN_HANDLER) || defined(BLOCKS_IN_HANDLER_AND_CLEANUP)
    Block();
#endif
    return control;
}

}  // extern "C"
