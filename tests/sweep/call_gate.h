#pragma once

#include <windows.h>

namespace sweep {

/// Receives every call that goes through a gate.
/// @param gate its number
/// @param arguments of the call: as many as the function has; more can be read, but mean nothing
/// @return the call's result
using GateKeeper = ULONG_PTR (*)(DWORD gate, ULONG_PTR* arguments);

inline constexpr DWORD kGates = 256;

/// Who stands at all gates. Set it before the first call.
void SetGateKeeper(GateKeeper keeper);

/// The address of a gate: a function of any signature without floating-point arguments.
void* GateAddress(DWORD gate);

/// Calls a function with a gate's arguments.
ULONG_PTR Pass(void* function, const ULONG_PTR* arguments);

}  // namespace sweep
