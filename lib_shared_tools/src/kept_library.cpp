#include "kept_library.h"

#include <utility>

#include "function_trace.h"
#include "structured_exception.h"
#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\kept_library", "d2a9f04b-6c35-4e71-8b1f-93e07c5a4d68",
             trace::kSharedTools);

namespace operating_system {

KeptLibrary::~KeptLibrary() {
    FUNCTION_TRACE();
    Release();
}

void KeptLibrary::KeepIfLoaded() noexcept {
    FUNCTION_TRACE();
    // Flags 0: the reference is counted, and found by name as the loader finds what is loaded.
    if (module_ == nullptr && !::GetModuleHandleExW(0, fileName_, &module_)) module_ = nullptr;
}

void KeptLibrary::Release() noexcept {
    FUNCTION_TRACE();
    const HMODULE module = std::exchange(module_, nullptr);
    if (module == nullptr) return;
    BOOL isFreed = FALSE;
    if (!Completes([&] { isFreed = ::FreeLibrary(module); })) ::SetLastError(ERROR_DLL_INIT_FAILED);
    if (!isFreed) TRACE_ERROR(10, "FreeLibrary(%S) failed, LE(%u)", fileName_, ::GetLastError());
}

}  // namespace operating_system
