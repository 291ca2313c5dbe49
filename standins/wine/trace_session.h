#pragma once

#include <windows.h>

#include <string>

/// The machine's one trace session, kept in the registry so that every process sees it, and the file it is
/// recorded in.
namespace wine_gap {

/// HKEY_LOCAL_MACHINE\SOFTWARE\winegap\TraceSession: "Name", "File" and "Handle", and for each enabled
/// control GUID a value of its name with the enable flags in the low and the level in the high half. Without
/// "File" there is no session.
inline constexpr wchar_t kTraceSessionKey[] = L"SOFTWARE\\winegap\\TraceSession";

struct TraceSession {
    std::wstring name;
    std::wstring file;
    ULONG64 handle = 0;  // 0: no session
};

/// What a session enabled for one control GUID; level 0 means disabled.
struct TraceEnable {
    ULONG flags = 0;
    UCHAR level = 0;
    bool operator==(const TraceEnable&) const = default;
};

TraceSession CurrentTraceSession();
TraceEnable EnabledFor(const GUID& controlGuid);

/// Head of a recorded file.
struct TraceFileHeader {
    char magic[8];
    static constexpr char kMagic[9] = "WGTRACE2";
};

/// Head of one recorded message; the arguments' bytes follow, `size` bytes in all.
struct TraceFileRecord {
    DWORD size;
    DWORD messageNumber;
    ULONG64 timeStamp;  // file time, 100 ns units since 1601 UTC
    DWORD processId;
    DWORD threadId;
    GUID messageGuid;
};

/// Held by whoever starts, changes or stops the session, and by whoever writes into the file.
inline constexpr wchar_t kTraceSessionLock[] = L"Global\\WINEGAP_TRACE_SESSION";
inline constexpr wchar_t kTraceFileLock[] = L"Global\\WINEGAP_TRACE_FILE";

}  // namespace wine_gap
