#include <windows.h>
#include <evntrace.h>
#include <wmistr.h>

#include <cstdarg>
#include <list>
#include <mutex>
#include <vector>

#include "machine_lock.h"
#include "process_lock.h"
#include "trace_file.h"
#include "trace_session.h"
#include "wine_gap.h"

// Trace providers: registration, the control callback when a session enables or disables them, and the
// recording of their messages. Registration runs in DllMain of the libraries that trace, so nothing here
// waits for a thread.
namespace wine_gap {
namespace {

struct Provider {
    TRACEHANDLE handle;
    WMIDPREQUEST callback;
    void* context;
    GUID controlGuid;
    TRACEHANDLE session;
    TraceEnable enabled;
};

// Taken again by a callback that unregisters.
ProcessLock lock;  // guards the providers; held during callbacks, so that none runs after Unregister
std::list<Provider> providers;
TRACEHANDLE nextHandle = 1;

/// What GetTraceEnableLevel and GetTraceEnableFlags answer during a callback.
thread_local TraceEnable announced;

void Announce(Provider& provider, const TraceSession& session, const TraceEnable& enable) {
    if (provider.session == session.handle && provider.enabled == enable) return;
    const bool wasEnabled = provider.enabled.isEnabled;
    provider.session = session.handle;
    provider.enabled = enable;
    if (!wasEnabled && !enable.isEnabled) return;
    announced = enable;
    WNODE_HEADER header = {};
    header.BufferSize = sizeof header;
    header.HistoricalContext = session.handle;
    header.Guid = provider.controlGuid;
    ULONG size = sizeof header;
    provider.callback(enable.isEnabled ? WMI_ENABLE_EVENTS : WMI_DISABLE_EVENTS, provider.context, &size,
                      &header);
}

void AnnounceToAll() {
    const std::lock_guard guard(lock);
    const TraceSession session = CurrentTraceSession();
    for (Provider& provider : providers)
        Announce(provider, session, session.handle != 0 ? EnabledFor(provider.controlGuid) : TraceEnable{});
}

/// Watches the session's key for the life of the process.
DWORD WINAPI SessionListener(void* opened) {
    const HKEY key = static_cast<HKEY>(opened);
    const HANDLE changed = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    for (;;) {
        if (::RegNotifyChangeKeyValue(key, TRUE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET, changed,
                                      TRUE) != ERROR_SUCCESS)
            return 1;
        AnnounceToAll();
        ::WaitForSingleObject(changed, INFINITE);
    }
}

ULONG WINAPI Register(WMIDPREQUEST callback, PVOID context, LPCGUID controlGuid, ULONG,
                      PTRACE_GUID_REGISTRATION, LPCWSTR, LPCWSTR, PTRACEHANDLE handle) {
    if (callback == nullptr || controlGuid == nullptr || handle == nullptr) return ERROR_INVALID_PARAMETER;
    const std::lock_guard guard(lock);
    // Under the lock: a session that starts from now on is announced by the listener.
    const TraceSession session = CurrentTraceSession();
    *handle = nextHandle++;
    providers.push_back({*handle, callback, context, *controlGuid, 0, {}});
    if (session.handle != 0) Announce(providers.back(), session, EnabledFor(*controlGuid));
    return ERROR_SUCCESS;
}

ULONG WINAPI Unregister(TRACEHANDLE handle) {
    const std::lock_guard guard(lock);
    const auto erased =
        providers.remove_if([handle](const Provider& provider) { return provider.handle == handle; });
    return erased == 1 ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
}

TRACEHANDLE WINAPI LoggerHandle(PVOID buffer) {
    if (buffer != nullptr) return static_cast<const WNODE_HEADER*>(buffer)->HistoricalContext;
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return INVALID_PROCESSTRACE_HANDLE;
}
UCHAR WINAPI EnableLevel(TRACEHANDLE) {
    return announced.level;
}
ULONG WINAPI EnableFlags(TRACEHANDLE) {
    return announced.flags;
}

/// The file of the running session, kept open for as long as the session is the same.
class Recorder {
  public:
    ULONG Write(TRACEHANDLE session, ULONG flags, const GUID& messageGuid, USHORT number,
                const std::vector<BYTE>& arguments) {
        const std::lock_guard guard(lock_);
        if (session != session_.handle || file_ == INVALID_HANDLE_VALUE) Open(session);
        if (session_.handle != session) return ERROR_INVALID_HANDLE;
        TraceFileRecord head = {};
        head.size = static_cast<DWORD>(sizeof head + arguments.size());
        ::GetSystemTimePreciseAsFileTime(reinterpret_cast<FILETIME*>(&head.timeStamp));
        if ((flags & TRACE_MESSAGE_SYSTEMINFO) != 0) {
            head.processId = ::GetCurrentProcessId();
            head.threadId = ::GetCurrentThreadId();
        }
        if ((flags & (TRACE_MESSAGE_GUID | TRACE_MESSAGE_COMPONENTID)) != 0) head.messageGuid = messageGuid;
        head.messageNumber = number;
        buffer_.assign(reinterpret_cast<const BYTE*>(&head), reinterpret_cast<const BYTE*>(&head + 1));
        buffer_.insert(buffer_.end(), arguments.begin(), arguments.end());
        // Windows' own overhead of a message is documented, and counts.
        constexpr std::size_t kOverhead = 72;
        if (arguments.size() + kOverhead > session_.bufferSize * std::size_t{1024}) {
            CountLoss(0);
            return ERROR_MORE_DATA;
        }
        return Append();
    }

