#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include "win_api.h"
#include "win_interprocess.h"

namespace tessaplug {

class CpInterprocessDatabase;
using CpInterprocessDatabases = std::vector<std::shared_ptr<CpInterprocessDatabase>>;

/// The interprocess objects of one model, through which its interface libraries in other processes
/// coordinate. Names are without "Global\".
class CpInterprocessDatabaseIf {
  public:
    /// The three models, also the one that is not tracked (NX3307).
    static std::shared_ptr<CpInterprocessDatabases> get_supported_cps();

    virtual ~CpInterprocessDatabaseIf() = default;
    virtual const std::wstring& Get_GlobalCiApiMutexName() const = 0;
    virtual const std::wstring& Get_GlobalCiSharedMemoryName() const = 0;
    virtual DWORD Get_GlobalCiSharedMemorySizeInBytes() const = 0;
    virtual const std::shared_ptr<interprocess::CSystemMutex>& Get_GlobalIpcMutex() const = 0;
    /// Stores a handle and returns the one stored before; null takes the handle out.
    virtual HANDLE GlobalMutexHandle(HANDLE handle) = 0;
    virtual const std::shared_ptr<interprocess::CSharedMemory>& Get_GlobalIpcShm() const = 0;
};

class CpInterprocessDatabase : public CpInterprocessDatabaseIf {
  public:
    /// @param shmName, mtxName 1 to 127 characters
    /// @throws std::invalid_argument with a text that names the parameter
    CpInterprocessDatabase(const std::wstring& shmName, const std::wstring& mtxName);

    const std::wstring& Get_GlobalCiApiMutexName() const override { return mutexName_; }
    const std::wstring& Get_GlobalCiSharedMemoryName() const override { return sharedMemoryName_; }
    DWORD Get_GlobalCiSharedMemorySizeInBytes() const override { return 24; }
    const std::shared_ptr<interprocess::CSystemMutex>& Get_GlobalIpcMutex() const override {
        return ipcMutex_;
    }
    HANDLE GlobalMutexHandle(HANDLE handle) override;
    const std::shared_ptr<interprocess::CSharedMemory>& Get_GlobalIpcShm() const override { return ipcShm_; }

  private:
    HANDLE globalMutexHandle_ = nullptr;
    std::wstring sharedMemoryName_;
    std::wstring mutexName_;
    std::shared_ptr<interprocess::CSystemMutex> ipcMutex_;
    std::shared_ptr<interprocess::CSharedMemory> ipcShm_;
};

/// Makes every model's mutex and shared memory exist while it lives. The plug-in neither owns the mutexes nor
/// looks into the memory: both belong to the interface libraries.
class CpEnvironment {
  public:
    /// @throws modul_exception::CWindowsApiExcp or std::runtime_error if an object can be neither created nor
    ///     opened; those made so far are closed
    explicit CpEnvironment(
        std::shared_ptr<CpInterprocessDatabases> ipcCps = CpInterprocessDatabaseIf::get_supported_cps(),
        std::shared_ptr<windows_api::CKernel32> kernel32 = std::make_shared<windows_api::CKernel32>());
    ~CpEnvironment();
    CpEnvironment(const CpEnvironment&) = delete;
    CpEnvironment& operator=(const CpEnvironment&) = delete;

  private:
    void Initialize();
    static void CreateGlobalMutex(CpInterprocessDatabase& record);
    static void CreateGlobalSharedMem(CpInterprocessDatabase& record);
    void Cleanup();

    std::shared_ptr<CpInterprocessDatabases> ipcCps_;
    std::shared_ptr<windows_api::CKernel32> kernel32_;
};

}  // namespace tessaplug
