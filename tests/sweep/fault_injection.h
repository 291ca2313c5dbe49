#pragma once

#include <windows.h>

#include <map>
#include <string>
#include <vector>

namespace sweep {

/// What one of the plug-in's calls is to do instead of what it does.
using Replacements = std::map<std::string, void*>;

/// The call that is to fail: the number-th one of a function, from 1. Number 0: none fails.
struct Fault {
    std::string function;
    unsigned number = 0;
};

/// Loads the plug-in with all its calls under control: they are counted, one of them fails, and what they
/// acquire is kept account of. One for each process.
/// @return null if it cannot be loaded
HMODULE LoadUnderControl(const std::wstring& path, const Fault& fault, const Replacements& replacements);

/// True once the fault has happened.
bool FaultHappened();

/// How often each function was called that can fail.
std::map<std::string, unsigned> CallCounts();

/// Functions of which it is not known whether they can fail.
std::vector<std::string> UnknownFunctions();

/// The origins of what was acquired and not released, but for the instance lock.
std::vector<std::string> LeftBehind();

/// Keeps account of something that a replacement has acquired.
void KeepAccountOfHandle(HANDLE handle, const std::string& origin);

/// How often a thread of the plug-in's has begun to wait for more than a second.
unsigned LongWaits();

/// Waits until every thread of the plug-in's waits for something to do, or has ended.
/// @param longWaits what LongWaits returned before it was given something to do
void WaitUntilIdle(unsigned longWaits, DWORD timeout);

/// Threads of the plug-in's that have not ended after some time.
int RunningThreads(DWORD timeout);

/// Sends the plug-in's call through; for replacements that add to what they replace.
ULONG_PTR CallOriginal(const std::string& function, const ULONG_PTR* arguments);

}  // namespace sweep
