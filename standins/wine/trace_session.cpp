#include "trace_session.h"

#include <evntrace.h>
#include <objbase.h>

#include "machine_lock.h"
#include "trace_file.h"

namespace wine_gap {
namespace {

constexpr wchar_t kLossesKey[] = L"SOFTWARE\\winegap\\TraceLosses";
constexpr ULONG64 kKilobyte = 1024;

std::wstring TextValue(const wchar_t* name) {
    wchar_t text[1100] = {};  // the longest that Windows allows for a session and its file have 1024
    DWORD size = sizeof text;
    ::RegGetValueW(HKEY_LOCAL_MACHINE, kTraceSessionKey, name, RRF_RT_REG_SZ, nullptr, text, &size);
    return text;
}

ULONG64 NumberValue(const wchar_t* key, const wchar_t* name) {
    ULONG64 number = 0;
    DWORD size = sizeof number;
    ::RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_QWORD, nullptr, &number, &size);
    return number;
}

LSTATUS SetText(const wchar_t* name, const std::wstring& text) {
    return ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kTraceSessionKey, name, REG_SZ, text.c_str(),
                             static_cast<DWORD>((text.length() + 1) * sizeof(wchar_t)));
}

LSTATUS SetNumber(const wchar_t* key, const wchar_t* name, ULONG64 number) {
    return ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, key, name, REG_QWORD, &number, sizeof number);
}

std::wstring TextOf(const GUID& guid) {
    wchar_t text[40] = {};
    ::StringFromGUID2(guid, text, ARRAYSIZE(text));
    return text;
}

void DeleteAllValues() {
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kTraceSessionKey, 0, KEY_ALL_ACCESS, &key) != ERROR_SUCCESS)
        return;
    wchar_t value[64] = {};
    DWORD length = ARRAYSIZE(value);
    while (::RegEnumValueW(key, 0, value, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS) {
        ::RegDeleteValueW(key, value);
        length = ARRAYSIZE(value);
    }
    ::RegCloseKey(key);
}

}  // namespace

ULONG64 TraceSession::MaximumFileBytes() const {
    const ULONG64 unit = (mode & EVENT_TRACE_USE_KBYTES_FOR_SIZE) != 0 ? kKilobyte : kKilobyte * kKilobyte;
    return maximumFileSize * unit;
}

TraceSession CurrentTraceSession() {
    const auto number = [](const wchar_t* name) { return NumberValue(kTraceSessionKey, name); };
    TraceSession session;
    session.file = TextValue(L"File");
    if (session.file.empty()) return {};
    session.name = TextValue(L"Name");
    session.handle = number(L"Handle");
    ::CLSIDFromString(TextValue(L"Guid").c_str(), &session.guid);
    session.mode = static_cast<ULONG>(number(L"Mode"));
    session.maximumFileSize = static_cast<ULONG>(number(L"MaximumFileSize"));
    session.bufferSize = static_cast<ULONG>(number(L"BufferSize"));
    return session;
}

TraceEnable EnabledFor(const GUID& controlGuid) {
    const ULONG64 value = NumberValue(kTraceSessionKey, TextOf(controlGuid).c_str());
    if ((value & kEnabled) == 0) return {};
    return {true, static_cast<ULONG>(value), static_cast<UCHAR>(value >> 32)};
}

ULONG BeginTraceSession(const TraceSession& session) {
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kLossesKey);
    LSTATUS result = SetText(L"Name", session.name);
    const auto set = [&result](const wchar_t* name, ULONG64 number) {
        if (result == ERROR_SUCCESS) result = SetNumber(kTraceSessionKey, name, number);
    };
    set(L"Handle", session.handle);
    set(L"Mode", session.mode);
    set(L"MaximumFileSize", session.maximumFileSize);
    set(L"BufferSize", session.bufferSize);
    if (result == ERROR_SUCCESS) result = SetText(L"Guid", TextOf(session.guid));
    // The file last: it is what makes the session exist.
    if (result == ERROR_SUCCESS) result = SetText(L"File", session.file);
    return static_cast<ULONG>(result);
}

ULONG SetEnabledFor(const GUID& controlGuid, const TraceEnable& enable) {
    const ULONG64 value = kEnabled | static_cast<ULONG64>(enable.level) << 32 | enable.flags;
    return static_cast<ULONG>(
        SetNumber(kTraceSessionKey, TextOf(controlGuid).c_str(), enable.isEnabled ? value : 0));
}

void EndTraceSession(const TraceSession& session) {
    ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kTraceSessionKey, L"File");
    DeleteAllValues();
    const MachineLock fileLock(kTraceFileLock);
    FinishTraceFile(session.file, CurrentTraceLosses());
}

TraceLosses CurrentTraceLosses() {
    return {static_cast<ULONG>(NumberValue(kLossesKey, L"Events")),
            static_cast<ULONG>(NumberValue(kLossesKey, L"Buffers"))};
}

void CountTraceLosses(const TraceLosses& more) {
    const TraceLosses now = CurrentTraceLosses();
    SetNumber(kLossesKey, L"Events", ULONG64{now.events} + more.events);
    SetNumber(kLossesKey, L"Buffers", ULONG64{now.buffers} + more.buffers);
}

}  // namespace wine_gap
