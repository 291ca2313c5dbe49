#include "tessaplug.h"

#include <memory>
#include <new>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "modul_sysadjust.h"
#include "structured_exception.h"
#include "tessaplug_intern.h"
#include "trace_point.h"

TRACE_SOURCE("tessaplug_lib\\src\\tessaplug", "5e0c9a37-b4d2-4681-a7f5-90e3d6c2b715", trace::kModule);

namespace {

using operating_system::CallForeign;
using tessaplug::Service;

/// The one service object and the lock that guards its creation and its end.
Service* service = nullptr;
CRITICAL_SECTION* singletonLock = nullptr;
HMODULE thisModule = nullptr;

class SingletonGuard {
  public:
    SingletonGuard() { ::EnterCriticalSection(singletonLock); }
    ~SingletonGuard() { ::LeaveCriticalSection(singletonLock); }
    SingletonGuard(const SingletonGuard&) = delete;
    SingletonGuard& operator=(const SingletonGuard&) = delete;
};

void MakeService() {
    FUNCTION_TRACE();
    tessaplug::CreateErrorHandler();
    tessaplug::CreateEventLogProvider(thisModule);
    service = std::make_unique<Service>().release();
}

/// The service object, made by the first export call: never at attach, where little of Windows may be used.
Service& TheService() {
    FUNCTION_TRACE();
    if (singletonLock == nullptr) MODUL_THROW(std::bad_alloc());
    const SingletonGuard guard;
    // Guarded inside the lock, which a structured exception on its way to the export would leave taken.
    if (service == nullptr) CallForeign([] { MakeService(); });
    return *service;
}

void Attach(HMODULE module) {
    FUNCTION_TRACE();
    modul_exception::InitializeExceptionHistory();
    trace::RegisterProvider();
    // Without memory for it the library loads all the same, and each export says so: an exception would go
    // into the loader.
    if (singletonLock == nullptr) {
        singletonLock = new (std::nothrow) CRITICAL_SECTION;
        if (singletonLock != nullptr) ::InitializeCriticalSection(singletonLock);
    }
    thisModule = module;
}

void Detach() {
    FUNCTION_TRACE();
    if (singletonLock != nullptr) {
        {
            const SingletonGuard guard;
            delete service;
            service = nullptr;
        }
        ::DeleteCriticalSection(singletonLock);
        delete singletonLock;
        singletonLock = nullptr;
    }
    tessaplug::DeleteEventLogProvider();
    tessaplug::DeleteErrorHandler();
    modul_exception::CleanupExceptionHistory();
    trace::UnregisterProvider();
}

}  // namespace

DWORD WINAPI tessaplug_init(DWORD apiVersion, SERVICE_STATUS_HANDLE serviceStatusHandle,
                            TESSAPLUG_STATUS_CALLBACK statusCallback, void* hostContext, ULONG_PTR reserved) {
    try {
        FUNCTION_TRACE();
        return CallForeign([&] {
            return TheService().init(apiVersion, serviceStatusHandle, statusCallback, hostContext, reserved);
        });
    } catch (...) {
        MODUL_FAIL_AT(67, "SEH during Init()");
        return 0;
    }
}

void WINAPI tessaplug_cleanup(void) {
    try {
        FUNCTION_TRACE();
        CallForeign([] { TheService().cleanup(); });
    } catch (...) {
        // The wording of init, on purpose: service staff tell the two apart by their lines.
        MODUL_FAIL_AT(83, "SEH during Init()");
    }
}

DWORD WINAPI tessaplug_service_ctrl_handler(DWORD control, DWORD eventType, void* eventData, void* context) {
    try {
        FUNCTION_TRACE();
        return CallForeign(
            [&] { return TheService().service_ctrl_handler(control, eventType, eventData, context); });
    } catch (...) {
        MODUL_FAIL_AT(111, "SEH service_ctrl_handler()");
        return 0xFFFFFFFF;
    }
}

/// Attach always reports success; thread attach and detach do nothing.
BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* /*reserved*/) {
    if (reason == DLL_PROCESS_ATTACH) Attach(module);
    if (reason == DLL_PROCESS_DETACH) Detach();
    return TRUE;
}
