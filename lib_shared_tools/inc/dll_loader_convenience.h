#pragma once

#include <windows.h>

namespace operating_system {

/// `alreadyResolved` if it is set, otherwise the address of an exported function.
/// @throws std::runtime_error "Invalid Sequence! Open DLL first!" if `module` is null
/// @throws modul_exception::CWindowsApiExcp if the module has no such export
void* ResolveFunction(HMODULE module, void* alreadyResolved, const char* functionName);

/// Resolves an exported function into `pointer`, once: a pointer that is set already is left alone.
/// @throws what ResolveFunction throws
template <typename Function>
void CheckAndInitFunctionPointer(HMODULE module, Function*& pointer, const char* functionName) {
    pointer =
        reinterpret_cast<Function*>(ResolveFunction(module, reinterpret_cast<void*>(pointer), functionName));
}

}  // namespace operating_system
