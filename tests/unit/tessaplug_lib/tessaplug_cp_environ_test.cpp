#include "tessaplug_cp_environ.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "module_hooks.h"
#include "named_objects.h"
#include "process_census.h"
#include "text_of.h"
#include "unique_handle.h"
#include "windows_api_excp.h"

using tessaplug::CpEnvironment;
using tessaplug::CpInterprocessDatabase;
using tessaplug::CpInterprocessDatabaseIf;
using tessaplug::CpInterprocessDatabases;
using test_support::AcquiredByAnotherThread;
using test_support::ModuleHooks;
using test_support::OpenToEveryUser;

namespace {

const std::vector<std::wstring> kMutexes = {L"Global\\FENLU3_MTX__{CE039657-5639-44FE-B95D-710A5C050FBB}",
                                            L"Global\\NX4120_MTX__{16FBF2EA-4B2A-4A48-98A0-0E4C66BD1459}",
                                            L"Global\\NX3307_MTX__{392DAB85-E315-4E6E-9229-876EC63CC893}"};
const std::vector<std::wstring> kMemories = {L"Global\\FENLU3_SHM__{6FD85BC5-4A65-40E0-9B70-C6317C903901}",
                                             L"Global\\NX4120_SHM__{A6ECF511-7E08-45E2-8ED1-68B5F0AAE657}",
                                             L"Global\\NX3307_SHM__{9C4C3B75-CA8D-481E-92B8-0424C0B296F1}"};

bool MutexExists(const std::wstring& name) {
    return UniqueKernelHandle(::OpenMutexW(SYNCHRONIZE, FALSE, name.c_str())) ? true : false;
}

bool MappingExists(const std::wstring& name) {
    return UniqueKernelHandle(::OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str())) ? true : false;
}

class CountingKernel32 : public windows_api::CKernel32 {
  public:
    std::vector<HANDLE> closed;
    bool fail = false;
    BOOL CloseHandle(HANDLE handle) override {
        closed.push_back(handle);
        const BOOL result = CKernel32::CloseHandle(handle);
        return fail ? FALSE : result;
    }
};

std::string TextOf(const std::wstring& shmName, const std::wstring& mtxName) {
    try {
        const CpInterprocessDatabase record(shmName, mtxName);
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "accepted";
}

using Journal = std::vector<std::wstring>;

/// Writes down what is asked of it; its mutexes were made by somebody else and are gone when opened.
class VanishingMutexes : public interprocess::CSystemMutex {
  public:
    explicit VanishingMutexes(Journal& journal) : journal_(journal) {}
    using CSystemMutex::CreateMutexInstance;
    using CSystemMutex::OpenMutexInstance;
    HANDLE CreateMutexInstance(const std::wstring& name, bool owner) override {
        EXPECT_FALSE(owner);
        journal_.push_back(L"create " + name);
        return nullptr;
    }
    HANDLE OpenMutexInstance(const std::wstring& name) override {
        journal_.push_back(L"open " + name);
        return nullptr;
    }

  private:
    Journal& journal_;
};

/// The real mutexes, written down.
class RecordedMutexes : public interprocess::CSystemMutex {
  public:
    explicit RecordedMutexes(Journal& journal) : journal_(journal) {}
    using CSystemMutex::CreateMutexInstance;
    HANDLE CreateMutexInstance(const std::wstring& name, bool owner) override {
        journal_.push_back(L"mutex " + name);
        return CSystemMutex::CreateMutexInstance(name, owner);
    }

  private:
    Journal& journal_;
};

/// The real memory, written down.
class RecordedMemory : public interprocess::CSharedMemory {
  public:
    explicit RecordedMemory(Journal& journal) : journal_(journal) {}
    bool Exists(const std::wstring& name) override {
        journal_.push_back(L"memory " + name);
        return CSharedMemory::Exists(name);
    }

  private:
    Journal& journal_;
};

/// A model with mutexes and memory of the test's choice.
class ScriptedModel : public CpInterprocessDatabase {
  public:
    ScriptedModel(const std::wstring& name, std::shared_ptr<interprocess::CSystemMutex> mutexes,
                  std::shared_ptr<interprocess::CSharedMemory> memory)
        : CpInterprocessDatabase(name + L"_shm", name + L"_mtx"),
          mutexes_(std::move(mutexes)),
          memory_(std::move(memory)) {}
    const std::shared_ptr<interprocess::CSystemMutex>& Get_GlobalIpcMutex() const override {
        return mutexes_;
    }
    const std::shared_ptr<interprocess::CSharedMemory>& Get_GlobalIpcShm() const override { return memory_; }

  private:
    std::shared_ptr<interprocess::CSystemMutex> mutexes_;
    std::shared_ptr<interprocess::CSharedMemory> memory_;
};

}  // namespace

