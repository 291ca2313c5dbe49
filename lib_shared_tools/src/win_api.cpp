#include "win_api.h"

#include <utility>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "trace_point.h"
#include "windows_api_excp.h"

TRACE_SOURCE("lib_shared_tools\\src\\win_api", "e2a7f1d0-4c1b-4b7e-8a6d-2f4c8b9d1e05", trace::kSharedTools);

namespace windows_api {
namespace {

HMODULE Load(CKernel32& kernel32, const wchar_t* fileName, const char* hint) {
    FUNCTION_TRACE();
    const HMODULE module = kernel32.LoadLibraryW(fileName);
    if (module == nullptr) MODUL_THROW(modul_exception::CWindowsApiExcp("LoadLibraryW", hint));
    return module;
}

template <typename Function>
void Resolve(CKernel32& kernel32, HMODULE module, Function*& pointer, const char* name) {
    FUNCTION_TRACE();
    const FARPROC address = kernel32.GetProcAddress(module, name);
    if (address == nullptr) MODUL_THROW(modul_exception::CWindowsApiExcp("GetProcAddress", name));
    pointer = reinterpret_cast<Function*>(reinterpret_cast<void*>(address));
}

void Unload(CKernel32& kernel32, HMODULE& module, const wchar_t* fileName) {
    FUNCTION_TRACE();
    if (module == nullptr) return;
    if (kernel32.FreeLibrary(module))
        TRACE_INFO(10, "%S freed", fileName);
    else
        TRACE_WARNING(11, "FreeLibrary(%S) failed, LE(%u)", fileName, ::GetLastError());
    module = nullptr;
}

}  // namespace

BOOL CKernel32::CreateDirectoryW(const wchar_t* path, SECURITY_ATTRIBUTES* security) {
    FUNCTION_TRACE();
    return ::CreateDirectoryW(path, security);
}

HANDLE CKernel32::CreateFileW(const wchar_t* name, DWORD access, DWORD shareMode,
                              SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flagsAndAttributes,
                              HANDLE templateFile) {
    FUNCTION_TRACE();
    return ::CreateFileW(name, access, shareMode, security, disposition, flagsAndAttributes, templateFile);
}

DWORD CKernel32::GetTempPathW(DWORD length, wchar_t* buffer) {
    FUNCTION_TRACE();
    return ::GetTempPathW(length, buffer);
}

DWORD CKernel32::GetLastError() {
    FUNCTION_TRACE();
    return ::GetLastError();
}

DWORD CKernel32::GetModuleFileNameW(HMODULE module, wchar_t* buffer, DWORD length) {
    FUNCTION_TRACE();
    return ::GetModuleFileNameW(module, buffer, length);
}

HANDLE CKernel32::CreateEventW(SECURITY_ATTRIBUTES* security, BOOL manualReset, BOOL initialState,
                               const wchar_t* name) {
    FUNCTION_TRACE();
    return ::CreateEventW(security, manualReset, initialState, name);
}

DWORD CKernel32::WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    FUNCTION_TRACE();
    return ::WaitForSingleObject(handle, milliseconds);
}

BOOL CKernel32::SetEvent(HANDLE event) {
    FUNCTION_TRACE();
    return ::SetEvent(event);
}

BOOL CKernel32::CloseHandle(HANDLE handle) {
    FUNCTION_TRACE();
    return ::CloseHandle(handle);
}

UINT CKernel32::GetSystemDirectoryW(wchar_t* buffer, UINT length) {
    FUNCTION_TRACE();
    return ::GetSystemDirectoryW(buffer, length);
}

BOOL CKernel32::CreateProcessW(const wchar_t* applicationName, wchar_t* commandLine,
                               SECURITY_ATTRIBUTES* processSecurity, SECURITY_ATTRIBUTES* threadSecurity,
                               BOOL inheritHandles, DWORD creationFlags, void* environment,
                               const wchar_t* currentDirectory, STARTUPINFOW* startupInfo,
                               PROCESS_INFORMATION* processInformation) {
    FUNCTION_TRACE();
    return ::CreateProcessW(applicationName, commandLine, processSecurity, threadSecurity, inheritHandles,
                            creationFlags, environment, currentDirectory, startupInfo, processInformation);
}

DWORD CKernel32::WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll,
                                        DWORD milliseconds) {
    FUNCTION_TRACE();
    return ::WaitForMultipleObjects(count, handles, waitAll, milliseconds);
}

