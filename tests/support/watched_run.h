#pragma once

#define PSAPI_VERSION 2  // the functions of kernel32
#include <windows.h>
#include <psapi.h>
#include <tlhelp32.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <string>

#include "program_folder.h"
#include "unique_handle.h"

namespace test_support {

/// What a program needed that was watched as it ran, with all the processes that it started.
struct WatchedRun {
    DWORD exitCode = 0xFFFFFFFF;  ///< also of a program that could not be started
    double milliseconds = 0;
    SIZE_T largestWorkingSet = 0;  ///< bytes, of the one process that had the most
    SIZE_T privateBytes = 0;       ///< of all of them together, at the moment when it was the most
    std::size_t processes = 0;     ///< how many were seen
};

/// A program of this one's folder that runs, without a standard input.
class StartedProgram {
  public:
    /// @param commandLine e.g. L"tessactl.exe status"
    /// @param output takes what it prints; a handle that can be inherited, or null for nowhere
    explicit StartedProgram(const std::wstring& commandLine, HANDLE output = nullptr) {
        SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
        const UniqueKernelHandle nowhere(::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE,
                                                       FILE_SHARE_READ | FILE_SHARE_WRITE, &inheritable,
                                                       OPEN_EXISTING, 0, nullptr));
        std::wstring line = ProgramFolder() + commandLine;
        STARTUPINFOW startup = {};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = nowhere.get();
        startup.hStdOutput = startup.hStdError = output != nullptr ? output : nowhere.get();
        PROCESS_INFORMATION process = {};
        if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                              &process)) {
            error_ = ::GetLastError();
            return;
        }
        ::CloseHandle(process.hThread);
        process_.reset(process.hProcess);
        id_ = process.dwProcessId;
    }
    /// Why it could not be started; ERROR_SUCCESS if it was.
    DWORD Error() const { return error_; }
    DWORD Id() const { return id_; }
    /// @return whether it has ended
    bool WaitFor(DWORD milliseconds) const {
        return !process_ || ::WaitForSingleObject(process_.get(), milliseconds) != WAIT_TIMEOUT;
    }
    DWORD ExitCode() const {
        DWORD code = 0xFFFFFFFF;
        if (process_) ::GetExitCodeProcess(process_.get(), &code);
        return code;
    }

  private:
    UniqueKernelHandle process_;
    DWORD error_ = ERROR_SUCCESS;
    DWORD id_ = 0;
};

/// Follows the memory of a process and of all that it starts, directly or not.
class MemoryWatch {
  public:
    explicit MemoryWatch(DWORD process) { watched_.insert(process); }

    void Look(WatchedRun& run) {
        FindDescendants();
        SIZE_T privateBytes = 0;
        for (const DWORD id : watched_) {
            UniqueKernelHandle& process = processes_[id];
            if (!process)
                process.reset(::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, id));
            PROCESS_MEMORY_COUNTERS memory = {};
            memory.cb = sizeof memory;
            if (!process || !::GetProcessMemoryInfo(process.get(), &memory, sizeof memory)) continue;
            run.largestWorkingSet = std::max(run.largestWorkingSet, memory.PeakWorkingSetSize);
            privateBytes += memory.PagefileUsage;
        }
        run.privateBytes = std::max(run.privateBytes, privateBytes);
        run.processes = watched_.size();
    }

  private:
    void FindDescendants() {
        const UniqueKernelHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
        PROCESSENTRY32W entry = {};
        entry.dwSize = sizeof entry;
        for (BOOL found = ::Process32FirstW(snapshot.get(), &entry); found;
             found = ::Process32NextW(snapshot.get(), &entry))
            if (watched_.contains(entry.th32ParentProcessID)) watched_.insert(entry.th32ProcessID);
    }

    std::set<DWORD> watched_;
    std::map<DWORD, UniqueKernelHandle> processes_;
};

/// Runs a program of this one's folder to its end and watches its memory.
inline WatchedRun RunWatched(const std::wstring& commandLine, HANDLE output = nullptr) {
    constexpr DWORD kStepMs = 5;
    WatchedRun run;
    const auto start = std::chrono::steady_clock::now();
    const StartedProgram program(commandLine, output);
    MemoryWatch watch(program.Id());
    do
        watch.Look(run);
    while (!program.WaitFor(kStepMs));
    run.milliseconds =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    run.exitCode = program.ExitCode();
    return run;
}

}  // namespace test_support
