#pragma once

#include <windows.h>

#include <exception>

#include "function_name.h"

namespace modul_exception {

/// One thrown exception. Texts are zero-terminated and cut to fit.
struct ExceptionRecord {
    DWORD threadId;
    DWORD processorNumber;
    DWORD line;
    const void* exception;  ///< address of the exception object when it was recorded
    char timeStamp[24];     ///< UTC, "dd.mm.yyyy;hh:mm:ss:mmm"
    char expression[64];
    char what[256];
    char file[64];
    char function[64];
};
static_assert(sizeof(ExceptionRecord) == 496, "engineers read this layout from memory dumps");

/// The last exceptions the module threw. The program never reads it: it is kept for whoever looks at a
/// memory dump of the process.
struct ExceptionHistory {
    static constexpr unsigned long long kCapacity = 5;

    ExceptionRecord records[kCapacity];
    unsigned long long writeIndex;  ///< next record to be written, 0..4
    CRITICAL_SECTION lock;
};

/// The module's history.
extern ExceptionHistory exceptionHistory;

/// Zeroes the history and makes its lock. Called once, at module attach, before anything can throw.
void InitializeExceptionHistory();

/// Deletes the history's lock. Called at module detach, when nothing throws any more.
void CleanupExceptionHistory();

/// Files one exception into the history. Never throws, never allocates.
/// @param expressionText source text of the throw expression, may be null
/// @param sourcePath built-in source path; only the part behind its last backslash is kept
/// @param functionName full name of the throwing function, may be null
void RecordException(const std::exception& exception, const char* expressionText, const char* sourcePath,
                     const char* functionName, unsigned int line) noexcept;

}  // namespace modul_exception

/// Throws what `...` constructs, after filing it into the exception history. The expression is evaluated
/// twice, each time with the last error as it was at the throw: the filed instance is not the thrown one.
#define MODUL_THROW(...)                                                        \
    do {                                                                        \
        DECLARE_FUNCTION_NAME(throwingFunction);                                \
        MODUL_FILE_AND_THROW(throwingFunction.text, #__VA_ARGS__, __VA_ARGS__); \
    } while (false)

/// The same for a helper of several functions: `functionName` is the one that is filed.
#define MODUL_THROW_FROM(functionName, ...) MODUL_FILE_AND_THROW(functionName, #__VA_ARGS__, __VA_ARGS__)

#define MODUL_FILE_AND_THROW(functionName, expressionText, ...)                                             \
    do {                                                                                                    \
        const DWORD lastErrorAtThrow = ::GetLastError();                                                    \
        modul_exception::RecordException(__VA_ARGS__, expressionText, kSourcePath, functionName, __LINE__); \
        ::SetLastError(lastErrorAtThrow);                                                                   \
        throw __VA_ARGS__;                                                                                  \
    } while (false)
