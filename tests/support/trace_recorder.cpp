#include "trace_recorder.h"

#include <cstdarg>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

struct Provider {
    test_support::TraceRegistration registration;
    WMIDPREQUEST callback;
};

std::mutex lock;
std::vector<Provider> providers;
std::vector<test_support::TraceRecord> records;
TRACEHANDLE nextHandle = 1;

/// What the stand-in passes to the callback in place of the system's buffer.
struct EnableInfo {
    TRACEHANDLE logger;
    UCHAR level;
    ULONG flags;
} current;

void CallBack(const GUID& controlGuid, WMIDPREQUESTCODE request) {
    std::vector<Provider> called;
    {
        const std::lock_guard guard(lock);
        for (const Provider& provider : providers)
            if (IsEqualGUID(provider.registration.controlGuid, controlGuid)) called.push_back(provider);
    }
    for (const Provider& provider : called) {
        ULONG size = 0;
        provider.callback(request, provider.registration.context, &size, &current);
    }
}

}  // namespace

namespace test_support {

unsigned int TraceRecord::Integer(std::size_t index) const {
    unsigned int value = 0;
    std::memcpy(&value, arguments.at(index).data(), sizeof value);
    return value;
}

std::string TraceRecord::Text(std::size_t index) const {
    const auto& bytes = arguments.at(index);
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size() - 1};
}

std::wstring TraceRecord::WideText(std::size_t index) const {
    const auto& bytes = arguments.at(index);
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), bytes.size());
    text.pop_back();
    return text;
}

std::vector<TraceRegistration> TraceRegistrations() {
    const std::lock_guard guard(lock);
    std::vector<TraceRegistration> registrations;
    for (const Provider& provider : providers)
        registrations.push_back(provider.registration);
    return registrations;
}

std::vector<TraceRecord> TakeTraceRecords() {
    const std::lock_guard guard(lock);
    return std::exchange(records, {});
}

void EnableTracing(const GUID& controlGuid, UCHAR level, ULONG flags, TRACEHANDLE logger) {
    current = {logger, level, flags};
    CallBack(controlGuid, WMI_ENABLE_EVENTS);
}

void DisableTracing(const GUID& controlGuid) {
    CallBack(controlGuid, WMI_DISABLE_EVENTS);
}

std::vector<USHORT> TakeTraceNumbers() {
    std::vector<USHORT> numbers;
    for (const TraceRecord& record : TakeTraceRecords())
        numbers.push_back(record.number);
    return numbers;
}

}  // namespace test_support

namespace {

ULONG WINAPI Register(WMIDPREQUEST callback, PVOID context, LPCGUID controlGuid, ULONG,
                      PTRACE_GUID_REGISTRATION, LPCWSTR, LPCWSTR, PTRACEHANDLE handle) {
    const std::lock_guard guard(lock);
    *handle = nextHandle++;
    providers.push_back({{*controlGuid, context, *handle}, callback});
    return ERROR_SUCCESS;
}

ULONG WINAPI Unregister(TRACEHANDLE handle) {
    const std::lock_guard guard(lock);
    const auto erased =
        std::erase_if(providers, [handle](const Provider& p) { return p.registration.handle == handle; });
    return erased == 1 ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
}

TRACEHANDLE WINAPI LoggerHandle(PVOID buffer) {
    return static_cast<EnableInfo*>(buffer)->logger;
}
UCHAR WINAPI EnableLevel(TRACEHANDLE) {
    return current.level;
}
ULONG WINAPI EnableFlags(TRACEHANDLE) {
    return current.flags;
}

}  // namespace

/// Takes TraceMessage's place in the link. Its number is a USHORT; declared as what a variable argument list
/// may follow.
ULONG Message(TRACEHANDLE logger, ULONG flags, LPCGUID messageGuid, unsigned int number,
              ...) __asm__("TraceMessage");

ULONG Message(TRACEHANDLE logger, ULONG flags, LPCGUID messageGuid, unsigned int number, ...) {
    test_support::TraceRecord record{logger, flags, *messageGuid, static_cast<USHORT>(number), {}};
    va_list arguments;
    va_start(arguments, number);
    while (const auto* data = va_arg(arguments, const std::byte*)) {
        const std::size_t size = va_arg(arguments, std::size_t);
        record.arguments.emplace_back(data, data + size);
    }
    va_end(arguments);
    const std::lock_guard guard(lock);
    records.push_back(std::move(record));
    ::SetLastError(ERROR_INVALID_HANDLE);  // tracing may leave any last error behind
    return ERROR_SUCCESS;
}

// The import pointers of the system's functions: a program that links this file gets these instead of
// advapi32's.
extern "C" {
extern void* const __imp_RegisterTraceGuidsW;
extern void* const __imp_UnregisterTraceGuids;
extern void* const __imp_GetTraceLoggerHandle;
extern void* const __imp_GetTraceEnableLevel;
extern void* const __imp_GetTraceEnableFlags;
void* const __imp_RegisterTraceGuidsW = reinterpret_cast<void*>(&Register);
void* const __imp_UnregisterTraceGuids = reinterpret_cast<void*>(&Unregister);
void* const __imp_GetTraceLoggerHandle = reinterpret_cast<void*>(&LoggerHandle);
void* const __imp_GetTraceEnableLevel = reinterpret_cast<void*>(&EnableLevel);
void* const __imp_GetTraceEnableFlags = reinterpret_cast<void*>(&EnableFlags);
}
