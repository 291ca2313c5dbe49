#pragma once

#include <windows.h>
#include <tlhelp32.h>

#include <string>

namespace test_support {

/// Whether a process of a program runs on this machine.
/// @param program file name
inline bool ProcessRuns(const std::wstring& program) {
    const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    bool runs = false;
    for (BOOL more = ::Process32FirstW(snapshot, &entry); more; more = ::Process32NextW(snapshot, &entry))
        runs = runs || program == entry.szExeFile;
    ::CloseHandle(snapshot);
    return runs;
}

}  // namespace test_support