BOOL CKernel32::ResetEvent(HANDLE event) {
    FUNCTION_TRACE();
    return ::ResetEvent(event);
}

HMODULE CKernel32::LoadLibraryW(const wchar_t* fileName) {
    FUNCTION_TRACE();
    return ::LoadLibraryW(fileName);
}

FARPROC CKernel32::GetProcAddress(HMODULE module, const char* name) {
    FUNCTION_TRACE();
    return ::GetProcAddress(module, name);
}

BOOL CKernel32::FreeLibrary(HMODULE module) {
    FUNCTION_TRACE();
    return ::FreeLibrary(module);
}

BOOL CKernel32::GetFileInformationByHandle(HANDLE file, BY_HANDLE_FILE_INFORMATION* information) {
    FUNCTION_TRACE();
    return ::GetFileInformationByHandle(file, information);
}

SC_HANDLE Advapi32::CreateServiceW_Reduced(SC_HANDLE manager, const wchar_t* serviceName,
                                           const wchar_t* displayName, const wchar_t* binaryPathName,
                                           DWORD startType) {
    FUNCTION_TRACE();
    return ::CreateServiceW(manager, serviceName, displayName, SERVICE_ALL_ACCESS, SERVICE_WIN32_OWN_PROCESS,
                            startType, SERVICE_ERROR_NORMAL, binaryPathName, nullptr, nullptr, nullptr,
                            nullptr, nullptr);
}

SC_HANDLE Advapi32::OpenSCManagerW(const wchar_t* machineName, const wchar_t* databaseName, DWORD access) {
    FUNCTION_TRACE();
    return ::OpenSCManagerW(machineName, databaseName, access);
}

BOOL Advapi32::CloseServiceHandle(SC_HANDLE handle) {
    FUNCTION_TRACE();
    return ::CloseServiceHandle(handle);
}

SC_HANDLE Advapi32::OpenServiceW(SC_HANDLE manager, const wchar_t* serviceName, DWORD access) {
    FUNCTION_TRACE();
    return ::OpenServiceW(manager, serviceName, access);
}

BOOL Advapi32::ControlService(SC_HANDLE service, DWORD control, SERVICE_STATUS* status) {
    FUNCTION_TRACE();
    return ::ControlService(service, control, status);
}

BOOL Advapi32::QueryServiceStatusEx(SC_HANDLE service, SC_STATUS_TYPE level, BYTE* buffer, DWORD bufferSize,
                                    DWORD* bytesNeeded) {
    FUNCTION_TRACE();
    return ::QueryServiceStatusEx(service, level, buffer, bufferSize, bytesNeeded);
}

BOOL Advapi32::DeleteService(SC_HANDLE service) {
    FUNCTION_TRACE();
    return ::DeleteService(service);
}

BOOL Advapi32::ChangeServiceConfigW(SC_HANDLE service, DWORD serviceType, DWORD startType, DWORD errorControl,
                                    const wchar_t* binaryPathName, const wchar_t* loadOrderGroup,
                                    DWORD* tagId, const wchar_t* dependencies, const wchar_t* accountName,
                                    const wchar_t* password, const wchar_t* displayName) {
    FUNCTION_TRACE();
    return ::ChangeServiceConfigW(service, serviceType, startType, errorControl, binaryPathName,
                                  loadOrderGroup, tagId, dependencies, accountName, password, displayName);
}

BOOL Advapi32::ChangeServiceConfig2W(SC_HANDLE service, DWORD level, void* information) {
    FUNCTION_TRACE();
    return ::ChangeServiceConfig2W(service, level, information);
}

BOOL Advapi32::QueryServiceConfigW(SC_HANDLE service, QUERY_SERVICE_CONFIGW* configuration, DWORD bufferSize,
                                   DWORD* bytesNeeded) {
    FUNCTION_TRACE();
    return ::QueryServiceConfigW(service, configuration, bufferSize, bytesNeeded);
}

BOOL Advapi32::QueryServiceConfig2W(SC_HANDLE service, DWORD level, BYTE* buffer, DWORD bufferSize,
                                    DWORD* bytesNeeded) {
    FUNCTION_TRACE();
    return ::QueryServiceConfig2W(service, level, buffer, bufferSize, bytesNeeded);
}

BOOL Advapi32::StartServiceW(SC_HANDLE service, DWORD argc, const wchar_t** argv) {
    FUNCTION_TRACE();
    return ::StartServiceW(service, argc, argv);
}

