#pragma once

#include <windows.h>

#include <string>

#include "program_folder.h"

namespace test_support {

struct CommandResult {
    DWORD exitCode = 0xFFFFFFFF;
    std::string output;  ///< standard output and error, without carriage returns
};

/// Runs a program of the test program's folder and waits for it.
/// @param commandLine e.g. L"tessahost.exe status"
inline CommandResult RunCommand(const std::wstring& commandLine) {
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    ::CreatePipe(&read, &write, &inheritable, 0);
    ::SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
    std::wstring line = ProgramFolder() + commandLine;
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = startup.hStdError = write;
    PROCESS_INFORMATION process = {};
    CommandResult result;
    const auto create = [&] {
        return ::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                                &process);
    };
    BOOL created = create();
    // Wine now and then ends a process before its first line, and says this.
    if (!created && ::GetLastError() == ERROR_INTERNAL_ERROR) created = create();
    const DWORD createError = ::GetLastError();
    ::CloseHandle(write);
    if (created) {
        char buffer[4096];
        DWORD size = 0;
        while (::ReadFile(read, buffer, sizeof buffer, &size, nullptr) && size > 0)
            result.output.append(buffer, size);
        std::erase(result.output, '\r');
        ::WaitForSingleObject(process.hProcess, INFINITE);
        ::GetExitCodeProcess(process.hProcess, &result.exitCode);
        ::CloseHandle(process.hThread);
        ::CloseHandle(process.hProcess);
    }
    if (!created) result.output = "not started, error " + std::to_string(createError);
    ::CloseHandle(read);
    return result;
}

/// Waits until a condition holds, at most ten seconds.
template <typename Condition>
bool Eventually(Condition condition) {
    const ULONGLONG deadline = ::GetTickCount64() + 10000;
    while (!condition()) {
        if (::GetTickCount64() > deadline) return false;
        ::Sleep(10);
    }
    return true;
}

/// For a process that has just registered for device events: Wine begins to listen some time after the first
/// registration, and does not say when; what comes before is lost.
inline void WaitUntilDeviceEventsCome() {
    ::Sleep(500);
}

}  // namespace test_support
