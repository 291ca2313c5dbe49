#include "function_trace.h"

#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\function_trace", "6c1f2f5e-0b0f-4f6e-9f0c-3a52d4e1b701",
             trace::kFunctionEntryAndExit);

namespace trace {

void TraceEntry(const char* sourcePath, const char* functionName) noexcept {
    TRACE_VERBOSE(10, "%s: Entry %s", BaseName(sourcePath), functionName);
}

void TraceExit(const char* sourcePath, const char* functionName) noexcept {
    TRACE_VERBOSE(11, "%s: Exit %s", BaseName(sourcePath), functionName);
}

}  // namespace trace
