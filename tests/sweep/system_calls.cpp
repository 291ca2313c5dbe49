#include "system_calls.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace sweep {
namespace {

using enum Failure;
using enum Resource;

constexpr SystemCall kSystemCalls[] = {
    // advapi32
    {"CloseEventLog", kNull, ERROR_INVALID_HANDLE, kEventLog, kNothing, 0},
    {"DeregisterEventSource", kNull, ERROR_INVALID_HANDLE, kEventLog, kNothing, 0},
    {"GetNumberOfEventLogRecords", kNull, ERROR_INVALID_HANDLE},
    {"GetOldestEventLogRecord", kNull, ERROR_INVALID_HANDLE},
    {"GetTraceEnableFlags", kNull},
    {"GetTraceEnableLevel", kNull},
    {"GetTraceLoggerHandle", kInvalid, ERROR_INVALID_HANDLE},
    {"InitializeSecurityDescriptor", kNull, ERROR_ACCESS_DENIED},
    {"NotifyChangeEventLog", kNull, ERROR_INVALID_HANDLE},
    {"OpenEventLogW", kNull, RPC_S_SERVER_UNAVAILABLE, kEventLog, kResult},
    {"ReadEventLogW", kNull, ERROR_EVENTLOG_FILE_CORRUPT},
    {"RegCloseKey", kStatus, ERROR_INVALID_HANDLE, kKey, kNothing, 0},
    {"RegCreateKeyExW", kStatus, ERROR_ACCESS_DENIED, kKey, 7},
    {"RegOpenKeyExW", kStatus, ERROR_FILE_NOT_FOUND, kKey, 4},
    {"RegQueryValueExW", kStatus, ERROR_FILE_NOT_FOUND},
    {"RegSetValueExW", kStatus, ERROR_ACCESS_DENIED},
    {"RegisterEventSourceW", kNull, RPC_S_SERVER_UNAVAILABLE, kEventLog, kResult},
    {"RegisterTraceGuidsW", kStatus, ERROR_NO_SYSTEM_RESOURCES, kTraceProvider, 7},
    {"ReportEventW", kNull, ERROR_LOG_FILE_FULL},
    {"SetSecurityDescriptorDacl", kNull, ERROR_ACCESS_DENIED},
    {"UnregisterTraceGuids", kStatus, ERROR_INVALID_PARAMETER, kTraceProvider, kNothing, 0},
    // kernel32
    {"CloseHandle", kNull, ERROR_INVALID_HANDLE, kHandle, kNothing, 0},
    {"CreateDirectoryW", kNull, ERROR_ACCESS_DENIED},
    {"CreateEventA", kNull, ERROR_NO_SYSTEM_RESOURCES, kHandle, kResult},
    {"CreateEventW", kNull, ERROR_ACCESS_DENIED, kHandle, kResult},
    {"CreateFileMappingW", kNull, ERROR_ACCESS_DENIED, kHandle, kResult},
    {"CreateFileW", kInvalid, ERROR_ACCESS_DENIED, kHandle, kResult},
    {"CreateMutexW", kNull, ERROR_ACCESS_DENIED, kHandle, kResult},
    {"CreateProcessW", kNull, ERROR_FILE_NOT_FOUND},
    {"CreateSemaphoreA", kNull, ERROR_NO_SYSTEM_RESOURCES, kHandle, kResult},
    // Only the C++ run time does it, for a handle of a thread, and ends the process by design where it
    // cannot.
    {"DuplicateHandle", kNever, 0, kHandle, 3},
    {"FileTimeToLocalFileTime", kNull, ERROR_INVALID_PARAMETER},
    {"FileTimeToSystemTime", kNull, ERROR_INVALID_PARAMETER},
    {"FormatMessageA", kNull, ERROR_MR_MID_NOT_FOUND, kSystemMemory, 4},
    {"FormatMessageW", kNull, ERROR_MR_MID_NOT_FOUND, kSystemMemory, 4},
    {"FreeLibrary", kNull, ERROR_INVALID_HANDLE, kModule, kNothing, 0},
    {"GetModuleFileNameW", kNull, ERROR_MOD_NOT_FOUND},
    {"GetModuleHandleA", kNull, ERROR_MOD_NOT_FOUND},
    {"GetModuleHandleExW", kNull, ERROR_MOD_NOT_FOUND},
    {"GetModuleHandleW", kNull, ERROR_MOD_NOT_FOUND},
    {"GetProcAddress", kNull, ERROR_PROC_NOT_FOUND},
    {"GetSystemDirectoryW", kNull, ERROR_ACCESS_DENIED},
    {"GetTempPathW", kNull, ERROR_ENVVAR_NOT_FOUND},
    {"IsWow64Process", kNull, ERROR_ACCESS_DENIED},
    {"LoadLibraryA", kNull, ERROR_MOD_NOT_FOUND, kModule, kResult},
    {"LoadLibraryExW", kNull, ERROR_FILE_NOT_FOUND, kModule, kResult},
    {"LoadLibraryW", kNull, ERROR_MOD_NOT_FOUND, kModule, kResult},
    {"LocalAlloc", kNull, ERROR_NOT_ENOUGH_MEMORY, kSystemMemory, kResult},
    {"LocalFree", kGivenBack, ERROR_INVALID_HANDLE, kSystemMemory, kNothing, 0},
    {"MapViewOfFile", kNull, ERROR_NOT_ENOUGH_MEMORY, kView, kResult},
    {"MultiByteToWideChar", kNull, ERROR_NO_UNICODE_TRANSLATION},
    {"OpenEventW", kNull, ERROR_ACCESS_DENIED, kHandle, kResult},
    {"OpenFileMappingW", kNull, ERROR_ACCESS_DENIED, kHandle, kResult},
    {"OpenMutexW", kNull, ERROR_ACCESS_DENIED, kHandle, kResult},
    {"ResetEvent", kNull, ERROR_INVALID_HANDLE},
    {"SetEvent", kNull, ERROR_INVALID_HANDLE},
    {"UnmapViewOfFile", kNull, ERROR_INVALID_ADDRESS, kView, kNothing, 0},
    {"VirtualProtect", kNull, ERROR_INVALID_ADDRESS},
    {"VirtualQuery", kNull, ERROR_BAD_LENGTH},
    {"WaitForMultipleObjects", kWait, ERROR_INVALID_HANDLE},
    {"WaitForSingleObject", kWait, ERROR_INVALID_HANDLE},
    {"WideCharToMultiByte", kNull, ERROR_INSUFFICIENT_BUFFER},
    // the C run time's; they report through errno, which nobody reads
    {"_beginthreadex", kNull, ERROR_NOT_ENOUGH_MEMORY, kHandle, kResult},
    {"malloc", kNull},
    {"realloc", kNull},
    // ole32, oleaut32
    {"CoCreateInstance", kHresult, static_cast<DWORD>(REGDB_E_CLASSNOTREG)},
    {"CoInitializeEx", kHresult, static_cast<DWORD>(RPC_E_CHANGED_MODE)},
    {"CoTaskMemFree", kNever, 0, kSystemMemory, kNothing, 0},
    {"CoUninitialize", kNever},
    {"GetErrorInfo", kHresult, static_cast<DWORD>(E_OUTOFMEMORY)},
    {"SafeArrayAccessData", kHresult, static_cast<DWORD>(E_UNEXPECTED)},
    {"SafeArrayGetDim", kNull},
    {"SafeArrayGetLBound", kHresult, static_cast<DWORD>(DISP_E_BADINDEX)},
    {"SafeArrayGetUBound", kHresult, static_cast<DWORD>(DISP_E_BADINDEX)},
    {"SafeArrayUnaccessData", kHresult, static_cast<DWORD>(E_UNEXPECTED)},
    {"StringFromGUID2", kNull},
    {"VariantClear", kHresult, static_cast<DWORD>(DISP_E_ARRAYISLOCKED)},
    // shell32, user32
    {"SHGetKnownFolderPath", kHresult, static_cast<DWORD>(E_FAIL), kSystemMemory, 3},
    {"SHGetSpecialFolderPathW", kNull, ERROR_PATH_NOT_FOUND},
    {"RegisterDeviceNotificationW", kNull, ERROR_SERVICE_SPECIFIC_ERROR, kNotification, kResult},
    {"UnregisterDeviceNotification", kNull, ERROR_INVALID_HANDLE, kNotification, kNothing, 0},
    // setupapi, at run time
    {"SetupDiDestroyDeviceInfoList", kNull, ERROR_INVALID_HANDLE, kDeviceSet, kNothing, 0},
    {"SetupDiEnumDeviceInterfaces", kNull, ERROR_INVALID_PARAMETER},
    {"SetupDiGetClassDevsW", kInvalid, ERROR_INVALID_DATA, kDeviceSet, kResult},
    {"SetupDiGetDeviceInterfaceDetailW", kNull, ERROR_INVALID_DATA},
    {"SetupDiOpenDeviceInterfaceRegKey", kInvalid, ERROR_ACCESS_DENIED, kKey, kResult},
    // wtsapi32 and dbghelp, at run time
    {"MiniDumpWriteDump", kNull, ERROR_DISK_FULL},
    {"WTSEnumerateSessionsW", kNull, RPC_S_SERVER_UNAVAILABLE, kSystemMemory, 3},
    {"WTSFreeMemory", kNever, 0, kSystemMemory, kNothing, 0},
    {"WTSSendMessageW", kNull, ERROR_CTX_WINSTATION_NOT_FOUND},
    // the configuration library, at run time: access denied, which is known to one of them only
    {"LogDeviceExists", kStatus, ERROR_ACCESS_DENIED},
    {"LogDeviceGetValue", kStatus, ERROR_ACCESS_DENIED},
    {"LogDeviceSetNdiValue", kStatus, ERROR_ACCESS_DENIED},
    {"TemplateGetEnum", kStatus, ERROR_ACCESS_DENIED},
};

constexpr const char* kCannotFail[] = {
    // They report nothing, or nothing but a state.
    "AcquireSRWLockExclusive",
    "DebugBreak",
    "DeleteCriticalSection",
    "EnterCriticalSection",
    "FreeEnvironmentStringsW",
    "GetCurrentProcess",
    "GetCurrentProcessId",
    "GetCurrentProcessorNumber",
    "GetCurrentThread",
    "GetCurrentThreadId",
    "GetLastError",
    "GetLocalTime",
    "GetSystemTime",
    "GetSystemTimeAsFileTime",
    "GetSystemTimePreciseAsFileTime",
    "GetTickCount",
    "GetTickCount64",
    "InitializeCriticalSection",
    "IsDBCSLeadByteEx",
    "IsDebuggerPresent",
    "LeaveCriticalSection",
    "OutputDebugStringA",
    "OutputDebugStringW",
    "QueryPerformanceCounter",
    "QueryPerformanceFrequency",
    "RaiseException",
    "ReleaseSRWLockExclusive",
    "SetLastError",
    "SetUnhandledExceptionFilter",
    "Sleep",
    "SleepConditionVariableSRW",
    "TryEnterCriticalSection",
    "VariantInit",
    "WakeAllConditionVariable",
    "lstrlenW",
    // Their result is not used, whatever it is: a trace never fails its caller.
    "TraceMessage",
    // The machinery of exceptions: where it fails there is nobody to be told.
    "AddVectoredExceptionHandler",
    "RemoveVectoredExceptionHandler",
    "RtlCaptureContext",
    "RtlLookupFunctionEntry",
    "RtlUnwindEx",
    "RtlVirtualUnwind",
    "__C_specific_handler",
    "_resetstkoflw",
    "_setjmp",
    "longjmp",
    // The run time's own business with its threads and their locals: they fail for handles and indices that
    // are not valid, and it made them itself. Where it cannot go on it ends the process by design.
    "GetHandleInformation",
    "GetProcessAffinityMask",
    "GetThreadContext",
    "GetThreadPriority",
    "OpenProcess",
    "ReleaseSemaphore",
    "ResumeThread",
    "SetProcessAffinityMask",
    "SetThreadContext",
    "SetThreadPriority",
    "SuspendThread",
    "TlsAlloc",
    "TlsFree",
    "TlsGetValue",
    "TlsSetValue",
    "_endthreadex",
    // The run time's clocks, of which the plug-in uses the plain ones only.
    "GetProcessTimes",
    "GetSystemTimeAdjustment",
    "GetThreadTimes",
    "SetSystemTime",
    // The run time makes its locks with it and writes to what it got without a look. What the plug-in itself
    // needs comes from malloc.
    "calloc",
    // Plain computations and the C library's tables and streams; some with one version of the run time only.
    "___lc_codepage_func",
    "___mb_cur_max_func",
    "__iob_func",
    "_amsg_exit",
    "_close",
    "_errno",
    "_initterm",
    "_lock",
    "_read",
    "_strdup",
    "_ultoa",
    "_unlock",
    "_vscprintf",
    "_vsnprintf",
    "abort",
    "exit",
    "fprintf",
    "fputc",
    "fputs",
    "fputwc",
    "free",
    "fwprintf",
    "fwrite",
    "getenv",
    "iswctype",
    "localeconv",
    "memchr",
    "memcmp",
    "memcpy",
    "memmove",
    "memset",
    "printf",
    "setlocale",
    "signal",
    "strchr",
    "strcmp",
    "strcoll",
    "strerror",
    "strftime",
    "strlen",
    "strncmp",
    "strtoul",
    "strxfrm",
    "swprintf_s",
    "toupper",
    "towlower",
    "towupper",
    "vfprintf",
    "wcscat_s",
    "wcscmp",
    "wcscoll",
    "wcsftime",
    "wcslen",
    "wcstoul",
    "wcsxfrm",
    // Wrapped for others: the plug-in never calls them.
    "ChangeServiceConfig2W",
    "ChangeServiceConfigW",
    "CloseServiceHandle",
    "ControlService",
    "CreateServiceW",
    "DeleteService",
    "GetFileInformationByHandle",
    "MessageBoxW",
    "OpenSCManagerW",
    "OpenServiceW",
    "QueryServiceConfig2W",
    "QueryServiceConfigW",
    "QueryServiceStatusEx",
    "RegisterServiceCtrlHandlerW",
    "StartServiceW",
};

}  // namespace

