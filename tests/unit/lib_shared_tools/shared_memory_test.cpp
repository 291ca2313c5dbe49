#include <cstring>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

#include "named_objects.h"
#include "process_census.h"
#include "text_of.h"
#include "unique_handle.h"
#include "win_interprocess.h"
#include "windows_api_excp.h"

using interprocess::CSharedMemory;
using modul_exception::CWindowsApiExcp;
using test_support::HandleCount;
using test_support::Narrow;
using test_support::OpenedBy;
using test_support::OpenToEveryUser;
using test_support::TextOf;
using test_support::UniqueName;

namespace {

/// The pages of a view, or of what is there after it.
MEMORY_BASIC_INFORMATION PagesAt(const void* address) {
    MEMORY_BASIC_INFORMATION pages = {};
    ::VirtualQuery(address, &pages, sizeof pages);
    return pages;
}

/// A named mapping of a temporary file: unlike one of the page file it is not rounded up to whole pages.
class MappedFile {
  public:
    MappedFile(const std::wstring& name, std::size_t size) {
        wchar_t folder[MAX_PATH] = {};
        wchar_t path[MAX_PATH] = {};
        ::GetTempPathW(MAX_PATH, folder);
        ::GetTempFileNameW(folder, L"map", 0, path);
        file_.reset(::CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                  FILE_FLAG_DELETE_ON_CLOSE, nullptr));
        mapping_.reset(::CreateFileMappingW(file_.get(), nullptr, PAGE_READWRITE, 0, static_cast<DWORD>(size),
                                            name.c_str()));
        EXPECT_TRUE(mapping_);
    }

  private:
    UniqueKernelHandle file_;
    UniqueKernelHandle mapping_;
};

/// Makes what the system opens once for the process stay out of comparisons of handles.
void WarmUp() {
    CSharedMemory first;
    first.Create(UniqueName(), 24);
    EXPECT_THROW(CSharedMemory().Create(L"x\\y", 24), CWindowsApiExcp);
    HandleCount();
}

}  // namespace

TEST(SharedMemory, LengthLimits) {
    CSharedMemory memory;
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { memory.Create(UniqueName(), 0); }),
              "SharedMemory Length is ZERO!");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { memory.Create(UniqueName(), 4097); }),
              "SharedMemory Length GT MAX_SHM_OBJECT_LEN_IN_KB!");
    memory.Create(UniqueName(), 4096);
    EXPECT_EQ(memory.GetShmLength(), 4096u);
    EXPECT_TRUE(memory.ObjectIsValid());
}

TEST(SharedMemory, NameLimits) {
    CSharedMemory memory;
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { memory.Create(L"", 24); }),
              "Provided ObjectName is EMPTY!");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { memory.Create(UniqueName(260), 24); }),
              "Provided ObjectName > MAX_PATH!");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { memory.Exists(UniqueName(260)); }),
              "Provided ObjectName > MAX_PATH!");
    EXPECT_NO_THROW(memory.Create(UniqueName(259), 24));
}

TEST(SharedMemory, TwoObjectsOfOneNameShareTheBytes) {
    const std::wstring name = UniqueName();
    CSharedMemory creator;
    creator.Create(name, 24);
    CSharedMemory opener;
    opener.Open(Narrow(name), 24);

    std::memcpy(creator.GetShmPtr(), "through the mapping", 20);

    EXPECT_STREQ(static_cast<const char*>(opener.GetShmPtr()), "through the mapping");
}

TEST(SharedMemory, NewMappingIsOpenToEveryUserAndNotInherited) {
    WarmUp();
    const std::wstring name = UniqueName();
    CSharedMemory memory;

    const auto opened = OpenedBy([&] { memory.Create(name, 24); });

    ASSERT_EQ(opened.size(), 1u);
    EXPECT_FALSE(opened[0].inheritable);
    const UniqueKernelHandle mapping(::OpenFileMappingW(READ_CONTROL, FALSE, name.c_str()));
    EXPECT_TRUE(OpenToEveryUser(mapping.get()));
}

TEST(SharedMemory, ExistingMappingIsOpenedForReadingAndWritingOnly) {
    WarmUp();
    const std::wstring name = UniqueName();
    CSharedMemory creator;
    creator.Create(name, 24);
    CSharedMemory opener;

    const auto opened = OpenedBy([&] { opener.Open(name, 24); });

    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0].access, 0x00020006u);
    EXPECT_FALSE(opened[0].inheritable);
}

TEST(SharedMemory, IsMappedForReadingAndWritingWhoeverMadeIt) {
    const std::wstring name = UniqueName();
    CSharedMemory creator;
    creator.Create(name, 24);
    CSharedMemory opener;
    opener.Open(name, 24);
    EXPECT_EQ(PagesAt(creator.GetShmPtr()).Protect, static_cast<DWORD>(PAGE_READWRITE));
    EXPECT_EQ(PagesAt(opener.GetShmPtr()).Protect, static_cast<DWORD>(PAGE_READWRITE));
}

TEST(SharedMemory, CloseAndDestructionUnmapTheViewAndCloseTheMapping) {
    WarmUp();
    const std::wstring name = UniqueName();
    const std::size_t handles = HandleCount();
    const void* destroyed = nullptr;
    {
        CSharedMemory memory;
        memory.Create(name, 24);
        const void* closed = memory.GetShmPtr();
        EXPECT_EQ(PagesAt(closed).Type, static_cast<DWORD>(MEM_MAPPED));
        memory.Close();
        EXPECT_NE(PagesAt(closed).Type, static_cast<DWORD>(MEM_MAPPED));
        EXPECT_EQ(HandleCount(), handles);
        EXPECT_FALSE(memory.Exists(name));
        EXPECT_THROW(memory.GetShmLength(), std::runtime_error);
        memory.Create(name, 24);
        destroyed = memory.GetShmPtr();
    }
    EXPECT_NE(PagesAt(destroyed).Type, static_cast<DWORD>(MEM_MAPPED));
    EXPECT_EQ(HandleCount(), handles);
}

