#include <windows.h>
#include <evntrace.h>
#include <objbase.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <string>

#include "machine_lock.h"
#include "trace_file.h"
#include "trace_session.h"
#include "wine_gap.h"

// Trace controllers: starting, enabling, asking and stopping the machine's one session. What is refused, and
// with which code, is what Windows documents for StartTrace, ControlTrace and EVENT_TRACE_PROPERTIES.
namespace wine_gap {
namespace {

constexpr std::size_t kMostCharacters = 1024;  // of a session's name, and of a log file's
constexpr ULONG kUsualBufferSize = 64;         // KB
constexpr GUID kSystemTraceControlGuid = {
    0x9e814aad, 0x3204, 0x11d2, {0x9a, 0x82, 0x00, 0x60, 0x08, 0xa8, 0x69, 0x39}};

// Not in every version of the headers.
constexpr ULONG kPrivateInProcess = 0x00020000;  // EVENT_TRACE_PRIVATE_IN_PROC
constexpr ULONG kSystemLogger = 0x02000000;      // EVENT_TRACE_SYSTEM_LOGGER_MODE
constexpr ULONG kNonStoppable = 0x00000040;      // EVENT_TRACE_NONSTOPPABLE_MODE

/// The texts behind the properties: the session's name, then the log file's.
class TextRoom {
  public:
    explicit TextRoom(EVENT_TRACE_PROPERTIES* properties) : properties_(*properties) {}

    /// Whether an offset points to memory behind the structure, for text.
    bool IsInside(ULONG offset) const {
        return offset >= sizeof properties_ && offset % sizeof(wchar_t) == 0 &&
               offset < properties_.Wnode.BufferSize;
    }
    /// How many characters there is room for, up to the other text or the end.
    std::size_t At(ULONG offset) const {
        const ULONG end = std::max(properties_.LoggerNameOffset, properties_.LogFileNameOffset);
        return ((offset < end ? end : properties_.Wnode.BufferSize) - offset) / sizeof(wchar_t);
    }
    /// A text up to its end or that of its room.
    std::wstring Text(ULONG offset) const {
        const wchar_t* text = Pointer(offset);
        return {text, text + ::wcsnlen(text, At(offset))};
    }
    bool Copy(ULONG offset, const std::wstring& text) {
        if (text.length() + 1 > At(offset)) return false;
        std::memcpy(Pointer(offset), text.c_str(), (text.length() + 1) * sizeof(wchar_t));
        return true;
    }