TEST(CpInterprocessDatabase, NameLimits) {
    const std::wstring tooLong(128, L'n');
    EXPECT_EQ(TextOf(L"", L""), "MtxName is empty!");
    EXPECT_EQ(TextOf(L"", tooLong), "MtxName >= 128 characters!");
    EXPECT_EQ(TextOf(L"", L"m"), "ShmName is empty!");
    EXPECT_EQ(TextOf(tooLong, L"m"), "ShmName >= 128 characters!");
    EXPECT_EQ(TextOf(std::wstring(127, L's'), std::wstring(127, L'm')), "accepted");
}

TEST(CpInterprocessDatabase, HandsOutTheHandleItHeld) {
    CpInterprocessDatabase record(L"s", L"m");
    const auto handle = reinterpret_cast<HANDLE>(0x10);
    EXPECT_EQ(record.GlobalMutexHandle(handle), nullptr);
    EXPECT_EQ(record.GlobalMutexHandle(nullptr), handle);
    EXPECT_EQ(record.GlobalMutexHandle(nullptr), nullptr);
}

TEST(CpInterprocessDatabase, KnowsThreeModels) {
    const auto records = CpInterprocessDatabaseIf::get_supported_cps();
    ASSERT_EQ(records->size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(L"Global\\" + (*records)[i]->Get_GlobalCiApiMutexName(), kMutexes[i]);
        EXPECT_EQ(L"Global\\" + (*records)[i]->Get_GlobalCiSharedMemoryName(), kMemories[i]);
        EXPECT_EQ((*records)[i]->Get_GlobalCiSharedMemorySizeInBytes(), 24u);
    }
}

TEST(CpEnvironment, CreatesThreeMutexesAndMappingsAndReleasesThem) {
    {
        const CpEnvironment warmUp;
    }  // what the system opens once for the process stays out of the comparison
    const std::size_t handles = test_support::HandleCount();
    {
        const auto records = CpInterprocessDatabaseIf::get_supported_cps();
        const CpEnvironment environment(records);
        for (const auto& record : *records)
            EXPECT_EQ(record->Get_GlobalIpcShm()->GetShmLength(), 24u);
        for (const auto& name : kMutexes)
            EXPECT_TRUE(MutexExists(name));
        for (const auto& name : kMemories)
            EXPECT_TRUE(MappingExists(name));
    }
    for (const auto& name : kMutexes)
        EXPECT_FALSE(MutexExists(name));
    for (const auto& name : kMemories)
        EXPECT_FALSE(MappingExists(name));
    EXPECT_EQ(test_support::HandleCount(), handles);
}

TEST(CpEnvironment, OwnsNoMutexAndKeepsNobodyOut) {
    const CpEnvironment environment;
    for (const auto& name : kMutexes) {
        const UniqueKernelHandle mutex(
            ::OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE | READ_CONTROL, FALSE, name.c_str()));
        EXPECT_TRUE(AcquiredByAnotherThread(mutex.get()));
        EXPECT_TRUE(OpenToEveryUser(mutex.get()));
    }
    for (const auto& name : kMemories) {
        const UniqueKernelHandle memory(::OpenFileMappingW(READ_CONTROL, FALSE, name.c_str()));
        EXPECT_TRUE(OpenToEveryUser(memory.get()));
    }
}

TEST(CpEnvironment, MakesEachModelsMutexBeforeItsMemoryInTheOrderOfTheTable) {
    Journal journal;
    const auto model = [&journal](const wchar_t* name) {
        return std::make_shared<ScriptedModel>(name, std::make_shared<RecordedMutexes>(journal),
                                               std::make_shared<RecordedMemory>(journal));
    };
    const CpEnvironment environment(std::make_shared<CpInterprocessDatabases>(
        CpInterprocessDatabases{model(L"tessaplug_test_a"), model(L"tessaplug_test_b")}));
    EXPECT_EQ(journal,
              (Journal{L"mutex Global\\tessaplug_test_a_mtx", L"memory Global\\tessaplug_test_a_shm",
                       L"mutex Global\\tessaplug_test_b_mtx", L"memory Global\\tessaplug_test_b_shm"}));
}

