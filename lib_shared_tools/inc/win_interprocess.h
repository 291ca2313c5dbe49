#pragma once

#include <windows.h>

#include <string>

/// Named kernel objects through which processes meet.
namespace interprocess {

/// Creates and opens named mutexes and events that every user may open. A name has at most 260 characters
/// (MAX_PATH), with "Global\" where that is put in front.
///
/// Every handle it returns belongs to the caller, who closes it with CloseHandle. Has no state; safe from any
/// thread. Each narrow overload widens the name and forwards.
class CSystemMutex {
  public:
    virtual ~CSystemMutex() = default;

    /// @return the mutex; null if there is none
    /// @throws modul_exception::CWindowsApiExcp if the system refuses for any other reason
    virtual HANDLE OpenMutexInstance(const std::wstring& fullMutexName);
    virtual HANDLE OpenMutexInstance(const std::string& fullMutexName);
    /// @return the event; null if there is none
    /// @throws modul_exception::CWindowsApiExcp if the system refuses for any other reason
    virtual HANDLE OpenEventInstance(const std::wstring& fullEventName);
    virtual HANDLE OpenEventInstance(const std::string& fullEventName);
    /// @param owner the calling thread takes initial ownership
    /// @return the new mutex; null if somebody else created it
    /// @throws std::invalid_argument if the name is empty or too long
    /// @throws modul_exception::CWindowsApiExcp if the system refuses
    virtual HANDLE CreateMutexInstance(const std::wstring& fullMutexName, bool owner);
    virtual HANDLE CreateMutexInstance(const std::string& fullMutexName, bool owner);
    /// @return the new auto-reset event, not signalled; null if somebody else created it
    /// @throws std::invalid_argument if the name is empty or too long
    /// @throws modul_exception::CWindowsApiExcp if the system refuses
    virtual HANDLE CreateEventInstance(const std::string& fullEventName);
    virtual HANDLE CreateEventInstance(const std::wstring& fullEventName);
    /// Takes a lock that one process on the machine can hold.
    /// @param globalName without "Global\"
    /// @return the lock's mutex, owned by the calling thread; null if another process holds the lock
    /// @throws std::invalid_argument if the name is empty or too long
    /// @throws modul_exception::CWindowsApiExcp if the system refuses
    virtual HANDLE CheckSingleInstanceAndLock(const std::wstring& globalName);
    virtual HANDLE CheckSingleInstanceAndLock(const std::string& globalName);
    /// True if some process holds the lock; takes nothing.
    /// @param globalName without "Global\"
    /// @throws as CheckSingleInstanceAndLock
    virtual bool ProbeInstanceLock(const std::wstring& globalName);
    virtual bool ProbeInstanceLock(const std::string& globalName);
};

/// One named mapping, backed by the page file, and one view of it. Used by one thread.
class CSharedMemory {
  public:
    /// Longest mapping. Compared with the length in bytes, whatever its name says: the models' interface
    /// libraries were built against this limit.
    static constexpr DWORD MAX_SHM_OBJECT_LEN_IN_KB = 0x1000;

    CSharedMemory() = default;
    virtual ~CSharedMemory();
    CSharedMemory(const CSharedMemory&) = delete;
    CSharedMemory& operator=(const CSharedMemory&) = delete;

    /// True if a mapping of that name exists.
    /// @throws std::invalid_argument if the name is empty or has 260 characters or more
    virtual bool Exists(const std::wstring& name);
    /// Creates a mapping that every user may open, and maps it.
    /// @param length bytes, 1 to MAX_SHM_OBJECT_LEN_IN_KB
    /// @throws std::invalid_argument if name or length are out of their limits
    /// @throws std::runtime_error if the object is valid already or the mapping exists
    /// @throws modul_exception::CWindowsApiExcp if the system refuses
    virtual void Create(const std::wstring& name, DWORD length);
    /// Opens and maps an existing mapping. The length is trusted.
    /// @throws as Create; std::runtime_error if there is no such mapping
    virtual void Open(const std::string& name, DWORD length);
    virtual void Open(const std::wstring& name, DWORD length);
    /// @throws std::runtime_error if the object is not valid
    virtual void Close();
    /// Address of the view.
    /// @throws std::runtime_error if the object is not valid
    virtual void* GetShmPtr();
    /// Length in bytes.
    /// @throws std::runtime_error if the object is not valid
    virtual DWORD GetShmLength();

    /// True after a successful Create or Open, until Close.
    bool ObjectIsValid() const;

  private:
    static void ValidateNameParam(const std::wstring& name);
    static void ValidateLenParam(DWORD length);
    void ValidateForNewObject(const std::wstring& name, DWORD length) const;
    void ShmCreateFileMap(const std::wstring& name, DWORD length);
    static HANDLE ShmOpenFileMap(const std::wstring& name);
    void ShmMapView(const std::wstring& name, DWORD length);
    void Cleanup();

    HANDLE fileMap_ = nullptr;
    void* view_ = nullptr;
    std::wstring name_;
    DWORD length_ = 0;
};

}  // namespace interprocess
