#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>
#include <objbase.h>

#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "machine_lock.h"
#include "trace_session.h"
#include "wine_gap.h"

// Trace controllers and consumers: starting, enabling and stopping the machine's one session, and reading
// back what it recorded.
namespace wine_gap {
namespace {

LSTATUS SetText(const wchar_t* name, const std::wstring& text) {
    return ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kTraceSessionKey, name, REG_SZ, text.c_str(),
                             static_cast<DWORD>((text.length() + 1) * sizeof(wchar_t)));
}

LSTATUS SetNumber(const wchar_t* name, ULONG64 number) {
    return ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kTraceSessionKey, name, REG_QWORD, &number, sizeof number);
}

/// Shared with everybody: a process that recorded into a former session of the file may still hold it open.
ULONG CreateTraceFile(const std::wstring& path) {
    const MachineLock fileLock(kTraceFileLock);
    const HANDLE file =
        ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                      nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return ::GetLastError();
    TraceFileHeader header = {};
    std::memcpy(header.magic, TraceFileHeader::kMagic, sizeof header.magic);
    DWORD written = 0;
    ::WriteFile(file, &header, sizeof header, &written, nullptr);
    ::CloseHandle(file);
    return ERROR_SUCCESS;
}

ULONG WINAPI Start(PTRACEHANDLE handle, LPCWSTR name, PEVENT_TRACE_PROPERTIES properties) {
    if (handle == nullptr || name == nullptr || properties == nullptr || properties->LogFileNameOffset == 0)
        return ERROR_INVALID_PARAMETER;
    const MachineLock sessionLock(kTraceSessionLock);
    if (const TraceSession running = CurrentTraceSession(); running.handle != 0)
        return running.name == name ? ERROR_ALREADY_EXISTS : ERROR_NO_SYSTEM_RESOURCES;
    const auto* file = reinterpret_cast<const wchar_t*>(reinterpret_cast<const BYTE*>(properties) +
                                                        properties->LogFileNameOffset);
    if (const ULONG result = CreateTraceFile(file); result != ERROR_SUCCESS) return result;
    ULONG64 now = 0;
    ::GetSystemTimeAsFileTime(reinterpret_cast<FILETIME*>(&now));
    *handle = now;
    // The file last: it is what makes the session exist.
    LSTATUS result = SetText(L"Name", name);
    if (result == ERROR_SUCCESS) result = SetNumber(L"Handle", now);
    if (result == ERROR_SUCCESS) result = SetText(L"File", file);
    return static_cast<ULONG>(result);
}

ULONG WINAPI Enable(ULONG enable, ULONG flags, ULONG level, LPCGUID controlGuid, TRACEHANDLE handle) {
    if (controlGuid == nullptr) return ERROR_INVALID_PARAMETER;
    const MachineLock sessionLock(kTraceSessionLock);
    if (CurrentTraceSession().handle != handle || handle == 0) return ERROR_INVALID_HANDLE;
    wchar_t name[40] = {};
    ::StringFromGUID2(*controlGuid, name, ARRAYSIZE(name));
    return static_cast<ULONG>(SetNumber(name, enable != 0 ? static_cast<ULONG64>(level) << 32 | flags : 0));
}

ULONG WINAPI Control(TRACEHANDLE handle, LPCWSTR name, PEVENT_TRACE_PROPERTIES, ULONG code) {
    const MachineLock sessionLock(kTraceSessionLock);
    const TraceSession running = CurrentTraceSession();
    const bool isMeant =
        running.handle != 0 && (name != nullptr ? running.name == name : running.handle == handle);
    if (!isMeant) return ERROR_WMI_INSTANCE_NOT_FOUND;
    if (code != EVENT_TRACE_CONTROL_STOP) return ERROR_SUCCESS;
    ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kTraceSessionKey, L"File");
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kTraceSessionKey, 0, KEY_ALL_ACCESS, &key) != ERROR_SUCCESS)
        return ERROR_SUCCESS;
    wchar_t value[64] = {};
    DWORD length = ARRAYSIZE(value);
    while (::RegEnumValueW(key, 0, value, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS) {
        ::RegDeleteValueW(key, value);
        length = ARRAYSIZE(value);
    }
    ::RegCloseKey(key);
    return ERROR_SUCCESS;
}

ULONG WINAPI Stop(TRACEHANDLE handle, LPCWSTR name, PEVENT_TRACE_PROPERTIES properties) {
    return Control(handle, name, properties, EVENT_TRACE_CONTROL_STOP);
}

struct Consumer {
    std::vector<BYTE> recording;
    PEVENT_RECORD_CALLBACK callback;
    void* context;
};

