#pragma once

#include <windows.h>
#include <winsvc.h>
#include <wtsapi32.h>

#include <dbghelp.h>
#include <memory>

/// Thin wrappers over system functions. Each operation calls the system function of its name with the same
/// arguments and returns its result unchanged; it neither reads nor changes the last error, which callers
/// read directly after the call. Objects that use the system hold a wrapper, so that a test can hand in one
/// that fails.
namespace windows_api {

/// kernel32.dll, bound at load time.
class CKernel32 {
  public:
    virtual ~CKernel32() = default;
    virtual BOOL CreateDirectoryW(const wchar_t* path, SECURITY_ATTRIBUTES* security);
    virtual HANDLE CreateFileW(const wchar_t* name, DWORD access, DWORD shareMode,
                               SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flagsAndAttributes,
                               HANDLE templateFile);
    virtual DWORD GetTempPathW(DWORD length, wchar_t* buffer);
    virtual DWORD GetLastError();
    virtual DWORD GetModuleFileNameW(HMODULE module, wchar_t* buffer, DWORD length);
    virtual HANDLE CreateEventW(SECURITY_ATTRIBUTES* security, BOOL manualReset, BOOL initialState,
                                const wchar_t* name);
    virtual DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
    virtual BOOL SetEvent(HANDLE event);
    virtual BOOL CloseHandle(HANDLE handle);
    virtual UINT GetSystemDirectoryW(wchar_t* buffer, UINT length);
    virtual BOOL CreateProcessW(const wchar_t* applicationName, wchar_t* commandLine,
                                SECURITY_ATTRIBUTES* processSecurity, SECURITY_ATTRIBUTES* threadSecurity,
                                BOOL inheritHandles, DWORD creationFlags, void* environment,
                                const wchar_t* currentDirectory, STARTUPINFOW* startupInfo,
                                PROCESS_INFORMATION* processInformation);
    virtual DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll,
                                         DWORD milliseconds);
    virtual BOOL ResetEvent(HANDLE event);
    virtual HMODULE LoadLibraryW(const wchar_t* fileName);
    virtual FARPROC GetProcAddress(HMODULE module, const char* name);
    virtual BOOL FreeLibrary(HMODULE module);
    virtual BOOL GetFileInformationByHandle(HANDLE file, BY_HANDLE_FILE_INFORMATION* information);
};

/// advapi32.dll, bound at load time.
class Advapi32 {
  public:
    virtual ~Advapi32() = default;
    /// Creates a service in a process of its own that runs as LocalSystem, with normal error control and
    /// all access to the returned handle.
    /// @param startType SERVICE_AUTO_START, SERVICE_DEMAND_START or SERVICE_DISABLED
    virtual SC_HANDLE CreateServiceW_Reduced(SC_HANDLE manager, const wchar_t* serviceName,
                                             const wchar_t* displayName, const wchar_t* binaryPathName,
                                             DWORD startType);
    virtual SC_HANDLE OpenSCManagerW(const wchar_t* machineName, const wchar_t* databaseName, DWORD access);
    virtual BOOL CloseServiceHandle(SC_HANDLE handle);
    virtual SC_HANDLE OpenServiceW(SC_HANDLE manager, const wchar_t* serviceName, DWORD access);
    virtual BOOL ControlService(SC_HANDLE service, DWORD control, SERVICE_STATUS* status);
    virtual BOOL QueryServiceStatusEx(SC_HANDLE service, SC_STATUS_TYPE level, BYTE* buffer, DWORD bufferSize,
                                      DWORD* bytesNeeded);
    virtual BOOL DeleteService(SC_HANDLE service);
    virtual BOOL ChangeServiceConfigW(SC_HANDLE service, DWORD serviceType, DWORD startType,
                                      DWORD errorControl, const wchar_t* binaryPathName,
                                      const wchar_t* loadOrderGroup, DWORD* tagId,
                                      const wchar_t* dependencies, const wchar_t* accountName,
                                      const wchar_t* password, const wchar_t* displayName);
    virtual BOOL ChangeServiceConfig2W(SC_HANDLE service, DWORD level, void* information);
    virtual BOOL QueryServiceConfigW(SC_HANDLE service, QUERY_SERVICE_CONFIGW* configuration,
                                     DWORD bufferSize, DWORD* bytesNeeded);
    virtual BOOL QueryServiceConfig2W(SC_HANDLE service, DWORD level, BYTE* buffer, DWORD bufferSize,
                                      DWORD* bytesNeeded);
    virtual BOOL StartServiceW(SC_HANDLE service, DWORD argc, const wchar_t** argv);
    virtual SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerW(const wchar_t* serviceName,
                                                              LPHANDLER_FUNCTION handler);
    virtual HANDLE OpenEventLogW(const wchar_t* serverName, const wchar_t* sourceName);
    virtual BOOL CloseEventLog(HANDLE eventLog);
    virtual LSTATUS RegOpenKeyExW(HKEY key, const wchar_t* subKey, DWORD options, REGSAM access,
                                  HKEY* result);
    virtual LSTATUS RegCloseKey(HKEY key);
    virtual BOOL GetOldestEventLogRecord(HANDLE eventLog, DWORD* oldestRecord);
    virtual BOOL GetNumberOfEventLogRecords(HANDLE eventLog, DWORD* numberOfRecords);
    virtual BOOL ReadEventLogW(HANDLE eventLog, DWORD readFlags, DWORD recordOffset, void* buffer,
                               DWORD bufferSize, DWORD* bytesRead, DWORD* bytesNeeded);
    virtual BOOL NotifyChangeEventLog(HANDLE eventLog, HANDLE event);
    virtual LSTATUS RegCreateKeyExW(HKEY key, const wchar_t* subKey, DWORD reserved, wchar_t* keyClass,
                                    DWORD options, REGSAM access, SECURITY_ATTRIBUTES* security, HKEY* result,
                                    DWORD* disposition);
    virtual LSTATUS RegSetValueExW(HKEY key, const wchar_t* valueName, DWORD reserved, DWORD type,
                                   const BYTE* data, DWORD size);
    virtual HANDLE RegisterEventSourceW(const wchar_t* serverName, const wchar_t* sourceName);
    virtual BOOL DeregisterEventSource(HANDLE eventLog);
    virtual BOOL ReportEventW(HANDLE eventLog, WORD type, WORD category, DWORD eventId, void* userSid,
                              WORD numberOfStrings, DWORD dataSize, const wchar_t** strings, void* data);
    virtual LSTATUS RegQueryValueExW(HKEY key, const wchar_t* valueName, DWORD* reserved, DWORD* type,
                                     BYTE* data, DWORD* size);
};

