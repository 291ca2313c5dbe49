#include <windows.h>
#include <evntrace.h>
#include <objbase.h>
#include <wmistr.h>

#include <cstdarg>
#include <cstring>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "machine_lock.h"
#include "process_lock.h"
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
    const bool wasDisabled = provider.enabled.level == 0;
    provider.session = session.handle;
    provider.enabled = enable;
    if (wasDisabled && enable.level == 0) return;
    announced = enable;
    WNODE_HEADER header = {};
    header.BufferSize = sizeof header;
    header.HistoricalContext = session.handle;
    header.Guid = provider.controlGuid;
    ULONG size = sizeof header;
    provider.callback(enable.level != 0 ? WMI_ENABLE_EVENTS : WMI_DISABLE_EVENTS, provider.context, &size,
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
    return buffer != nullptr ? static_cast<const WNODE_HEADER*>(buffer)->HistoricalContext : 0;
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
    ULONG Write(TRACEHANDLE session, const GUID& messageGuid, USHORT number,
                const std::vector<BYTE>& arguments) {
        const std::lock_guard guard(lock_);
        if (session != session_) Open(session);
        if (file_ == INVALID_HANDLE_VALUE) return ERROR_INVALID_HANDLE;
        TraceFileRecord head = {};
        head.size = static_cast<DWORD>(sizeof head + arguments.size());
        ::GetSystemTimePreciseAsFileTime(reinterpret_cast<FILETIME*>(&head.timeStamp));
        head.processId = ::GetCurrentProcessId();
        head.threadId = ::GetCurrentThreadId();
        head.messageGuid = messageGuid;
        head.messageNumber = number;
        buffer_.assign(reinterpret_cast<const BYTE*>(&head), reinterpret_cast<const BYTE*>(&head + 1));
        buffer_.insert(buffer_.end(), arguments.begin(), arguments.end());
        const MachineLock fileLock(kTraceFileLock);
        const DWORD end = ::SetFilePointer(file_, 0, nullptr, FILE_END);
        DWORD written = 0;
        const BOOL done = ::WriteFile(file_, buffer_.data(), head.size, &written, nullptr);
        if (done && written == head.size) return ERROR_SUCCESS;
        const DWORD error = done ? ERROR_DISK_FULL : ::GetLastError();
        ::SetFilePointer(file_, static_cast<LONG>(end), nullptr, FILE_BEGIN);  // no half record stays
        ::SetEndOfFile(file_);
        return error;
    }

  private:
    void Open(TRACEHANDLE session) {
        if (file_ != INVALID_HANDLE_VALUE) ::CloseHandle(file_);
        file_ = INVALID_HANDLE_VALUE;
        session_ = session;
        const TraceSession current = CurrentTraceSession();
        if (current.handle != session) return;
        file_ = ::CreateFileW(current.file.c_str(), GENERIC_WRITE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    }

    ProcessLock lock_;
    TRACEHANDLE session_ = 0;
    HANDLE file_ = INVALID_HANDLE_VALUE;
    std::vector<BYTE> buffer_;
};

/// The number is a USHORT; declared as what a variable argument list may follow.
ULONG Message(TRACEHANDLE session, ULONG, LPCGUID messageGuid, unsigned int number, ...) {
    static Recorder recorder;
    if (session == 0 || messageGuid == nullptr) return ERROR_INVALID_PARAMETER;
    std::vector<BYTE> bytes;
    va_list arguments;
    va_start(arguments, number);
    while (const auto* data = va_arg(arguments, const BYTE*)) {
        const std::size_t size = va_arg(arguments, std::size_t);
        bytes.insert(bytes.end(), data, data + size);
    }
    va_end(arguments);
    return recorder.Write(session, *messageGuid, static_cast<USHORT>(number), bytes);
}

std::wstring TextValue(const wchar_t* name) {
    wchar_t text[MAX_PATH] = {};
    DWORD size = sizeof text;
    ::RegGetValueW(HKEY_LOCAL_MACHINE, kTraceSessionKey, name, RRF_RT_REG_SZ, nullptr, text, &size);
    return text;
}

ULONG64 NumberValue(const wchar_t* name) {
    ULONG64 number = 0;
    DWORD size = sizeof number;
    ::RegGetValueW(HKEY_LOCAL_MACHINE, kTraceSessionKey, name, RRF_RT_REG_QWORD, nullptr, &number, &size);
    return number;
}

}  // namespace

TraceSession CurrentTraceSession() {
    TraceSession session{TextValue(L"Name"), TextValue(L"File"), NumberValue(L"Handle")};
    if (session.file.empty()) session.handle = 0;
    return session;
}

TraceEnable EnabledFor(const GUID& controlGuid) {
    wchar_t name[40] = {};
    ::StringFromGUID2(controlGuid, name, ARRAYSIZE(name));
    const ULONG64 value = NumberValue(name);
    return {static_cast<ULONG>(value), static_cast<UCHAR>(value >> 32)};
}

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
