#include "wine_gap.h"

namespace wine_gap {

namespace {

DWORD ReplaceAll(const std::vector<Replacement>& replacements) {
    for (const Replacement& replacement : replacements)
        if (const DWORD result = Replace(replacement); result != ERROR_SUCCESS) return result;
    return ERROR_SUCCESS;
}

DWORD Start() {
    // What was patched cannot be taken back while others hold its addresses: stay loaded.
    HMODULE self = nullptr;
    ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                         reinterpret_cast<const wchar_t*>(&Start), &self);
    for (const auto& replacements :
         {DeviceNotificationReplacements(), EventLogReplacements(), MemoryDumpReplacements(),
          SessionReplacements(), TraceProviderReplacements(), TraceControllerReplacements(),
          TraceConsumerReplacements()})
        if (const DWORD result = ReplaceAll(replacements); result != ERROR_SUCCESS) return result;
    return StartTraceProviders();
}

}  // namespace
}  // namespace wine_gap

/// Puts everything in place; once for each process, later calls return the first one's result.
/// @return ERROR_SUCCESS or a system error code
extern "C" DWORD WINAPI WineGapStart() {
    static const DWORD result = wine_gap::Start();
    return result;
}
