#include "tessaplug_cp_environ.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "process_census.h"
#include "unique_handle.h"
#include "windows_api_excp.h"

using tessaplug::CpEnvironment;
using tessaplug::CpInterprocessDatabase;
using tessaplug::CpInterprocessDatabaseIf;

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
        const UniqueKernelHandle mutex(
            ::OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, kMutexes[0].c_str()));
        EXPECT_EQ(::WaitForSingleObject(mutex.get(), 0), WAIT_OBJECT_0) << "it is nobody's";
        ::ReleaseMutex(mutex.get());
    }
    for (const auto& name : kMutexes)
        EXPECT_FALSE(MutexExists(name));
    for (const auto& name : kMemories)
        EXPECT_FALSE(MappingExists(name));
    EXPECT_EQ(test_support::HandleCount(), handles);
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
    EXPECT_THROW(CpEnvironment(), modul_exception::CWindowsApiExcp);
    EXPECT_FALSE(MutexExists(kMutexes[0]));
    EXPECT_FALSE(MappingExists(kMemories[1]));
}
