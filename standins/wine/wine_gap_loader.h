#pragma once

#include <windows.h>

#include <string>

inline bool IsWine() {
    return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

/// Loads winegap.dll, which adds what Wine lacks, if this is Wine and the library is beside the program.
/// Called at the start of a program, before it loads what needs the functions. On a real Windows it does
/// nothing.
/// @return true if it was loaded and started
inline bool LoadWineGap() {
    if (!IsWine()) return false;
    wchar_t path[MAX_PATH] = {};
    const DWORD length = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    if (length == 0 || length == MAX_PATH) return false;
    std::wstring library(path);
    library.replace(library.rfind(L'\\') + 1, std::wstring::npos, L"winegap.dll");
    const HMODULE module = ::LoadLibraryExW(library.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (module == nullptr) return false;
    const auto start =
        reinterpret_cast<DWORD(WINAPI*)()>(reinterpret_cast<void*>(::GetProcAddress(module, "WineGapStart")));
    return start != nullptr && start() == ERROR_SUCCESS;
}
