#include "call_gate.h"

#include <cstddef>

namespace {

sweep::GateKeeper gateKeeper = nullptr;

}  // namespace

extern "C" {

// NOLINTBEGIN(readability-identifier-naming): called from the assembler text below
[[gnu::used]] ULONG_PTR sweep_gate_keeper(DWORD gate, ULONG_PTR* arguments) {
    return gateKeeper(gate, arguments);
}
extern BYTE sweep_gates[];
// NOLINTEND(readability-identifier-naming)

}  // extern "C"

// The gates load their number and go on to the common part, which has the unwind information that exceptions
// on their way through need. It stores the four arguments that come in registers into the home space that
// every caller provides: there they are contiguous with those on the stack.
asm(R"(
    .text
    .p2align 4
    .globl sweep_gates
sweep_gates:
    .set gate, 0
    .rept 256
    .byte 0x41, 0xBB
    .long gate
    jmp sweep_gate_common
    .p2align 4
    .set gate, gate + 1
    .endr

    .def sweep_gate_common; .scl 2; .type 32; .endef
    .globl sweep_gate_common
    .seh_proc sweep_gate_common
sweep_gate_common:
    movq %rcx, 8(%rsp)
    movq %rdx, 16(%rsp)
    movq %r8, 24(%rsp)
    movq %r9, 32(%rsp)
    subq $40, %rsp
    .seh_stackalloc 40
    .seh_endprologue
    movl %r11d, %ecx
    leaq 48(%rsp), %rdx
    callq sweep_gate_keeper
    addq $40, %rsp
    retq
    .seh_endproc
)");

namespace sweep {

void SetGateKeeper(GateKeeper keeper) {
    gateKeeper = keeper;
}

void* GateAddress(DWORD gate) {
    constexpr std::size_t kGateSize = 16;
    return sweep_gates + gate * kGateSize;
}

ULONG_PTR Pass(void* function, const ULONG_PTR* arguments) {
    // As many as the longest signature has: what a function does not take, it does not look at.
    using Any = ULONG_PTR(WINAPI*)(ULONG_PTR, ULONG_PTR, ULONG_PTR, ULONG_PTR, ULONG_PTR, ULONG_PTR,
                                   ULONG_PTR, ULONG_PTR, ULONG_PTR, ULONG_PTR, ULONG_PTR, ULONG_PTR);
    const ULONG_PTR* a = arguments;
    return reinterpret_cast<Any>(function)(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9], a[10],
                                           a[11]);
}

}  // namespace sweep
