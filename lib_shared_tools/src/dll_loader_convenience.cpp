#include "dll_loader_convenience.h"

#include <stdexcept>

#include "exception_history.h"
#include "function_trace.h"
#include "trace_point.h"
#include "windows_api_excp.h"

TRACE_SOURCE("lib_shared_tools\\inc\\dll_loader_convenience", "c3d9a8e4-6f52-4a67-b0fd-5c7a1e2d4f07",
             trace::kSharedTools);

namespace operating_system {

void* ResolveFunction(HMODULE module, void* alreadyResolved, const char* functionName) {
    FUNCTION_TRACE();
    if (module == nullptr) MODUL_THROW(std::runtime_error("Invalid Sequence! Open DLL first!"));
    if (alreadyResolved != nullptr) return alreadyResolved;
    const FARPROC address = ::GetProcAddress(module, functionName);
    if (address == nullptr) MODUL_THROW(modul_exception::CWindowsApiExcp("GetProcAddress()", functionName));
    return reinterpret_cast<void*>(address);
}

}  // namespace operating_system
