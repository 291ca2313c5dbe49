#pragma once

#include <windows.h>

/// Putting functions of our own in the place of a system library's.
namespace wine_gap {

/// One function to be replaced.
struct Replacement {
    const wchar_t* library;
    const char* function;
    void* replacement;
    void** original;  ///< receives the system's function
};

/// Replaces a function for everybody who resolves it from now on, by import or by GetProcAddress, and for the
/// import tables of the program and of the libraries beside it.
/// @return ERROR_SUCCESS or a system error code
DWORD Replace(const Replacement& replacement);

/// `original` for the replacement table.
template <typename Function>
void** Slot(Function*& pointer) {
    return reinterpret_cast<void**>(&pointer);
}

}  // namespace wine_gap
