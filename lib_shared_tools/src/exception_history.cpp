#include "exception_history.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "function_trace.h"
#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\exception_history", "9d6ce0aa-32f5-4a3c-8a53-5a0c6a1c1f02",
             trace::kSharedTools);

namespace modul_exception {

// A section of its own, so that the history is found in a memory dump without symbols.
[[gnu::section(".exhist")]] constinit ExceptionHistory exceptionHistory = {};

namespace {

class HistoryLock {
  public:
    HistoryLock() { ::EnterCriticalSection(&exceptionHistory.lock); }
    ~HistoryLock() { ::LeaveCriticalSection(&exceptionHistory.lock); }
    HistoryLock(const HistoryLock&) = delete;
    HistoryLock& operator=(const HistoryLock&) = delete;
};

template <std::size_t N>
void CutTo(char (&field)[N], const char* text) {
    FUNCTION_TRACE();
    if (text == nullptr) return;
    const std::size_t length = std::min(std::strlen(text), N - 1);
    std::memcpy(field, text, length);
    field[length] = '\0';
}

void WriteTimeStamp(char (&field)[24]) {
    FUNCTION_TRACE();
    SYSTEMTIME now = {};
    ::GetSystemTime(&now);
    std::snprintf(field, sizeof field, "%02d.%02d.%04d;%02d:%02d:%02d:%03d", now.wDay, now.wMonth, now.wYear,
                  now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
}

}  // namespace

void InitializeExceptionHistory() {
    FUNCTION_TRACE();
    std::memset(static_cast<void*>(&exceptionHistory), 0, sizeof exceptionHistory);
    ::InitializeCriticalSection(&exceptionHistory.lock);
}

void CleanupExceptionHistory() {
    FUNCTION_TRACE();
    ::DeleteCriticalSection(&exceptionHistory.lock);
}

void RecordException(const std::exception& exception, const char* expressionText, const char* sourcePath,
                     const char* functionName, unsigned int line) noexcept {
    FUNCTION_TRACE();
    const char* file = sourcePath != nullptr ? trace::BaseName(sourcePath) : nullptr;
    TRACE_VERBOSE(10, "throw %s in %s(%u) %s", expressionText, file, line, functionName);
    const HistoryLock lock;
    ExceptionRecord& record = exceptionHistory.records[exceptionHistory.writeIndex];
    record = {};
    WriteTimeStamp(record.timeStamp);
    CutTo(record.what, exception.what());
    CutTo(record.expression, expressionText);
    CutTo(record.file, file);
    CutTo(record.function, functionName);
    record.processorNumber = ::GetCurrentProcessorNumber();
    record.threadId = ::GetCurrentThreadId();
    record.line = line;
    record.exception = &exception;
    exceptionHistory.writeIndex = (exceptionHistory.writeIndex + 1) % ExceptionHistory::kCapacity;
}

}  // namespace modul_exception