ULONG_PTR SystemCall::FailureValue(ULONG_PTR firstArgument) const {
    switch (failure) {
        case kInvalid:
            return static_cast<ULONG_PTR>(-1);
        case kStatus:
        case kHresult:
            return error;
        case kWait:
            return WAIT_FAILED;
        case kGivenBack:
            return firstArgument;
        default:
            return 0;
    }
}

bool SystemCall::HasSucceeded(ULONG_PTR result) const {
    switch (failure) {
        case kNull:
        case kInvalid:
            // Of a BOOL only the lower half means something; no handle has an empty one.
            return static_cast<DWORD>(result) != 0 && static_cast<DWORD>(result) != MAXDWORD;
        case kStatus:
            return static_cast<DWORD>(result) == ERROR_SUCCESS;
        case kHresult:
            return SUCCEEDED(static_cast<HRESULT>(result));
        case kGivenBack:
            return result == 0;
        default:
            return true;
    }
}

const SystemCall* FindSystemCall(const char* name) {
    const auto* found = std::ranges::find_if(
        kSystemCalls, [name](const SystemCall& call) { return std::strcmp(call.name, name) == 0; });
    return found != std::end(kSystemCalls) ? found : nullptr;
}

bool CannotFail(const char* name) {
    return std::ranges::any_of(kCannotFail,
                               [name](const char* known) { return std::strcmp(known, name) == 0; });
}

}  // namespace sweep