SERVICE_STATUS_HANDLE Advapi32::RegisterServiceCtrlHandlerW(const wchar_t* serviceName,
                                                            LPHANDLER_FUNCTION handler) {
    FUNCTION_TRACE();
    return ::RegisterServiceCtrlHandlerW(serviceName, handler);
}

HANDLE Advapi32::OpenEventLogW(const wchar_t* serverName, const wchar_t* sourceName) {
    FUNCTION_TRACE();
    return ::OpenEventLogW(serverName, sourceName);
}

BOOL Advapi32::CloseEventLog(HANDLE eventLog) {
    FUNCTION_TRACE();
    return ::CloseEventLog(eventLog);
}

LSTATUS Advapi32::RegOpenKeyExW(HKEY key, const wchar_t* subKey, DWORD options, REGSAM access, HKEY* result) {
    FUNCTION_TRACE();
    return ::RegOpenKeyExW(key, subKey, options, access, result);
}

LSTATUS Advapi32::RegCloseKey(HKEY key) {
    FUNCTION_TRACE();
    return ::RegCloseKey(key);
}

BOOL Advapi32::GetOldestEventLogRecord(HANDLE eventLog, DWORD* oldestRecord) {
    FUNCTION_TRACE();
    return ::GetOldestEventLogRecord(eventLog, oldestRecord);
}

BOOL Advapi32::GetNumberOfEventLogRecords(HANDLE eventLog, DWORD* numberOfRecords) {
    FUNCTION_TRACE();
    return ::GetNumberOfEventLogRecords(eventLog, numberOfRecords);
}

BOOL Advapi32::ReadEventLogW(HANDLE eventLog, DWORD readFlags, DWORD recordOffset, void* buffer,
                             DWORD bufferSize, DWORD* bytesRead, DWORD* bytesNeeded) {
    FUNCTION_TRACE();
    return ::ReadEventLogW(eventLog, readFlags, recordOffset, buffer, bufferSize, bytesRead, bytesNeeded);
}

BOOL Advapi32::NotifyChangeEventLog(HANDLE eventLog, HANDLE event) {
    FUNCTION_TRACE();
    return ::NotifyChangeEventLog(eventLog, event);
}

LSTATUS Advapi32::RegCreateKeyExW(HKEY key, const wchar_t* subKey, DWORD reserved, wchar_t* keyClass,
                                  DWORD options, REGSAM access, SECURITY_ATTRIBUTES* security, HKEY* result,
                                  DWORD* disposition) {
    FUNCTION_TRACE();
    return ::RegCreateKeyExW(key, subKey, reserved, keyClass, options, access, security, result, disposition);
}

LSTATUS Advapi32::RegSetValueExW(HKEY key, const wchar_t* valueName, DWORD reserved, DWORD type,
                                 const BYTE* data, DWORD size) {
    FUNCTION_TRACE();
    return ::RegSetValueExW(key, valueName, reserved, type, data, size);
}

HANDLE Advapi32::RegisterEventSourceW(const wchar_t* serverName, const wchar_t* sourceName) {
    FUNCTION_TRACE();
    return ::RegisterEventSourceW(serverName, sourceName);
}

BOOL Advapi32::DeregisterEventSource(HANDLE eventLog) {
    FUNCTION_TRACE();
    return ::DeregisterEventSource(eventLog);
}

BOOL Advapi32::ReportEventW(HANDLE eventLog, WORD type, WORD category, DWORD eventId, void* userSid,
                            WORD numberOfStrings, DWORD dataSize, const wchar_t** strings, void* data) {
    FUNCTION_TRACE();
    return ::ReportEventW(eventLog, type, category, eventId, userSid, numberOfStrings, dataSize, strings,
                          data);
}

LSTATUS Advapi32::RegQueryValueExW(HKEY key, const wchar_t* valueName, DWORD* reserved, DWORD* type,
                                   BYTE* data, DWORD* size) {
    FUNCTION_TRACE();
    return ::RegQueryValueExW(key, valueName, reserved, type, data, size);
}

int CUser32::MessageBoxW(HWND owner, const wchar_t* text, const wchar_t* caption, UINT type) {
    FUNCTION_TRACE();
    return ::MessageBoxW(owner, text, caption, type);
}

BOOL CUser32::UnregisterDeviceNotification(HDEVNOTIFY notification) {
    FUNCTION_TRACE();
    return ::UnregisterDeviceNotification(notification);
}

