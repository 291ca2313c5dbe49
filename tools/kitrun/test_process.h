#pragma once

#include <windows.h>

#include <string>

namespace kitrun {

/// What came of a process that was given a limit.
struct ProcessResult {
    DWORD startError = 0;  ///< why it did not start
    bool timedOut = false;
    DWORD exitCode = 0;
    DWORD milliseconds = 0;
    std::string output;  ///< of its standard output and error, without carriage returns
};

/// Runs a process and waits for its end, at most so many seconds. At its end, or when the time is up, it and
/// all that it started are ended.
/// @param environment one NAME=VALUE that the process has besides, or empty
ProcessResult RunLimited(const std::wstring& commandLine, const std::wstring& folder, DWORD seconds,
                         const std::string& environment = "");

enum class Verdict { kPassed, kSkipped, kFailed, kTimedOut };

/// A test program has passed if it says so: one that dies of an exception may end with 0 all the same.
Verdict Judge(const ProcessResult& result);

}  // namespace kitrun
