#pragma once

#include <windows.h>

#include <string>

namespace test_support {

/// The folder of the running test program, with a backslash at its end.
inline std::wstring ProgramFolder() {
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring program = path;
    return program.substr(0, program.rfind(L'\\') + 1);
}

}  // namespace test_support
