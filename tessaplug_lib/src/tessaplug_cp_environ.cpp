#include "tessaplug_cp_environ.h"

#include <stdexcept>
#include <utility>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "trace_point.h"

TRACE_SOURCE("tessaplug_lib\\src\\tessaplug_cp_environ", "f29a4d8c-5b61-4c7e-a3d0-8e1b6f9c2a16",
             trace::kModule);

namespace tessaplug {
namespace {

constexpr wchar_t kGlobal[] = L"Global\\";
constexpr std::size_t kMaxNameLength = 128;

}  // namespace

std::shared_ptr<CpInterprocessDatabases> CpInterprocessDatabaseIf::get_supported_cps() {
    FUNCTION_TRACE();
    return std::make_shared<CpInterprocessDatabases>(CpInterprocessDatabases{
        std::make_shared<CpInterprocessDatabase>(L"FENLU3_SHM__{6FD85BC5-4A65-40E0-9B70-C6317C903901}",
                                                 L"FENLU3_MTX__{CE039657-5639-44FE-B95D-710A5C050FBB}"),
        std::make_shared<CpInterprocessDatabase>(L"NX4120_SHM__{A6ECF511-7E08-45E2-8ED1-68B5F0AAE657}",
                                                 L"NX4120_MTX__{16FBF2EA-4B2A-4A48-98A0-0E4C66BD1459}"),
        std::make_shared<CpInterprocessDatabase>(L"NX3307_SHM__{9C4C3B75-CA8D-481E-92B8-0424C0B296F1}",
                                                 L"NX3307_MTX__{392DAB85-E315-4E6E-9229-876EC63CC893}")});
}

CpInterprocessDatabase::CpInterprocessDatabase(const std::wstring& shmName, const std::wstring& mtxName)
    : sharedMemoryName_(shmName), mutexName_(mtxName) {
    FUNCTION_TRACE();
    if (mtxName.empty()) MODUL_THROW(std::invalid_argument("MtxName is empty!"));
    if (mtxName.length() >= kMaxNameLength) MODUL_THROW(std::invalid_argument("MtxName >= 128 characters!"));
    if (shmName.empty()) MODUL_THROW(std::invalid_argument("ShmName is empty!"));
    if (shmName.length() >= kMaxNameLength) MODUL_THROW(std::invalid_argument("ShmName >= 128 characters!"));
    ipcMutex_ = std::make_shared<interprocess::CSystemMutex>();
    ipcShm_ = std::make_shared<interprocess::CSharedMemory>();
}

HANDLE CpInterprocessDatabase::GlobalMutexHandle(HANDLE handle) {
    FUNCTION_TRACE();
    return std::exchange(globalMutexHandle_, handle);
}

CpEnvironment::CpEnvironment(std::shared_ptr<CpInterprocessDatabases> ipcCps,
                             std::shared_ptr<windows_api::CKernel32> kernel32)
    : ipcCps_(std::move(ipcCps)), kernel32_(std::move(kernel32)) {
    FUNCTION_TRACE();
    MODUL_ASSERT(!ipcCps_->empty());
    try {
        Initialize();
    } catch (...) {
        Cleanup();
        throw;
    }
}

CpEnvironment::~CpEnvironment() {
    FUNCTION_TRACE();
    Cleanup();
}

void CpEnvironment::Initialize() {
    FUNCTION_TRACE();
    MODUL_ASSERT(!ipcCps_->empty());
    for (const auto& record : *ipcCps_) {
        CreateGlobalMutex(*record);
        CreateGlobalSharedMem(*record);
    }
}

void CpEnvironment::CreateGlobalMutex(CpInterprocessDatabase& record) {
    FUNCTION_TRACE();
    const std::wstring fullName = kGlobal + record.Get_GlobalCiApiMutexName();
    interprocess::CSystemMutex& mutexes = *record.Get_GlobalIpcMutex();
    HANDLE mutex = mutexes.CreateMutexInstance(fullName, false);
    if (mutex == nullptr) mutex = mutexes.OpenMutexInstance(fullName);  // somebody else was first
    if (mutex == nullptr) MODUL_THROW(std::runtime_error("FAILED! OpenMutexInstance()"));
    record.GlobalMutexHandle(mutex);
    TRACE_INFO(10, "Mutex %S, handle %p", fullName, mutex);
}

void CpEnvironment::CreateGlobalSharedMem(CpInterprocessDatabase& record) {
    FUNCTION_TRACE();
    const std::wstring fullName = kGlobal + record.Get_GlobalCiSharedMemoryName();
    interprocess::CSharedMemory& memory = *record.Get_GlobalIpcShm();
    const DWORD size = record.Get_GlobalCiSharedMemorySizeInBytes();
    if (memory.Exists(fullName))
        memory.Open(fullName, size);  // an interface library was first
    else
        memory.Create(fullName, size);
    TRACE_INFO(11, "Shared memory %S at %p, %u bytes", fullName, memory.GetShmPtr(), memory.GetShmLength());
}

void CpEnvironment::Cleanup() {
    FUNCTION_TRACE();
    for (const auto& record : *ipcCps_) {
        const HANDLE mutex = record->GlobalMutexHandle(nullptr);
        if (mutex != nullptr && !kernel32_->CloseHandle(mutex))
            TRACE_ERROR(12, "CloseHandle(%p) failed, LE(%u)", mutex, ::GetLastError());
    }
}

}  // namespace tessaplug