TEST(SharedMemory, OpenTrustsTheLength) {
    const std::wstring name = UniqueName();
    CSharedMemory creator;
    creator.Create(name, 4096);
    CSharedMemory opener;
    opener.Open(name, 24);
    EXPECT_EQ(opener.GetShmLength(), 24u) << "not the creator's";
}

TEST(SharedMemory, LengthThatTheSystemRefusesIsAFailedCallAndIsReleasedInTheEnd) {
    WarmUp();
    const std::wstring name = UniqueName();
    const MappedFile file(name, 24);
    const std::size_t handles = HandleCount();
    {
        CSharedMemory memory;
        const std::string text = TextOf<CWindowsApiExcp>([&] { memory.Open(name, 4096); });
        EXPECT_TRUE(text.starts_with("FAILED! MapViewOfFile()! LE(5): ")) << text;
        EXPECT_TRUE(text.ends_with(" Hint: Check rights!\n")) << text;
        EXPECT_FALSE(memory.ObjectIsValid());
        EXPECT_EQ(TextOf<std::runtime_error>([&] { memory.Close(); }), "Object does not exist!");
        EXPECT_EQ(HandleCount(), handles + 1) << "kept until clean-up";
        memory.Open(name, 24);
        EXPECT_EQ(HandleCount(), handles + 1) << "the failed attempt's is released";
    }
    EXPECT_EQ(HandleCount(), handles);
}

TEST(SharedMemory, ExistsTellsWithoutChangingTheObject) {
    const std::wstring name = UniqueName();
    CSharedMemory memory;
    EXPECT_FALSE(memory.Exists(name));
    CSharedMemory other;
    other.Create(name, 24);
    const std::size_t handles = HandleCount();
    EXPECT_TRUE(memory.Exists(name));
    EXPECT_FALSE(memory.ObjectIsValid());
    EXPECT_EQ(HandleCount(), handles);
    EXPECT_FALSE(other.Exists(UniqueName())) << "it tells of the name, not of the object";
    EXPECT_EQ(other.GetShmLength(), 24u);
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { memory.Exists(L""); }), "Provided ObjectName is EMPTY!");
}

TEST(SharedMemory, FailedCreateIsReleasedByTheNextOneAndByDestruction) {
    WarmUp();
    const std::wstring taken = UniqueName();
    CSharedMemory first;
    first.Create(taken, 24);
    const std::size_t handles = HandleCount();
    {
        CSharedMemory second;
        EXPECT_THROW(second.Create(taken, 24), std::runtime_error);
        EXPECT_EQ(HandleCount(), handles + 1) << "kept until clean-up";
        EXPECT_THROW(second.Create(taken, 24), std::runtime_error);
        EXPECT_EQ(HandleCount(), handles + 1);
    }
    EXPECT_EQ(HandleCount(), handles);
}

TEST(SharedMemory, ParametersAreCheckedBeforeTheSequenceAndTheNameFirst) {
    CSharedMemory memory;
    memory.Create(UniqueName(), 24);
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { memory.Create(L"", 0); }), "Provided ObjectName is EMPTY!");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { memory.Open(UniqueName(), 4097); }),
              "SharedMemory Length GT MAX_SHM_OBJECT_LEN_IN_KB!");
}

TEST(SharedMemory, CreateRefusesAnExistingMapping) {
    const std::wstring name = UniqueName();
    CSharedMemory first;
    first.Create(name, 24);
    WarmUp();
    const std::size_t handles = HandleCount();
    {
        CSharedMemory second;
        EXPECT_EQ(TextOf<std::runtime_error>([&] { second.Create(name, 24); }),
                  "FileMapping ERROR_ALREADY_EXISTS! --> Call Open()");
        EXPECT_FALSE(second.ObjectIsValid());
        EXPECT_EQ(TextOf<std::runtime_error>([&] { second.Close(); }), "Object does not exist!");
        second.Open(name, 24);  // as the text advises
        EXPECT_TRUE(second.ObjectIsValid());
    }
    EXPECT_EQ(HandleCount(), handles) << "a failed attempt's handle is released in the end";
}

TEST(SharedMemory, RefusesAWrongSequence) {
    CSharedMemory memory;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { memory.GetShmPtr(); }),
              "Object has invalid State! Wrong Sequence?");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { memory.GetShmLength(); }),
              "Object has invalid State! Wrong Sequence?");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { memory.Open(UniqueName(), 24); }),
              "OpenFileMapping() FAILED!");
    memory.Create(UniqueName(), 24);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { memory.Create(UniqueName(), 24); }), "Object already exists!");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { memory.Open(UniqueName(), 24); }), "Object already exists!");
    memory.Close();
    EXPECT_EQ(TextOf<std::runtime_error>([&] { memory.Close(); }), "Object does not exist!");
}

TEST(SharedMemory, ObjectOfAnotherKindIsAFailedCall) {
    const std::wstring name = UniqueName();
    const UniqueKernelHandle event(::CreateEventW(nullptr, FALSE, FALSE, name.c_str()));
    CSharedMemory memory;
    const std::string text = TextOf<CWindowsApiExcp>([&] { memory.Create(name, 24); });
    EXPECT_TRUE(text.starts_with("FAILED! CreateFileMappingW()! LE(6): ")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: " + Narrow(name) + "\n")) << text;
}
