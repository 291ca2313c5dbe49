#include "tessaplug.h"

// Small plug-ins for tests of the host; the build chooses by a definition.
//
//   WORKS            reports one step and starts
//   REFUSES          does not start
//   WITHOUT_CLEANUP  lacks an export

extern "C" {

DWORD WINAPI tessaplug_init(DWORD, SERVICE_STATUS_HANDLE, TESSAPLUG_STATUS_CALLBACK callback,
                            void* hostContext, ULONG_PTR) {
    SERVICE_STATUS status = {};
    status.dwCurrentState = SERVICE_START_PENDING;
    status.dwCheckPoint = 7;
    status.dwWaitHint = 3000;
    callback(hostContext, &status);
#ifdef REFUSES
    return 0;
#else
    return 1;
#endif
}

#ifndef WITHOUT_CLEANUP
void WINAPI tessaplug_cleanup() {}
#endif

DWORD WINAPI tessaplug_service_ctrl_handler(DWORD, DWORD, void*, void*) {
    return NO_ERROR;
}

}  // extern "C"
