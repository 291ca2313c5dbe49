#include "win_interprocess.h"

#include <cstring>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

#include "process_census.h"
#include "text_of.h"
#include "unique_handle.h"
#include "windows_api_excp.h"

using interprocess::CSharedMemory;
using interprocess::CSystemMutex;

using test_support::TextOf;

namespace {

/// An object name that no other process and no other test uses.
std::wstring UniqueName(std::size_t length = 0) {
    static int count = 0;
    std::wstring name =
        L"tessaplug_test_" + std::to_wstring(::GetCurrentProcessId()) + L"_" + std::to_wstring(++count);
    if (length > name.length()) name.append(length - name.length(), L'x');
    return name;
}

std::string Narrow(const std::wstring& name) {
    return {name.begin(), name.end()};
}

}  // namespace

TEST(SystemMutex, NameLimits) {
    CSystemMutex objects;
    EXPECT_TRUE(UniqueKernelHandle(objects.CreateMutexInstance(UniqueName(260), false)));
    EXPECT_TRUE(UniqueKernelHandle(objects.CreateEventInstance(UniqueName(260))));
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { objects.CreateMutexInstance(UniqueName(261), false); }),
              "Parameter FullMutexName is > MAX_PATH");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { objects.CreateMutexInstance(std::wstring(), false); }),
              "Parameter FullMutexName is empty");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { objects.CreateEventInstance(UniqueName(261)); }),
              "Parameter FullMutexName is > MAX_PATH");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { objects.CreateEventInstance(std::string()); }),
              "Parameter FullMutexName is empty");
}

TEST(SystemMutex, SomebodyElsesObjectIsNullAndLeavesNoHandle) {
    CSystemMutex objects;
    const std::wstring mutexName = UniqueName();
    const std::wstring eventName = UniqueName();
    const UniqueKernelHandle mutex(::CreateMutexW(nullptr, FALSE, mutexName.c_str()));
    const UniqueKernelHandle event(::CreateEventW(nullptr, FALSE, FALSE, eventName.c_str()));
    const std::size_t handles = test_support::HandleCount();

    EXPECT_EQ(objects.CreateMutexInstance(mutexName, true), nullptr);
    EXPECT_EQ(objects.CreateEventInstance(eventName), nullptr);

    EXPECT_EQ(test_support::HandleCount(), handles);
}

TEST(SystemMutex, MissingObjectsAreNullWithoutException) {
    CSystemMutex objects;
    EXPECT_EQ(objects.OpenMutexInstance(UniqueName()), nullptr);
    EXPECT_EQ(objects.OpenEventInstance(UniqueName()), nullptr);
}

TEST(SystemMutex, ExistingObjectsAreOpenedAlsoByNarrowName) {
    CSystemMutex objects;
    const std::wstring mutexName = UniqueName();
    const std::wstring eventName = UniqueName();
    const UniqueKernelHandle mutex(objects.CreateMutexInstance(Narrow(mutexName), false));
    const UniqueKernelHandle event(objects.CreateEventInstance(Narrow(eventName)));

    const UniqueKernelHandle openedMutex(objects.OpenMutexInstance(mutexName));
    const UniqueKernelHandle openedEvent(objects.OpenEventInstance(Narrow(eventName)));

    EXPECT_TRUE(openedMutex);
    ASSERT_TRUE(openedEvent);
    ::SetEvent(openedEvent.get());
    EXPECT_EQ(::WaitForSingleObject(event.get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(::WaitForSingleObject(event.get(), 0), static_cast<DWORD>(WAIT_TIMEOUT)) << "auto-reset";
}

TEST(SystemMutex, ObjectOfAnotherKindIsAFailedCall) {
    CSystemMutex objects;
    const std::wstring name = UniqueName();
    const UniqueKernelHandle event(::CreateEventW(nullptr, FALSE, FALSE, name.c_str()));
    EXPECT_TRUE(TextOf<modul_exception::CWindowsApiExcp>([&] {
                    objects.CreateMutexInstance(name, false);
                }).starts_with("FAILED! CreateMutexW()! LE(6): "));
    EXPECT_TRUE(TextOf<modul_exception::CWindowsApiExcp>([&] {
                    objects.OpenMutexInstance(name);
                }).ends_with(" Hint: " + Narrow(name) + "\n"));
    const std::wstring mutexName = UniqueName();
    const UniqueKernelHandle mutex(::CreateMutexW(nullptr, FALSE, mutexName.c_str()));
    EXPECT_TRUE(TextOf<modul_exception::CWindowsApiExcp>([&] {
                    objects.CreateEventInstance(mutexName);
                }).starts_with("FAILED! CreateEventW! LE(6): "));
    EXPECT_TRUE(TextOf<modul_exception::CWindowsApiExcp>([&] {
                    objects.OpenEventInstance(mutexName);
                }).starts_with("FAILED! OpenEventW! LE(6): "));
}

TEST(InstanceLock, IsTakenOnceAndProbed) {
    CSystemMutex objects;
    const std::wstring name = UniqueName();
    EXPECT_FALSE(objects.ProbeInstanceLock(name));
    {
        const UniqueKernelHandle lock(objects.CheckSingleInstanceAndLock(name));
        EXPECT_TRUE(lock);
        EXPECT_EQ(objects.CheckSingleInstanceAndLock(Narrow(name)), nullptr);
        EXPECT_TRUE(objects.ProbeInstanceLock(Narrow(name)));
        EXPECT_TRUE(UniqueKernelHandle(objects.OpenMutexInstance(L"Global\\" + name)));
    }
    EXPECT_FALSE(objects.ProbeInstanceLock(name));
}

TEST(InstanceLock, LimitCountsThePrefix) {
    CSystemMutex objects;
    EXPECT_TRUE(UniqueKernelHandle(objects.CheckSingleInstanceAndLock(UniqueName(253))));
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { objects.CheckSingleInstanceAndLock(UniqueName(254)); }),
              "Global\\GlobalName > MAX_PATH!");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { objects.ProbeInstanceLock(std::wstring()); }),
              "GlobalName is empty!");
}

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

TEST(SharedMemory, ExistsTellsWithoutChangingTheObject) {
    const std::wstring name = UniqueName();
    CSharedMemory memory;
    EXPECT_FALSE(memory.Exists(name));
    CSharedMemory other;
    other.Create(name, 24);
    EXPECT_TRUE(memory.Exists(name));
    EXPECT_FALSE(memory.ObjectIsValid());
}

TEST(SharedMemory, CreateRefusesAnExistingMapping) {
    const std::wstring name = UniqueName();
    CSharedMemory first;
    first.Create(name, 24);
    EXPECT_THROW(CSharedMemory().Create(name, 24), std::runtime_error);  // and what the system opens once
    const std::size_t handles = test_support::HandleCount();
    {
        CSharedMemory second;
        EXPECT_EQ(TextOf<std::runtime_error>([&] { second.Create(name, 24); }),
                  "FileMapping ERROR_ALREADY_EXISTS! --> Call Open()");
        EXPECT_FALSE(second.ObjectIsValid());
        EXPECT_EQ(TextOf<std::runtime_error>([&] { second.Close(); }), "Object does not exist!");
        second.Open(name, 24);  // as the text advises
        EXPECT_TRUE(second.ObjectIsValid());
    }
    EXPECT_EQ(test_support::HandleCount(), handles) << "a failed attempt's handle is released in the end";
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
    EXPECT_TRUE(TextOf<modul_exception::CWindowsApiExcp>([&] {
                    memory.Create(name, 24);
                }).starts_with("FAILED! CreateFileMappingW()! LE(6): "));
}
