#include "structured_exception.h"

namespace operating_system {
namespace {

/// Processor exceptions are handled here; software exceptions, among them the run time's C++ exceptions, are
/// not.
int Filter(DWORD code) {
    switch (code) {
        case EXCEPTION_ACCESS_VIOLATION:
        case EXCEPTION_ARRAY_BOUNDS_EXCEEDED:
        case EXCEPTION_DATATYPE_MISALIGNMENT:
        case EXCEPTION_FLT_DENORMAL_OPERAND:
        case EXCEPTION_FLT_DIVIDE_BY_ZERO:
        case EXCEPTION_FLT_INEXACT_RESULT:
        case EXCEPTION_FLT_INVALID_OPERATION:
        case EXCEPTION_FLT_OVERFLOW:
        case EXCEPTION_FLT_STACK_CHECK:
        case EXCEPTION_FLT_UNDERFLOW:
        case EXCEPTION_ILLEGAL_INSTRUCTION:
        case EXCEPTION_INT_DIVIDE_BY_ZERO:
        case EXCEPTION_INT_OVERFLOW:
        case EXCEPTION_IN_PAGE_ERROR:
        case EXCEPTION_PRIV_INSTRUCTION:
            return EXCEPTION_EXECUTE_HANDLER;
        default:
            return EXCEPTION_CONTINUE_SEARCH;
    }
}

/// The compiler guards calls only, so what is guarded has to be one.
[[gnu::noinline]] void Call(void (*function)(void* context), void* context) {
    function(context);
}

}  // namespace

bool CallGuarded(void (*function)(void* context), void* context) {
    __try {
        Call(function, context);
    } __except (Filter(GetExceptionCode())) {
        return false;
    }
    return true;
}

}  // namespace operating_system