/// user32.dll, bound at load time.
class CUser32 {
  public:
    virtual ~CUser32() = default;
    virtual int MessageBoxW(HWND owner, const wchar_t* text, const wchar_t* caption, UINT type);
    virtual BOOL UnregisterDeviceNotification(HDEVNOTIFY notification);
    virtual HDEVNOTIFY RegisterDeviceNotificationW(HANDLE recipient, void* filter, DWORD flags);
};

/// dbghelp.dll, loaded when the object is made and freed with it.
class CDbgHlp {
  public:
    /// @throws modul_exception::CWindowsApiExcp if the library or its function cannot be had
    explicit CDbgHlp(std::shared_ptr<CKernel32> kernel32 = std::make_shared<CKernel32>());
    virtual ~CDbgHlp();
    CDbgHlp(const CDbgHlp&) = delete;
    CDbgHlp& operator=(const CDbgHlp&) = delete;

    virtual BOOL MiniDumpWriteDump(HANDLE process, DWORD processId, HANDLE file, MINIDUMP_TYPE dumpType,
                                   MINIDUMP_EXCEPTION_INFORMATION* exception,
                                   MINIDUMP_USER_STREAM_INFORMATION* userStreams,
                                   MINIDUMP_CALLBACK_INFORMATION* callback);
    /// Frees the library; harmless when it is freed already.
    void UnloadLib();

  private:
    std::shared_ptr<CKernel32> kernel32_;
    HMODULE hInst_ = nullptr;
    decltype(&::MiniDumpWriteDump) MiniDumpWriteDump_ = nullptr;
};

/// Wtsapi32.dll, loaded when the object is made and freed with it.
class CWtsapi32 {
  public:
    /// @throws modul_exception::CWindowsApiExcp if the library or one of its functions cannot be had
    explicit CWtsapi32(std::shared_ptr<CKernel32> kernel32 = std::make_shared<CKernel32>());
    virtual ~CWtsapi32();
    CWtsapi32(const CWtsapi32&) = delete;
    CWtsapi32& operator=(const CWtsapi32&) = delete;

    virtual BOOL WTSSendMessageW(HANDLE server, DWORD sessionId, wchar_t* title, DWORD titleLength,
                                 wchar_t* message, DWORD messageLength, DWORD style, DWORD timeout,
                                 DWORD* response, BOOL wait);
    virtual BOOL WTSEnumerateSessionsW(HANDLE server, DWORD reserved, DWORD version,
                                       WTS_SESSION_INFOW** sessions, DWORD* count);
    virtual void WTSFreeMemory(void* memory);
    /// Frees the library; harmless when it is freed already.
    void UnloadLib();

  private:
    std::shared_ptr<CKernel32> kernel32_;
    HMODULE hInst_ = nullptr;
    decltype(&::WTSSendMessageW) WTSSendMessageW_ = nullptr;
    decltype(&::WTSEnumerateSessionsW) WTSEnumerateSessionsW_ = nullptr;
    decltype(&::WTSFreeMemory) WTSFreeMemory_ = nullptr;
};

}  // namespace windows_api
