#include "structured_exception.h"

#include <atomic>
#include <cstdio>
#include <iterator>
#include <malloc.h>
#include <stdexcept>

#include "exception_history.h"
#include "function_trace.h"
#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\structured_exception", "c27e90b5-4f6d-4d18-a3e1-6b8f0d5c7e19",
             trace::kSharedTools);

namespace operating_system {
namespace {

/// The thread that breaks into the debugger at a user's wish; 0 if none does.
std::atomic<DWORD> breakingThread = 0;

int Filter(DWORD code, Breakpoints breakpoints) {
    // Of this run time's kind are 0x20474343 and its like, whichever module throws them ("GCC" in the low
    // bytes): they are left to C++, so that frames unwind.
    constexpr DWORD kOwnRunTime = 0x00474343;
    if ((code & 0x00FFFFFF) == kOwnRunTime) return EXCEPTION_CONTINUE_SEARCH;
    const bool isWanted = breakpoints == Breakpoints::kPass || breakingThread == ::GetCurrentThreadId();
    if (code == EXCEPTION_BREAKPOINT && isWanted) return EXCEPTION_CONTINUE_SEARCH;
    return EXCEPTION_EXECUTE_HANDLER;
}

/// The compiler guards calls only, so what is guarded has to be one.
[[gnu::noinline]] void Call(void (*function)(void* context), void* context) {
    function(context);
}

}  // namespace

DWORD CallGuarded(void (*function)(void* context), void* context, Breakpoints breakpoints) {
    DWORD code = 0;
    __try {
        Call(function, context);
    } __except (Filter(code = GetExceptionCode(), breakpoints)) {
        // The stack's guard page is gone: without a new one the next overflow would end the process.
        // Documented so; under Wine the first one ends it already.
        if (code == EXCEPTION_STACK_OVERFLOW) ::_resetstkoflw();
        return code;
    }
    return 0;
}

void ThrowForeignException(DWORD code) {
    FUNCTION_TRACE();
    TRACE_ERROR(10, "A partner has raised 0x%x", code);
    char what[40];
    std::snprintf(what, std::size(what), "Structured exception 0x%08lX", code);
    modul_exception::RecordException(std::runtime_error(what), "operating_system::ForeignException",
                                     kSourcePath, tracedFunction.text, __LINE__);
    throw ForeignException{code};
}

void TraceCaught(DWORD code) noexcept {
    FUNCTION_TRACE();
    if (code != 0)
        TRACE_ERROR(11, "A partner has failed with 0x%x", code);
    else
        TRACE_ERROR(12, "A partner has thrown a C++ exception");
}

void BreakIntoDebugger() {
    FUNCTION_TRACE();
    breakingThread = ::GetCurrentThreadId();
    ::DebugBreak();
    breakingThread = 0;
}

}  // namespace operating_system
