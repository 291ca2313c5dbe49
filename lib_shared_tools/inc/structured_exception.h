#pragma once

#include <windows.h>

#include <type_traits>

namespace operating_system {

/// Thrown in place of an exception that C++ code of this tool chain cannot catch. No std::exception on
/// purpose: like any other unknown exception it belongs to whoever catches everything.
struct ForeignException {
    DWORD code;  ///< of the structured exception; 0xE06D7363 is a C++ exception of another run time
};

/// What a guard does about breakpoints that no debugger takes. A module whose users may ask for a break (see
/// BreakIntoDebugger) knows its own ones; whoever calls such a module from another one lets them pass.
enum class Breakpoints { kCaught, kPass };

/// Calls `function(context)` and catches what `catch (...)` does not see: structured exceptions of any code,
/// among them processor exceptions, breakpoints and the C++ exceptions of other compilers' run times. C++
/// exceptions of this run time's kind pass, as does the break that BreakIntoDebugger makes.
///
/// Frames between the exception and this call are left without their destructors being run: guard calls into
/// partners, where nothing of ours is held.
/// @return the code of what was caught, or 0
DWORD CallGuarded(void (*function)(void* context), void* context,
                  Breakpoints breakpoints = Breakpoints::kCaught);

/// The same for anything that can be called without arguments.
template <typename Call>
DWORD CallGuarded(Call& call, Breakpoints breakpoints = Breakpoints::kCaught) {
    return CallGuarded([](void* context) { (*static_cast<Call*>(context))(); }, &call, breakpoints);
}

/// Files a ForeignException into the exception history and throws it.
[[noreturn]] void ThrowForeignException(DWORD code);

/// Calls into a partner and returns its result; what CallGuarded catches is thrown as a ForeignException,
/// from here on with destructors being run.
template <typename Call>
auto CallForeign(Call call, Breakpoints breakpoints = Breakpoints::kCaught) {
    if constexpr (std::is_void_v<decltype(call())>) {
        if (const DWORD code = CallGuarded(call, breakpoints)) ThrowForeignException(code);
    } else {
        decltype(call()) result{};
        auto keepResult = [&] { result = call(); };
        if (const DWORD code = CallGuarded(keepResult, breakpoints)) ThrowForeignException(code);
        return result;
    }
}

/// Traces what Completes caught.
/// @param code of a structured exception, 0 for a C++ exception of this run time's kind
void TraceCaught(DWORD code) noexcept;

/// True if `call` returns. Whatever it throws or raises ends in here, a C++ exception of this run time's kind
/// too: for calls into a partner whose failure has one outcome, and for clean-up.
template <typename Call>
bool Completes(Call call) noexcept {
    try {
        const DWORD code = CallGuarded(call);
        if (code != 0) TraceCaught(code);
        return code == 0;
    } catch (...) {
        TraceCaught(0);
        return false;
    }
}

/// DebugBreak for a user who asked for it: no guard catches it, so that without a debugger it ends the
/// process.
void BreakIntoDebugger();

}  // namespace operating_system
