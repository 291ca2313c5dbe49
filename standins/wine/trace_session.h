#pragma once

#include <windows.h>

#include <string>

/// The machine's one trace session, kept in the registry so that every process sees it.
namespace wine_gap {

/// HKEY_LOCAL_MACHINE\SOFTWARE\winegap\TraceSession: "Name", "File", "Handle", "Guid", "Mode",
/// "MaximumFileSize" and "BufferSize" as in EVENT_TRACE_PROPERTIES, and for each control GUID that was
/// enabled a value of its name with the enable flags in the low half, the level above them and kEnabled.
/// Without "File" there is no session.
inline constexpr wchar_t kTraceSessionKey[] = L"SOFTWARE\\winegap\\TraceSession";
inline constexpr ULONG64 kEnabled = 1ULL << 40;

struct TraceSession {
    std::wstring name;
    std::wstring file;
    ULONG64 handle = 0;  // 0: no session
    GUID guid = {};
    ULONG mode = 0;
    ULONG maximumFileSize = 0;  // in the unit of the mode; 0: none
    ULONG bufferSize = 0;       // KB; no message may be larger

    ULONG64 MaximumFileBytes() const;
};

/// What a session enabled for one control GUID. Level and flags may well be 0: the provider decides then.
struct TraceEnable {
    bool isEnabled = false;
    ULONG flags = 0;
    UCHAR level = 0;
    bool operator==(const TraceEnable&) const = default;
};

/// What a session could not record.
struct TraceLosses {
    ULONG events = 0;
    ULONG buffers = 0;  // of which each holds one event here
};

TraceSession CurrentTraceSession();
TraceEnable EnabledFor(const GUID& controlGuid);

/// Makes a session known. @return ERROR_SUCCESS or a system error code
ULONG BeginTraceSession(const TraceSession& session);
ULONG SetEnabledFor(const GUID& controlGuid, const TraceEnable& enable);
/// Ends the session, of whose recording the end and the losses are put down.
void EndTraceSession(const TraceSession& session);

/// The losses of the session since it has begun. Kept apart, so that counting wakes nobody.
TraceLosses CurrentTraceLosses();
void CountTraceLosses(const TraceLosses& more);

/// Held by whoever starts, changes or stops the session, and by whoever writes into the file or counts
/// losses. The former is taken first.
inline constexpr wchar_t kTraceSessionLock[] = L"Global\\WINEGAP_TRACE_SESSION";
inline constexpr wchar_t kTraceFileLock[] = L"Global\\WINEGAP_TRACE_FILE";

}  // namespace wine_gap
