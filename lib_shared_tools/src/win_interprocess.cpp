#include "win_interprocess.h"

#include <cwchar>
#include <stdexcept>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "toolbox.h"
#include "trace_point.h"
#include "win_convenience.h"
#include "windows_api_excp.h"

TRACE_SOURCE("lib_shared_tools\\src\\win_interprocess", "1d7c5b93-e0a6-4f28-8b4d-6c9a2e5f7009",
             trace::kSharedTools);

using modul_exception::CWindowsApiExcp;
using toolbox::WstringToString;

namespace interprocess {
namespace {

std::wstring Widened(const std::string& name) {
    FUNCTION_TRACE();
    std::wstring wide;
    for (const char* c = name.c_str(); *c != '\0'; ++c)
        wide += static_cast<wchar_t>(std::btowc(static_cast<unsigned char>(*c)));
    return wide;
}

void CloseObject(HANDLE handle) {
    FUNCTION_TRACE();
    if (!::CloseHandle(handle)) TRACE_ERROR(10, "CloseHandle(%p) failed, LE(%u)", handle, ::GetLastError());
}

/// At most MAX_PATH characters: mutexes and events may have one more than mappings, and callers rely on it.
void ValidateObjectName(const std::wstring& name) {
    FUNCTION_TRACE();
    if (name.empty()) MODUL_THROW(std::invalid_argument("Parameter FullMutexName is empty"));
    if (name.length() > MAX_PATH) MODUL_THROW(std::invalid_argument("Parameter FullMutexName is > MAX_PATH"));
}

/// True if a handle that was just created belongs to somebody else's object.
bool IsSomebodyElses(DWORD lastError) {
    FUNCTION_TRACE();
    return lastError == ERROR_ALREADY_EXISTS || lastError == ERROR_ACCESS_DENIED;
}

std::wstring GlobalName(const std::wstring& name) {
    FUNCTION_TRACE();
    if (name.empty()) MODUL_THROW(std::invalid_argument("GlobalName is empty!"));
    std::wstring fullName = L"Global\\" + name;
    if (fullName.length() > MAX_PATH) MODUL_THROW(std::invalid_argument("Global\\GlobalName > MAX_PATH!"));
    return fullName;
}

}  // namespace

HANDLE CSystemMutex::OpenMutexInstance(const std::wstring& fullMutexName) {
    FUNCTION_TRACE();
    const HANDLE mutex = ::OpenMutexW(MUTEX_ALL_ACCESS, FALSE, fullMutexName.c_str());
    if (mutex == nullptr && ::GetLastError() != ERROR_FILE_NOT_FOUND)
        MODUL_THROW(CWindowsApiExcp("OpenMutexW", WstringToString(fullMutexName)));
    return mutex;
}

HANDLE CSystemMutex::OpenMutexInstance(const std::string& fullMutexName) {
    FUNCTION_TRACE();
    return OpenMutexInstance(Widened(fullMutexName));
}

HANDLE CSystemMutex::OpenEventInstance(const std::wstring& fullEventName) {
    FUNCTION_TRACE();
    const HANDLE event = ::OpenEventW(EVENT_ALL_ACCESS, FALSE, fullEventName.c_str());
    if (event == nullptr && ::GetLastError() != ERROR_FILE_NOT_FOUND)
        MODUL_THROW(CWindowsApiExcp("OpenEventW", WstringToString(fullEventName)));
    return event;
}

HANDLE CSystemMutex::OpenEventInstance(const std::string& fullEventName) {
    FUNCTION_TRACE();
    return OpenEventInstance(Widened(fullEventName));
}

HANDLE CSystemMutex::CreateMutexInstance(const std::wstring& fullMutexName, bool owner) {
    FUNCTION_TRACE();
    ValidateObjectName(fullMutexName);
    SECURITY_ATTRIBUTES attributes;
    SECURITY_DESCRIPTOR descriptor;
    windows_api::GetDefaultSecurity(attributes, descriptor);
    ::SetLastError(ERROR_SUCCESS);
    const HANDLE mutex = ::CreateMutexW(&attributes, owner ? TRUE : FALSE, fullMutexName.c_str());
    const DWORD lastError = ::GetLastError();
    if (mutex == nullptr) MODUL_THROW(CWindowsApiExcp("CreateMutexW()", WstringToString(fullMutexName)));
    if (IsSomebodyElses(lastError)) {
        TRACE_WARNING(11, "Mutex %S exists already, LE(%u)", fullMutexName, lastError);
        CloseObject(mutex);
        return nullptr;
    }
    TRACE_INFO(12, "Mutex %S created, handle %p%s", fullMutexName, mutex,
               owner ? " => Owned by process" : "");
    return mutex;
}

HANDLE CSystemMutex::CreateMutexInstance(const std::string& fullMutexName, bool owner) {
    FUNCTION_TRACE();
    return CreateMutexInstance(Widened(fullMutexName), owner);
}

HANDLE CSystemMutex::CreateEventInstance(const std::string& fullEventName) {
    FUNCTION_TRACE();
    return CreateEventInstance(Widened(fullEventName));
}

HANDLE CSystemMutex::CreateEventInstance(const std::wstring& fullEventName) {
    FUNCTION_TRACE();
    ValidateObjectName(fullEventName);
    SECURITY_ATTRIBUTES attributes;
    SECURITY_DESCRIPTOR descriptor;
    windows_api::GetDefaultSecurity(attributes, descriptor);
    ::SetLastError(ERROR_SUCCESS);
    const HANDLE event = ::CreateEventW(&attributes, FALSE, FALSE, fullEventName.c_str());
    const DWORD lastError = ::GetLastError();
    if (event == nullptr) MODUL_THROW(CWindowsApiExcp("CreateEventW", WstringToString(fullEventName)));
    if (IsSomebodyElses(lastError)) {
        TRACE_WARNING(13, "Event %S exists already, LE(%u)", fullEventName, lastError);
        CloseObject(event);
        return nullptr;
    }
    TRACE_INFO(14, "Event %S created, handle %p", fullEventName, event);
    return event;
}

HANDLE CSystemMutex::CheckSingleInstanceAndLock(const std::wstring& globalName) {
    FUNCTION_TRACE();
    const HANDLE lock = CreateMutexInstance(GlobalName(globalName), true);
    TRACE_INFO(15, "Instance lock taken: %s", trace::ToText(lock != nullptr));
    return lock;
}

HANDLE CSystemMutex::CheckSingleInstanceAndLock(const std::string& globalName) {
    FUNCTION_TRACE();
    return CheckSingleInstanceAndLock(Widened(globalName));
}

bool CSystemMutex::ProbeInstanceLock(const std::wstring& globalName) {
    FUNCTION_TRACE();
    const HANDLE lock = OpenMutexInstance(GlobalName(globalName));
    if (lock == nullptr) return false;
    CloseObject(lock);
    return true;
}

bool CSystemMutex::ProbeInstanceLock(const std::string& globalName) {
    FUNCTION_TRACE();
    return ProbeInstanceLock(Widened(globalName));
}

CSharedMemory::~CSharedMemory() {
    FUNCTION_TRACE();
    Cleanup();
}

bool CSharedMemory::ObjectIsValid() const {
    FUNCTION_TRACE();
    return view_ != nullptr && fileMap_ != nullptr && !name_.empty() && length_ != 0;
}

void CSharedMemory::ValidateNameParam(const std::wstring& name) {
    FUNCTION_TRACE();
    if (name.empty()) MODUL_THROW(std::invalid_argument("Provided ObjectName is EMPTY!"));
    // One less than mutex names may have; callers rely on either limit as it is.
    if (name.length() >= MAX_PATH) MODUL_THROW(std::invalid_argument("Provided ObjectName > MAX_PATH!"));
}

void CSharedMemory::ValidateLenParam(DWORD length) {
    FUNCTION_TRACE();
    if (length == 0) MODUL_THROW(std::invalid_argument("SharedMemory Length is ZERO!"));
    if (length > MAX_SHM_OBJECT_LEN_IN_KB)
        MODUL_THROW(std::invalid_argument("SharedMemory Length GT MAX_SHM_OBJECT_LEN_IN_KB!"));
}

void CSharedMemory::ValidateForNewObject(const std::wstring& name, DWORD length) const {
    FUNCTION_TRACE();
    ValidateNameParam(name);
    ValidateLenParam(length);
    if (ObjectIsValid()) MODUL_THROW(std::runtime_error("Object already exists!"));
}

bool CSharedMemory::Exists(const std::wstring& name) {
    FUNCTION_TRACE();
    ValidateNameParam(name);
    const HANDLE fileMap = ShmOpenFileMap(name);
    if (fileMap != nullptr) CloseObject(fileMap);
    TRACE_INFO(16, "Mapping %S exists: %s", name, trace::ToText(fileMap != nullptr));
    return fileMap != nullptr;
}

void CSharedMemory::Create(const std::wstring& name, DWORD length) {
    FUNCTION_TRACE();
    ValidateForNewObject(name, length);
    ShmCreateFileMap(name, length);
    ShmMapView(name, length);
}

void CSharedMemory::Open(const std::string& name, DWORD length) {
    FUNCTION_TRACE();
    Open(Widened(name), length);
}

void CSharedMemory::Open(const std::wstring& name, DWORD length) {
    FUNCTION_TRACE();
    ValidateForNewObject(name, length);
    const HANDLE fileMap = ShmOpenFileMap(name);
    if (fileMap == nullptr) MODUL_THROW(std::runtime_error("OpenFileMapping() FAILED!"));
    Cleanup();
    fileMap_ = fileMap;
    ShmMapView(name, length);
}

void CSharedMemory::ShmCreateFileMap(const std::wstring& name, DWORD length) {
    FUNCTION_TRACE();
    Cleanup();  // what a failed attempt may have left
    SECURITY_ATTRIBUTES attributes;
    SECURITY_DESCRIPTOR descriptor;
    windows_api::GetDefaultSecurity(attributes, descriptor);
    ::SetLastError(ERROR_SUCCESS);
    fileMap_ =
        ::CreateFileMappingW(INVALID_HANDLE_VALUE, &attributes, PAGE_READWRITE, 0, length, name.c_str());
    const DWORD lastError = ::GetLastError();
    if (fileMap_ == nullptr) MODUL_THROW(CWindowsApiExcp("CreateFileMappingW()", WstringToString(name)));
    if (lastError == ERROR_ALREADY_EXISTS)
        MODUL_THROW(std::runtime_error("FileMapping ERROR_ALREADY_EXISTS! --> Call Open()"));
}

HANDLE CSharedMemory::ShmOpenFileMap(const std::wstring& name) {
    FUNCTION_TRACE();
    return ::OpenFileMappingW(FILE_MAP_READ | FILE_MAP_WRITE | READ_CONTROL, FALSE, name.c_str());
}

void CSharedMemory::ShmMapView(const std::wstring& name, DWORD length) {
    FUNCTION_TRACE();
    MODUL_ASSERT(fileMap_ != NULL);
    view_ = ::MapViewOfFile(fileMap_, FILE_MAP_ALL_ACCESS, 0, 0, length);
    if (view_ == nullptr) MODUL_THROW(CWindowsApiExcp("MapViewOfFile()", "Check rights!"));
    length_ = length;
    name_ = name;
    TRACE_INFO(17, "Mapping %S: %u bytes at %p", name_, length_, view_);
}

void CSharedMemory::Close() {
    FUNCTION_TRACE();
    if (!ObjectIsValid()) MODUL_THROW(std::runtime_error("Object does not exist!"));
    Cleanup();
}

void CSharedMemory::Cleanup() {
    FUNCTION_TRACE();
    if (view_ != nullptr && !::UnmapViewOfFile(view_))
        TRACE_ERROR(18, "UnmapViewOfFile(%p) failed, LE(%u)", view_, ::GetLastError());
    view_ = nullptr;
    if (fileMap_ != nullptr) CloseObject(fileMap_);
    fileMap_ = nullptr;
    length_ = 0;
    name_.clear();
}

void* CSharedMemory::GetShmPtr() {
    FUNCTION_TRACE();
    if (!ObjectIsValid()) MODUL_THROW(std::runtime_error("Object has invalid State! Wrong Sequence?"));
    return view_;
}

DWORD CSharedMemory::GetShmLength() {
    FUNCTION_TRACE();
    if (!ObjectIsValid()) MODUL_THROW(std::runtime_error("Object has invalid State! Wrong Sequence?"));
    return length_;
}

}  // namespace interprocess