  private:
    ULONG Append() {
        const ULONG result = file_ != INVALID_HANDLE_VALUE ? AppendRecord(file_, session_.handle, buffer_)
                                                           : ERROR_FILE_NOT_FOUND;
        if (result == ERROR_SUCCESS || result == ERROR_INVALID_HANDLE) return result;
        CountLoss(result == ERROR_LOG_FILE_FULL ? 0 : 1);
        if (result == ERROR_LOG_FILE_FULL) EndSession();
        return result;
    }

    static void CountLoss(ULONG buffers) {
        const MachineLock fileLock(kTraceFileLock);
        CountTraceLosses({1, buffers});
    }

    /// A session whose file is full ends by itself, unless it is circular.
    void EndSession() const {
        if ((session_.mode & EVENT_TRACE_FILE_MODE_CIRCULAR) != 0) return;
        const MachineLock sessionLock(kTraceSessionLock);
        if (CurrentTraceSession().handle == session_.handle) EndTraceSession(session_);
    }

    void Open(TRACEHANDLE session) {
        if (file_ != INVALID_HANDLE_VALUE) ::CloseHandle(file_);
        file_ = INVALID_HANDLE_VALUE;
        session_ = CurrentTraceSession();
        if (session_.handle == session) file_ = OpenTraceFile(session_.file);
    }

    ProcessLock lock_;
    TraceSession session_;
    HANDLE file_ = INVALID_HANDLE_VALUE;
    std::vector<BYTE> buffer_;
};

/// Which of the flags of TraceMessage there are, and that component and class exclude each other.
bool AreMessageFlags(ULONG flags) {
    constexpr ULONG kKnown = TRACE_MESSAGE_SEQUENCE | TRACE_MESSAGE_GUID | TRACE_MESSAGE_COMPONENTID |
                             TRACE_MESSAGE_TIMESTAMP | TRACE_MESSAGE_PERFORMANCE_TIMESTAMP |
                             TRACE_MESSAGE_SYSTEMINFO;
    constexpr ULONG kExclusive = TRACE_MESSAGE_GUID | TRACE_MESSAGE_COMPONENTID;
    return (flags & ~kKnown) == 0 && (flags & kExclusive) != kExclusive;
}

/// The number is a USHORT; declared as what a variable argument list may follow.
ULONG Message(TRACEHANDLE session, ULONG flags, LPCGUID messageGuid, unsigned int number, ...) {
    static Recorder recorder;
    if (session == 0) return ERROR_INVALID_HANDLE;
    if (messageGuid == nullptr || !AreMessageFlags(flags)) return ERROR_INVALID_PARAMETER;
    std::vector<BYTE> bytes;
    va_list arguments;
    va_start(arguments, number);
    while (const auto* data = va_arg(arguments, const BYTE*)) {
        const std::size_t size = va_arg(arguments, std::size_t);
        bytes.insert(bytes.end(), data, data + size);
    }
    va_end(arguments);
    return recorder.Write(session, flags, *messageGuid, static_cast<USHORT>(number), bytes);
}

}  // namespace

std::vector<Replacement> TraceProviderReplacements() {
    static constexpr wchar_t kLibrary[] = L"advapi32.dll";
    return {
        {kLibrary, "RegisterTraceGuidsW", reinterpret_cast<void*>(&Register), nullptr},
        {kLibrary, "UnregisterTraceGuids", reinterpret_cast<void*>(&Unregister), nullptr},
        {kLibrary, "GetTraceLoggerHandle", reinterpret_cast<void*>(&LoggerHandle), nullptr},
        {kLibrary, "GetTraceEnableLevel", reinterpret_cast<void*>(&EnableLevel), nullptr},
        {kLibrary, "GetTraceEnableFlags", reinterpret_cast<void*>(&EnableFlags), nullptr},
        {kLibrary, "TraceMessage", reinterpret_cast<void*>(&Message), nullptr},
    };
}

DWORD StartTraceProviders() {
    HKEY key = nullptr;
    const LSTATUS opened = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kTraceSessionKey, 0, nullptr, 0,
                                             KEY_READ | KEY_WRITE, nullptr, &key, nullptr);
    if (opened != ERROR_SUCCESS) return static_cast<DWORD>(opened);
    const HANDLE thread = ::CreateThread(nullptr, 0, &SessionListener, key, 0, nullptr);
    if (thread == nullptr) return ::GetLastError();
    ::CloseHandle(thread);
    return ERROR_SUCCESS;
}

}  // namespace wine_gap
