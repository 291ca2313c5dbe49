#pragma once

#include <windows.h>

#include <string>

namespace sweep {

/// Calls `function(context)` and keeps every exception, C++ or not, from going further.
/// @return what came out, with the place where it was raised; empty if nothing did
std::string CallHost(void (*function)(void* context), void* context);

/// The same for anything that can be called without arguments.
template <typename Call>
std::string CallHost(Call call) {
    return CallHost([](void* context) { (*static_cast<Call*>(context))(); }, &call);
}

/// "exception 0xC0000005 at tessaplug.dll + 0x1234".
std::string Describe(const EXCEPTION_RECORD& exception);

/// Acts as an attached debugger for this process: lets every break of a user's wish ("Abort", or a dump that
/// failed) go on behind it.
void LetBreakpointsGoOn();

}  // namespace sweep