HDEVNOTIFY CUser32::RegisterDeviceNotificationW(HANDLE recipient, void* filter, DWORD flags) {
    FUNCTION_TRACE();
    return ::RegisterDeviceNotificationW(recipient, filter, flags);
}

CDbgHlp::CDbgHlp(std::shared_ptr<CKernel32> kernel32) : kernel32_(std::move(kernel32)) {
    FUNCTION_TRACE();
    hInst_ = Load(*kernel32_, L"dbghelp.dll", "Loading dbghelp.dll");
    try {
        Resolve(*kernel32_, hInst_, MiniDumpWriteDump_, "MiniDumpWriteDump");
    } catch (...) {
        UnloadLib();
        throw;
    }
}

CDbgHlp::~CDbgHlp() {
    FUNCTION_TRACE();
    UnloadLib();
}

BOOL CDbgHlp::MiniDumpWriteDump(HANDLE process, DWORD processId, HANDLE file, MINIDUMP_TYPE dumpType,
                                MINIDUMP_EXCEPTION_INFORMATION* exception,
                                MINIDUMP_USER_STREAM_INFORMATION* userStreams,
                                MINIDUMP_CALLBACK_INFORMATION* callback) {
    FUNCTION_TRACE();
    MODUL_ASSERT(hInst_ != NULL);
    MODUL_ASSERT(MiniDumpWriteDump_ != NULL);
    if (MiniDumpWriteDump_ == nullptr) return FALSE;
    return MiniDumpWriteDump_(process, processId, file, dumpType, exception, userStreams, callback);
}

void CDbgHlp::UnloadLib() {
    FUNCTION_TRACE();
    Unload(*kernel32_, hInst_, L"dbghelp.dll");
    MiniDumpWriteDump_ = nullptr;
}

CWtsapi32::CWtsapi32(std::shared_ptr<CKernel32> kernel32) : kernel32_(std::move(kernel32)) {
    FUNCTION_TRACE();
    hInst_ = Load(*kernel32_, L"Wtsapi32.dll", "Loading Wtsapi32.dll");
    try {
        Resolve(*kernel32_, hInst_, WTSSendMessageW_, "WTSSendMessageW");
        Resolve(*kernel32_, hInst_, WTSEnumerateSessionsW_, "WTSEnumerateSessionsW");
        Resolve(*kernel32_, hInst_, WTSFreeMemory_, "WTSFreeMemory");
    } catch (...) {
        UnloadLib();
        throw;
    }
}

CWtsapi32::~CWtsapi32() {
    FUNCTION_TRACE();
    UnloadLib();
}

BOOL CWtsapi32::WTSSendMessageW(HANDLE server, DWORD sessionId, wchar_t* title, DWORD titleLength,
                                wchar_t* message, DWORD messageLength, DWORD style, DWORD timeout,
                                DWORD* response, BOOL wait) {
    FUNCTION_TRACE();
    MODUL_ASSERT(hInst_ != NULL);
    MODUL_ASSERT(WTSSendMessageW_ != NULL);
    if (WTSSendMessageW_ == nullptr) return FALSE;
    return WTSSendMessageW_(server, sessionId, title, titleLength, message, messageLength, style, timeout,
                            response, wait);
}

BOOL CWtsapi32::WTSEnumerateSessionsW(HANDLE server, DWORD reserved, DWORD version,
                                      WTS_SESSION_INFOW** sessions, DWORD* count) {
    FUNCTION_TRACE();
    MODUL_ASSERT(hInst_ != NULL);
    MODUL_ASSERT(WTSEnumerateSessionsW_ != NULL);
    if (WTSEnumerateSessionsW_ == nullptr) return FALSE;
    return WTSEnumerateSessionsW_(server, reserved, version, sessions, count);
}

void CWtsapi32::WTSFreeMemory(void* memory) {
    FUNCTION_TRACE();
    MODUL_ASSERT(hInst_ != NULL);
    MODUL_ASSERT(WTSFreeMemory_ != NULL);
    if (WTSFreeMemory_ != nullptr) WTSFreeMemory_(memory);
}

void CWtsapi32::UnloadLib() {
    FUNCTION_TRACE();
    Unload(*kernel32_, hInst_, L"Wtsapi32.dll");
    WTSSendMessageW_ = nullptr;
    WTSEnumerateSessionsW_ = nullptr;
    WTSFreeMemory_ = nullptr;
}

}  // namespace windows_api
