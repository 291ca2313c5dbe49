#pragma once

#include <windows.h>
#include <tlhelp32.h>

#include <string>
#include <vector>

#include "command.h"

namespace test_support {

/// The processes of a program that run on this machine.
/// @param program file name
inline std::vector<DWORD> ProcessesOf(const std::wstring& program) {
    const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    PROCESSENTRY32W entry = {};
    entry.dwSize = sizeof entry;
    std::vector<DWORD> processes;
    for (BOOL more = ::Process32FirstW(snapshot, &entry); more; more = ::Process32NextW(snapshot, &entry))
        if (program == entry.szExeFile) processes.push_back(entry.th32ProcessID);
    ::CloseHandle(snapshot);
    return processes;
}

inline bool ProcessRuns(const std::wstring& program) {
    return !ProcessesOf(program).empty();
}

/// Waits until no process of a program runs. One that hangs is ended: it would be in the way of all tests
/// behind this one.
/// @return false if one had to be ended
inline bool ProgramEnds(const std::wstring& program) {
    if (Eventually([&program] { return !ProcessRuns(program); })) return true;
    for (const DWORD id : ProcessesOf(program)) {
        const HANDLE process = ::OpenProcess(PROCESS_TERMINATE, FALSE, id);
        ::TerminateProcess(process, 1);
        ::CloseHandle(process);
    }
    return false;
}

}  // namespace test_support