  private:
    wchar_t* Pointer(ULONG offset) const {
        return reinterpret_cast<wchar_t*>(reinterpret_cast<BYTE*>(&properties_) + offset);
    }
    EVENT_TRACE_PROPERTIES& properties_;
};

/// What a log file mode may not be combined with, as its documentation says.
bool IsCombinationValid(ULONG mode) {
    constexpr ULONG kFileModes = EVENT_TRACE_FILE_MODE_SEQUENTIAL | EVENT_TRACE_FILE_MODE_CIRCULAR |
                                 EVENT_TRACE_FILE_MODE_APPEND | EVENT_TRACE_FILE_MODE_NEWFILE;
    constexpr struct {
        ULONG mode;
        ULONG excludes;
    } kRules[] = {
        {EVENT_TRACE_FILE_MODE_SEQUENTIAL, EVENT_TRACE_FILE_MODE_CIRCULAR | EVENT_TRACE_FILE_MODE_NEWFILE},
        {EVENT_TRACE_FILE_MODE_CIRCULAR, EVENT_TRACE_FILE_MODE_APPEND | EVENT_TRACE_FILE_MODE_NEWFILE},
        {EVENT_TRACE_FILE_MODE_APPEND,
         EVENT_TRACE_REAL_TIME_MODE | EVENT_TRACE_FILE_MODE_NEWFILE | EVENT_TRACE_PRIVATE_LOGGER_MODE},
        {EVENT_TRACE_PRIVATE_LOGGER_MODE, EVENT_TRACE_REAL_TIME_MODE | EVENT_TRACE_FILE_MODE_PREALLOCATE},
        {EVENT_TRACE_BUFFERING_MODE, kFileModes | EVENT_TRACE_REAL_TIME_MODE},
        {EVENT_TRACE_USE_GLOBAL_SEQUENCE, EVENT_TRACE_USE_LOCAL_SEQUENCE},
    };
    return std::ranges::none_of(
        kRules, [mode](const auto& rule) { return (mode & rule.mode) != 0 && (mode & rule.excludes) != 0; });
}

/// Modes that there are, and that this session does not have.
constexpr ULONG kModesLeftOut = EVENT_TRACE_FILE_MODE_APPEND | EVENT_TRACE_FILE_MODE_NEWFILE |
                                EVENT_TRACE_FILE_MODE_PREALLOCATE | EVENT_TRACE_REAL_TIME_MODE |
                                EVENT_TRACE_BUFFERING_MODE | EVENT_TRACE_PRIVATE_LOGGER_MODE |
                                kPrivateInProcess | kSystemLogger | kNonStoppable;
constexpr ULONG kModesWithAMaximum =
    EVENT_TRACE_FILE_MODE_CIRCULAR | EVENT_TRACE_FILE_MODE_NEWFILE | EVENT_TRACE_FILE_MODE_PREALLOCATE;

/// What both StartTrace and ControlTrace want of the structure.
/// @param isNameNeeded whether there must be room for the session's name
ULONG CheckProperties(const wchar_t* name, EVENT_TRACE_PROPERTIES* properties, bool isNameNeeded = true) {
    if (properties == nullptr) return ERROR_INVALID_PARAMETER;
    if (properties->Wnode.BufferSize < sizeof *properties) return ERROR_BAD_LENGTH;
    const TextRoom room(properties);
    const ULONG nameOffset = properties->LoggerNameOffset;
    const ULONG fileOffset = properties->LogFileNameOffset;
    if ((nameOffset != 0 || isNameNeeded) && !room.IsInside(nameOffset)) return ERROR_INVALID_PARAMETER;
    if (fileOffset != 0 && (!room.IsInside(fileOffset) || fileOffset <= nameOffset))
        return ERROR_INVALID_PARAMETER;
    if (IsEqualGUID(properties->Wnode.Guid, kSystemTraceControlGuid) &&
        (name == nullptr || ::_wcsicmp(name, KERNEL_LOGGER_NAMEW) != 0))
        return ERROR_INVALID_PARAMETER;
    return ERROR_SUCCESS;
}

ULONG CheckMode(const EVENT_TRACE_PROPERTIES& properties) {
    const ULONG mode = properties.LogFileMode;
    if (!IsCombinationValid(mode) || ((mode & kModesWithAMaximum) != 0 && properties.MaximumFileSize == 0))
        return ERROR_INVALID_PARAMETER;
    return ERROR_SUCCESS;
}

/// The log file's name in full, as every process that is traced writes into it.
ULONG LogFileName(EVENT_TRACE_PROPERTIES* properties, std::wstring& file) {
    if (properties->LogFileNameOffset == 0) return ERROR_BAD_PATHNAME;
    const std::wstring given = TextRoom(properties).Text(properties->LogFileNameOffset);
    if (given.empty() || given.length() >= kMostCharacters) return ERROR_BAD_PATHNAME;
    wchar_t full[kMostCharacters] = {};
    const DWORD length = ::GetFullPathNameW(given.c_str(), ARRAYSIZE(full), full, nullptr);
    if (length == 0 || length >= ARRAYSIZE(full)) return ERROR_BAD_PATHNAME;
    file = full;
    return ERROR_SUCCESS;
}

/// There must be room for the whole file, and for 200 MB more on the drive of the system, or if no maximum is
/// given.
ULONG CheckRoomOnDisk(const TraceSession& session) {
    constexpr ULONG64 kReserve = 200ULL << 20;
    wchar_t windows[MAX_PATH] = {};
    ::GetSystemWindowsDirectoryW(windows, MAX_PATH);
    ULONG64 needed = session.MaximumFileBytes();
    const bool isOnSystemDrive = std::towupper(windows[0]) == std::towupper(session.file.front());
    if (needed == 0 || isOnSystemDrive) needed += kReserve;
    ULARGE_INTEGER available = {};
    const std::wstring folder = session.file.substr(0, session.file.rfind(L'\\') + 1);
    if (!::GetDiskFreeSpaceExW(folder.c_str(), &available, nullptr, nullptr)) return ERROR_SUCCESS;
    return available.QuadPart < needed ? ERROR_DISK_FULL : ERROR_SUCCESS;
}

ULONG CheckAgainstRunning(const TraceSession& running, const TraceSession& session) {
    if (running.handle == 0) return ERROR_SUCCESS;
    if (::_wcsicmp(running.name.c_str(), session.name.c_str()) == 0 ||
        (IsEqualGUID(running.guid, session.guid) && !IsEqualGUID(session.guid, GUID{})))
        return ERROR_ALREADY_EXISTS;
    if (::_wcsicmp(running.file.c_str(), session.file.c_str()) == 0) return ERROR_BAD_PATHNAME;
    return ERROR_NO_SYSTEM_RESOURCES;  // as if one were the most that there can be
}

/// Puts down what a session is and has lost.
/// @return ERROR_MORE_DATA if its texts have no room
ULONG Fill(EVENT_TRACE_PROPERTIES* properties, const TraceSession& session) {
    const TraceLosses losses = CurrentTraceLosses();
    properties->Wnode.HistoricalContext = session.handle;
    properties->Wnode.Guid = session.guid;
    properties->Wnode.Flags = WNODE_FLAG_TRACED_GUID;
    properties->BufferSize = session.bufferSize;
    properties->MinimumBuffers = properties->MaximumBuffers = properties->NumberOfBuffers = 1;
    properties->FreeBuffers = 0;
    properties->MaximumFileSize = session.maximumFileSize;
    properties->LogFileMode = session.mode;
    properties->EventsLost = losses.events;
    properties->LogBuffersLost = losses.buffers;
    properties->RealTimeBuffersLost = 0;
    properties->BuffersWritten = BuffersWrittenInto(session.file);
    TextRoom room(properties);
    bool hasRoom = true;
    if (properties->LoggerNameOffset != 0) hasRoom = room.Copy(properties->LoggerNameOffset, session.name);
    if (properties->LogFileNameOffset != 0)
        hasRoom = room.Copy(properties->LogFileNameOffset, session.file) && hasRoom;
    return hasRoom ? ERROR_SUCCESS : ERROR_MORE_DATA;
}

/// A session as it is asked for.
ULONG Describe(const wchar_t* name, EVENT_TRACE_PROPERTIES* properties, TraceSession& session) {
    if (const ULONG wrong = CheckProperties(name, properties); wrong != ERROR_SUCCESS) return wrong;
    if (name == nullptr || *name == L'\0' || (properties->Wnode.Flags & WNODE_FLAG_TRACED_GUID) == 0)
        return ERROR_INVALID_PARAMETER;
    session.name = name;
    if (session.name.length() > kMostCharacters ||
        session.name.length() + 1 > TextRoom(properties).At(properties->LoggerNameOffset))
        return ERROR_BAD_LENGTH;
    if (const ULONG wrong = CheckMode(*properties); wrong != ERROR_SUCCESS) return wrong;
    if ((properties->LogFileMode & kModesLeftOut) != 0 || ::_wcsicmp(name, KERNEL_LOGGER_NAMEW) == 0)
        return ERROR_NOT_SUPPORTED;
    if (const ULONG wrong = LogFileName(properties, session.file); wrong != ERROR_SUCCESS) return wrong;
    session.guid = properties->Wnode.Guid;
    if (IsEqualGUID(session.guid, GUID{})) ::CoCreateGuid(&session.guid);
    session.mode = properties->LogFileMode;
    session.maximumFileSize = properties->MaximumFileSize;
    session.bufferSize = kUsualBufferSize;
    return CheckRoomOnDisk(session);
}

ULONG WINAPI Start(PTRACEHANDLE handle, LPCWSTR name, PEVENT_TRACE_PROPERTIES properties) {
    if (handle == nullptr) return ERROR_INVALID_PARAMETER;
    *handle = 0;
    TraceSession session;
    if (const ULONG wrong = Describe(name, properties, session); wrong != ERROR_SUCCESS) return wrong;
    const MachineLock sessionLock(kTraceSessionLock);
    if (const ULONG wrong = CheckAgainstRunning(CurrentTraceSession(), session); wrong != ERROR_SUCCESS)
        return wrong;
    ::GetSystemTimeAsFileTime(reinterpret_cast<FILETIME*>(&session.handle));
    if (const ULONG result = CreateTraceFile(session, session.handle); result != ERROR_SUCCESS) return result;
    if (const ULONG result = BeginTraceSession(session); result != ERROR_SUCCESS) return result;
    *handle = session.handle;
    Fill(properties, session);
    return ERROR_SUCCESS;
}

ULONG WINAPI Enable(ULONG enable, ULONG flags, ULONG level, LPCGUID controlGuid, TRACEHANDLE handle) {
    constexpr ULONG kHighestLevel = 255;
    if (controlGuid == nullptr || handle == 0 || level > kHighestLevel) return ERROR_INVALID_PARAMETER;
    const MachineLock sessionLock(kTraceSessionLock);
    if (CurrentTraceSession().handle != handle) return ERROR_INVALID_HANDLE;
    if (enable == 0) return SetEnabledFor(*controlGuid, {});
    return SetEnabledFor(*controlGuid, {true, flags, static_cast<UCHAR>(level)});
}

/// Of what can be updated, the buffers and the timer change nothing here; another file is left out.
ULONG CheckUpdate(EVENT_TRACE_PROPERTIES* properties, const TraceSession& running) {
    if (properties->LogFileNameOffset != 0) {
        std::wstring file;
        if (const ULONG wrong = LogFileName(properties, file); wrong != ERROR_SUCCESS) return wrong;
        return ::_wcsicmp(file.c_str(), running.file.c_str()) == 0 ? ERROR_BAD_PATHNAME : ERROR_NOT_SUPPORTED;
    }
    return (properties->LogFileMode & EVENT_TRACE_REAL_TIME_MODE) != 0 ? ERROR_NOT_SUPPORTED : ERROR_SUCCESS;
}

ULONG WINAPI Control(TRACEHANDLE handle, LPCWSTR name, PEVENT_TRACE_PROPERTIES properties, ULONG code) {
    if (name == nullptr && handle == 0) return ERROR_INVALID_PARAMETER;
    const bool isUpdate = code == EVENT_TRACE_CONTROL_UPDATE;
    if (const ULONG wrong = CheckProperties(name, properties, !isUpdate); wrong != ERROR_SUCCESS)
        return wrong;
    const MachineLock sessionLock(kTraceSessionLock);
    const TraceSession running = CurrentTraceSession();
    const bool isMeant = running.handle != 0 && (name != nullptr ? ::_wcsicmp(running.name.c_str(), name) == 0
                                                                 : running.handle == handle);
    if (!isMeant) return ERROR_WMI_INSTANCE_NOT_FOUND;
    switch (code) {
        case EVENT_TRACE_CONTROL_STOP:
            EndTraceSession(running);
            break;
        case EVENT_TRACE_CONTROL_UPDATE:
            if (const ULONG wrong = CheckUpdate(properties, running); wrong != ERROR_SUCCESS) return wrong;
            break;
        case EVENT_TRACE_CONTROL_QUERY:
        case EVENT_TRACE_CONTROL_FLUSH:  // nothing is buffered
            break;
        default:
            return ERROR_INVALID_PARAMETER;
    }
    return Fill(properties, running);
}

ULONG WINAPI Stop(TRACEHANDLE handle, LPCWSTR name, PEVENT_TRACE_PROPERTIES properties) {
    return Control(handle, name, properties, EVENT_TRACE_CONTROL_STOP);
}

}  // namespace

std::vector<Replacement> TraceControllerReplacements() {
    static constexpr wchar_t kLibrary[] = L"advapi32.dll";
    return {
        {kLibrary, "StartTraceW", reinterpret_cast<void*>(&Start), nullptr},
        {kLibrary, "EnableTrace", reinterpret_cast<void*>(&Enable), nullptr},
        {kLibrary, "ControlTraceW", reinterpret_cast<void*>(&Control), nullptr},
        {kLibrary, "StopTraceW", reinterpret_cast<void*>(&Stop), nullptr},
    };
}

}  // namespace wine_gap
