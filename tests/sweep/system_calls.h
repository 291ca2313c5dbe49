#pragma once

#include <windows.h>

namespace sweep {

/// How a call tells that it failed.
enum class Failure {
    kNever,      ///< it has no result, or none that tells
    kNull,       ///< null, 0 characters, FALSE
    kInvalid,    ///< INVALID_HANDLE_VALUE, -1
    kStatus,     ///< the error code itself
    kHresult,    ///< the HRESULT itself
    kWait,       ///< WAIT_FAILED
    kGivenBack,  ///< what was to be freed
};

/// What a call acquires or releases, for the ledger.
enum class Resource {
    kNone,
    kHandle,
    kModule,
    kKey,
    kView,
    kEventLog,
    kDeviceSet,
    kNotification,
    kSystemMemory,
    kCom,
    kTraceProvider,
};

inline constexpr int kNothing = -2;
inline constexpr int kResult = -1;

/// One function of the system or of a partner that the plug-in calls, and how its failure looks.
struct SystemCall {
    const char* name;
    Failure failure;
    DWORD error = 0;                      ///< the last error, status or HRESULT of a failure
    Resource resource = Resource::kNone;  ///< what it acquires or releases
    int acquires = kNothing;              ///< kResult, or the argument that points to what was acquired
    int releases = kNothing;              ///< the argument that is released

    /// What it returns when it fails.
    /// @param firstArgument of the call
    ULONG_PTR FailureValue(ULONG_PTR firstArgument) const;
    bool HasSucceeded(ULONG_PTR result) const;
};

/// The entry of a function; null if it is not to fail and nothing is kept of it.
const SystemCall* FindSystemCall(const char* name);

/// True if it is known why a function need not fail.
bool CannotFail(const char* name);

}  // namespace sweep