std::mutex lock;  // guards the consumers
std::map<TRACEHANDLE, Consumer> consumers;
TRACEHANDLE nextConsumer = 1;

TRACEHANDLE WINAPI Open(PEVENT_TRACE_LOGFILEW logFile) {
    if (logFile == nullptr || logFile->LogFileName == nullptr ||
        (logFile->ProcessTraceMode & PROCESS_TRACE_MODE_EVENT_RECORD) == 0) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_PROCESSTRACE_HANDLE;
    }
    const HANDLE file = ::CreateFileW(logFile->LogFileName, GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                      OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return INVALID_PROCESSTRACE_HANDLE;
    Consumer consumer{std::vector<BYTE>(::GetFileSize(file, nullptr)), logFile->EventRecordCallback,
                      logFile->Context};
    DWORD read = 0;
    ::ReadFile(file, consumer.recording.data(), static_cast<DWORD>(consumer.recording.size()), &read,
               nullptr);
    ::CloseHandle(file);
    if (read < sizeof(TraceFileHeader) ||
        std::memcmp(consumer.recording.data(), TraceFileHeader::kMagic, sizeof(TraceFileHeader)) != 0) {
        ::SetLastError(ERROR_FILE_CORRUPT);
        return INVALID_PROCESSTRACE_HANDLE;
    }
    const std::lock_guard guard(lock);
    consumers[nextConsumer] = std::move(consumer);
    return nextConsumer++;
}

void Deliver(const Consumer& consumer, const TraceFileRecord& record) {
    EVENT_RECORD event = {};
    event.EventHeader.Size = sizeof event.EventHeader;
    event.EventHeader.Flags = EVENT_HEADER_FLAG_TRACE_MESSAGE | EVENT_HEADER_FLAG_64_BIT_HEADER;
    event.EventHeader.ProcessId = record.processId;
    event.EventHeader.ThreadId = record.threadId;
    event.EventHeader.TimeStamp.QuadPart = static_cast<LONGLONG>(record.timeStamp);
    event.EventHeader.ProviderId = record.messageGuid;
    event.EventHeader.EventDescriptor.Id = static_cast<USHORT>(record.messageNumber);
    event.UserContext = consumer.context;
    event.UserData = const_cast<TraceFileRecord*>(&record + 1);
    event.UserDataLength = static_cast<USHORT>(record.size - sizeof record);
    consumer.callback(&event);
}

/// A record that is cut off, by a process that was killed, ends the reading; what is before it is delivered.
ULONG WINAPI Process(PTRACEHANDLE handles, ULONG count, LPFILETIME, LPFILETIME) {
    if (handles == nullptr || count != 1) return ERROR_INVALID_PARAMETER;
    Consumer consumer;
    {
        const std::lock_guard guard(lock);
        const auto found = consumers.find(handles[0]);
        if (found == consumers.end()) return ERROR_INVALID_HANDLE;
        consumer = found->second;
    }
    std::size_t at = sizeof(TraceFileHeader);
    while (at + sizeof(TraceFileRecord) <= consumer.recording.size()) {
        TraceFileRecord head;
        std::memcpy(&head, consumer.recording.data() + at, sizeof head);
        if (head.size < sizeof head || at + head.size > consumer.recording.size()) break;
        const std::vector<BYTE> aligned(
            consumer.recording.begin() + static_cast<std::ptrdiff_t>(at),
            consumer.recording.begin() + static_cast<std::ptrdiff_t>(at + head.size));
        Deliver(consumer, *reinterpret_cast<const TraceFileRecord*>(aligned.data()));
        at += head.size;
    }
    return at == consumer.recording.size() ? ERROR_SUCCESS : ERROR_FILE_CORRUPT;
}

ULONG WINAPI Close(TRACEHANDLE handle) {
    const std::lock_guard guard(lock);
    return consumers.erase(handle) == 1 ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}

}  // namespace

std::vector<Replacement> TraceControllerReplacements() {
    static constexpr wchar_t kLibrary[] = L"advapi32.dll";
    return {
        {kLibrary, "StartTraceW", reinterpret_cast<void*>(&Start), nullptr},
        {kLibrary, "EnableTrace", reinterpret_cast<void*>(&Enable), nullptr},
        {kLibrary, "ControlTraceW", reinterpret_cast<void*>(&Control), nullptr},
        {kLibrary, "StopTraceW", reinterpret_cast<void*>(&Stop), nullptr},
        {kLibrary, "OpenTraceW", reinterpret_cast<void*>(&Open), nullptr},
        {kLibrary, "ProcessTrace", reinterpret_cast<void*>(&Process), nullptr},
        {kLibrary, "CloseTrace", reinterpret_cast<void*>(&Close), nullptr},
    };
}

}  // namespace wine_gap