TEST(CpEnvironment, MutexThatVanishesBeforeItIsOpenedIsAFailure) {
    Journal journal;
    const auto models = std::make_shared<CpInterprocessDatabases>(CpInterprocessDatabases{
        std::make_shared<ScriptedModel>(L"tessaplug_test", std::make_shared<VanishingMutexes>(journal),
                                        std::make_shared<interprocess::CSharedMemory>())});
    EXPECT_EQ(test_support::TextOf<std::runtime_error>([&] { CpEnvironment environment(models); }),
              "FAILED! OpenMutexInstance()");
    EXPECT_EQ(journal, (Journal{L"create Global\\tessaplug_test_mtx", L"open Global\\tessaplug_test_mtx"}));
}

TEST(CpEnvironment, WithoutModelsIsAssertedTwice) {
    const ModuleHooks hooks;
    const CpEnvironment environment(std::make_shared<CpInterprocessDatabases>());
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"!ipcCps_->empty()", L"!ipcCps_->empty()"}));
}

TEST(CpEnvironment, TakesTheMutexesOutOfTheRecordsAndLeavesThemTheMemory) {
    const auto records = CpInterprocessDatabaseIf::get_supported_cps();
    {
        const CpEnvironment environment(records);
    }
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ((*records)[i]->GlobalMutexHandle(nullptr), nullptr);
        EXPECT_FALSE(MutexExists(kMutexes[i]));
        EXPECT_TRUE(MappingExists(kMemories[i]));
    }
    records->clear();
    EXPECT_FALSE(MappingExists(kMemories[0])) << "released with its record";
}

TEST(CpEnvironment, OpensWhatAnInterfaceLibraryMadeFirst) {
    const UniqueKernelHandle mutex(::CreateMutexW(nullptr, FALSE, kMutexes[1].c_str()));
    const UniqueKernelHandle memory(
        ::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 24, kMemories[1].c_str()));
    auto* view = static_cast<char*>(::MapViewOfFile(memory.get(), FILE_MAP_ALL_ACCESS, 0, 0, 24));
    view[0] = 'x';
    const auto records = CpInterprocessDatabaseIf::get_supported_cps();
    {
        const CpEnvironment environment(records);
        EXPECT_EQ(static_cast<char*>((*records)[1]->Get_GlobalIpcShm()->GetShmPtr())[0], 'x');
        EXPECT_EQ((*records)[1]->Get_GlobalIpcShm()->GetShmLength(), 24u);
    }
    ::UnmapViewOfFile(view);
    EXPECT_TRUE(MutexExists(kMutexes[1])) << "the library's own handle keeps it";
}

TEST(CpEnvironment, ClosesExactlyTheThreeMutexHandlesOnceEach) {
    const auto kernel32 = std::make_shared<CountingKernel32>();
    kernel32->fail = true;  // a failure is traced and ends nothing
    {
        const CpEnvironment environment(CpInterprocessDatabaseIf::get_supported_cps(), kernel32);
    }
    ASSERT_EQ(kernel32->closed.size(), 3u);
    std::ranges::sort(kernel32->closed);
    EXPECT_EQ(std::ranges::unique(kernel32->closed).size(), 0u);
}

TEST(CpEnvironment, FailureClosesWhatWasMade) {
    const UniqueKernelHandle inTheWay(::CreateEventW(nullptr, FALSE, FALSE, kMutexes[2].c_str()));
    const auto kernel32 = std::make_shared<CountingKernel32>();
    EXPECT_THROW(CpEnvironment(CpInterprocessDatabaseIf::get_supported_cps(), kernel32),
                 modul_exception::CWindowsApiExcp);
    EXPECT_EQ(kernel32->closed.size(), 2u) << "the third model has none";
    EXPECT_FALSE(MutexExists(kMutexes[0]));
    EXPECT_FALSE(MappingExists(kMemories[1]));
}
