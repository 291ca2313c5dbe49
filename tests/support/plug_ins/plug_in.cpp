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
//   THROWS_IN_...      throws a C++ exception there
//
// All of them raise a fault in a clean-up that is not called on the thread that has called init.

namespace {

DWORD mainThread = 0;

[[noreturn, maybe_unused]] void Fault() {
    ::RaiseException(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    __builtin_unreachable();
}

[[noreturn, maybe_unused]] void Throw() {
    throw std::runtime_error("thrown on purpose");
}

}  // namespace

extern "C" {

DWORD WINAPI tessaplug_init(DWORD, SERVICE_STATUS_HANDLE, TESSAPLUG_STATUS_CALLBACK callback,
                            void* hostContext, ULONG_PTR) {
    mainThread = ::GetCurrentThreadId();
    SERVICE_STATUS status = {};
    status.dwCurrentState = SERVICE_START_PENDING;
    status.dwCheckPoint = 7;
    status.dwWaitHint = 3000;
    callback(hostContext, &status);
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
#elif defined(HANGS_IN_CLEANUP) || defined(REFUSES_AND_HANGS)
    ::Sleep(INFINITE);
#endif
}
#endif

DWORD WINAPI tessaplug_service_ctrl_handler(DWORD control, DWORD, void*, void*) {
#if defined(FAULTS_IN_HANDLER)
    Fault();
#elif defined(THROWS_IN_HANDLER)
    Throw();
#endif
    return control;
}

}  // extern "C"
