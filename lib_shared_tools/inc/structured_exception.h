#pragma once

#include <windows.h>

namespace operating_system {

/// Calls `function(context)` and catches a processor exception (access violation and the like) raised in it.
/// C++ exceptions pass through. Frames between the exception and this call are left without their destructors
/// being run, so nothing in them may need one.
/// @return false if a processor exception was caught
bool CallGuarded(void (*function)(void* context), void* context);

/// The same for anything that can be called without arguments.
template <typename Call>
bool CallGuarded(Call& call) {
    return CallGuarded([](void* context) { (*static_cast<Call*>(context))(); }, &call);
}

}  // namespace operating_system
