#include "function_trace.h"

#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\function_trace", "6c1f2f5e-0b0f-4f6e-9f0c-3a52d4e1b701",
             trace::kFunctionEntryAndExit);

namespace trace {

void FunctionTrace::TraceEntry() const noexcept {
    TRACE_VERBOSE(10, "%s: Entry %s", fileName_, functionName_);
}

void FunctionTrace::TraceExit() const noexcept {
    TRACE_VERBOSE(11, "%s: Exit %s", fileName_, functionName_);
}

}  // namespace trace
