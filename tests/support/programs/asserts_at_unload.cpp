#include <windows.h>

#include <memory>

#include "error_handler.h"
#include "exception_history.h"
#include "modul_assert.h"
#include "trace_point.h"

TRACE_SOURCE("tests\\support\\programs\\asserts_at_unload", "7e5a1c3f-0d92-4b68-8e47-c3f60a9b2d15",
             trace::kModule);

// A library whose unloading fails an assertion.
namespace {

std::unique_ptr<trace::ErrorHandler> errorHandler;

}  // namespace

void _ModulAssert(const wchar_t* expression, const wchar_t* sourcePath, unsigned int line) {
    errorHandler->FatalError(expression, sourcePath, line);
}

void _ModulSysLog_00(unsigned int, unsigned int) {}

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, void*) {
    if (reason == DLL_PROCESS_ATTACH) {
        modul_exception::InitializeExceptionHistory();
        errorHandler = std::make_unique<trace::ErrorHandler>(L"asserts_at_unload.dll", L"today", L"V1");
    }
    if (reason == DLL_PROCESS_DETACH) {
        MODUL_FAIL("EXCEPTION in DTOR!");
        errorHandler.reset();
        modul_exception::CleanupExceptionHistory();
    }
    return TRUE;
}
