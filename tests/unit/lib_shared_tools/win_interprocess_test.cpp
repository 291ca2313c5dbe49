#include "win_interprocess.h"

#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>
#include <string>

#include "named_objects.h"
#include "process_census.h"
#include "text_of.h"
#include "unique_handle.h"
#include "windows_api_excp.h"

using interprocess::CSystemMutex;
using modul_exception::CWindowsApiExcp;
using test_support::AcquiredByAnotherThread;
using test_support::HandleCount;
using test_support::Narrow;
using test_support::OpenToEveryUser;
using test_support::Properties;
using test_support::TextOf;
using test_support::UniqueName;

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

TEST(SystemMutex, NewObjectsAreOpenToEveryUserAndNotInherited) {
    CSystemMutex objects;
    const UniqueKernelHandle mutex(objects.CreateMutexInstance(UniqueName(), false));
    const UniqueKernelHandle event(objects.CreateEventInstance(UniqueName()));

    EXPECT_TRUE(OpenToEveryUser(mutex.get()));
    EXPECT_FALSE(Properties(mutex.get()).inheritable);
    EXPECT_TRUE(OpenToEveryUser(event.get()));
    EXPECT_FALSE(Properties(event.get()).inheritable);
}

TEST(SystemMutex, ExistingObjectsAreOpenedWithAllAccessAndNotInherited) {
    CSystemMutex objects;
    const std::wstring mutexName = UniqueName();
    const std::wstring eventName = UniqueName();
    const UniqueKernelHandle mutex(::CreateMutexW(nullptr, FALSE, mutexName.c_str()));
    const UniqueKernelHandle event(::CreateEventW(nullptr, FALSE, FALSE, eventName.c_str()));

    const UniqueKernelHandle openedMutex(objects.OpenMutexInstance(mutexName));
    const UniqueKernelHandle openedEvent(objects.OpenEventInstance(eventName));

    EXPECT_EQ(Properties(openedMutex.get()).access, 0x001F0001u);
    EXPECT_FALSE(Properties(openedMutex.get()).inheritable);
    EXPECT_EQ(Properties(openedEvent.get()).access, 0x001F0003u);
    EXPECT_FALSE(Properties(openedEvent.get()).inheritable);
}

TEST(SystemMutex, NewMutexBelongsToItsMakerOnlyIfAsked) {
    CSystemMutex objects;
    for (const bool owner : {false, true}) {
        const std::wstring name = UniqueName();
        const UniqueKernelHandle wide(objects.CreateMutexInstance(name, owner));
        const UniqueKernelHandle narrow(objects.CreateMutexInstance(Narrow(UniqueName()), owner));
        EXPECT_EQ(AcquiredByAnotherThread(wide.get()), !owner);
        EXPECT_EQ(AcquiredByAnotherThread(narrow.get()), !owner);
    }
}

TEST(SystemMutex, NewEventIsNotSignalled) {
    CSystemMutex objects;
    const UniqueKernelHandle event(objects.CreateEventInstance(UniqueName()));
    EXPECT_EQ(::WaitForSingleObject(event.get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST(SystemMutex, NarrowNamesAreWidenedAsAWideStreamDoes) {
    CSystemMutex objects;
    const std::wstring prefix = UniqueName();
    for (int byte = 1; byte < 256; ++byte) {
        if (byte == '\\') continue;  // separates folders of names
        const std::string narrow = Narrow(prefix) + static_cast<char>(byte);
        std::wostringstream wide;
        wide << narrow.c_str();
        const UniqueKernelHandle event(objects.CreateEventInstance(narrow));
        EXPECT_TRUE(event);
        EXPECT_TRUE(UniqueKernelHandle(::OpenEventW(SYNCHRONIZE, FALSE, wide.str().c_str()))) << byte;
    }
}

TEST(SystemMutex, NarrowNamesEndAtTheirFirstZero) {
    CSystemMutex objects;
    const std::wstring name = UniqueName();
    const UniqueKernelHandle event(objects.CreateEventInstance(Narrow(name) + '\0' + std::string(300, 'x')));
    EXPECT_TRUE(UniqueKernelHandle(objects.OpenEventInstance(name)));
}

TEST(SystemMutex, NarrowNamesHaveTheLimitsOfWideOnes) {
    CSystemMutex objects;
    const std::wstring longest = UniqueName(260);
    const UniqueKernelHandle mutex(objects.CreateMutexInstance(Narrow(longest), false));
    EXPECT_TRUE(UniqueKernelHandle(objects.OpenMutexInstance(longest))) << "nothing is cut off";
    EXPECT_TRUE(UniqueKernelHandle(objects.OpenMutexInstance(Narrow(longest))));
    EXPECT_EQ(
        TextOf<std::invalid_argument>([&] { objects.CreateMutexInstance(Narrow(UniqueName(261)), false); }),
        "Parameter FullMutexName is > MAX_PATH");
    EXPECT_EQ(
        TextOf<std::invalid_argument>([&] { objects.CheckSingleInstanceAndLock(Narrow(UniqueName(254))); }),
        "Global\\GlobalName > MAX_PATH!");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { objects.ProbeInstanceLock(std::string()); }),
              "GlobalName is empty!");
}

TEST(SystemMutex, SomebodyElsesObjectIsNullAndLeavesNoHandle) {
    CSystemMutex objects;
    const std::wstring mutexName = UniqueName();
    const std::wstring eventName = UniqueName();
    const UniqueKernelHandle mutex(::CreateMutexW(nullptr, FALSE, mutexName.c_str()));
    const UniqueKernelHandle event(::CreateEventW(nullptr, FALSE, FALSE, eventName.c_str()));
    const std::size_t handles = HandleCount();

    EXPECT_EQ(objects.CreateMutexInstance(mutexName, true), nullptr);
    EXPECT_EQ(objects.CreateEventInstance(eventName), nullptr);

    EXPECT_EQ(HandleCount(), handles);
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

TEST(SystemMutex, ObjectOfAnotherKindIsAFailedCallThatNamesIt) {
    CSystemMutex objects;
    const std::wstring eventName = UniqueName();
    const std::wstring mutexName = UniqueName();
    const UniqueKernelHandle event(::CreateEventW(nullptr, FALSE, FALSE, eventName.c_str()));
    const UniqueKernelHandle mutex(::CreateMutexW(nullptr, FALSE, mutexName.c_str()));
    const auto expectFailed = [](const std::string& call, const std::wstring& name, const std::string& text) {
        EXPECT_TRUE(text.starts_with("FAILED! " + call + "! LE(6): ")) << text;
        EXPECT_TRUE(text.ends_with(" Hint: " + Narrow(name) + "\n")) << text;
    };
    expectFailed("CreateMutexW()", eventName,
                 TextOf<CWindowsApiExcp>([&] { objects.CreateMutexInstance(eventName, false); }));
    expectFailed("OpenMutexW", eventName,
                 TextOf<CWindowsApiExcp>([&] { objects.OpenMutexInstance(eventName); }));
    expectFailed("CreateEventW", mutexName,
                 TextOf<CWindowsApiExcp>([&] { objects.CreateEventInstance(mutexName); }));
    expectFailed("OpenEventW", mutexName,
                 TextOf<CWindowsApiExcp>([&] { objects.OpenEventInstance(mutexName); }));
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

TEST(InstanceLock, BelongsToTheThreadThatTookIt) {
    CSystemMutex objects;
    const UniqueKernelHandle lock(objects.CheckSingleInstanceAndLock(UniqueName()));
    EXPECT_FALSE(AcquiredByAnotherThread(lock.get()));
}

TEST(InstanceLock, ProbingLeavesNothingBehind) {
    CSystemMutex objects;
    const std::wstring name = UniqueName();
    objects.ProbeInstanceLock(name);
    const std::size_t handles = HandleCount();
    EXPECT_FALSE(objects.ProbeInstanceLock(name));
    EXPECT_FALSE(objects.ProbeInstanceLock(name)) << "the probe did not make it";
    const UniqueKernelHandle lock(objects.CheckSingleInstanceAndLock(name));
    EXPECT_TRUE(objects.ProbeInstanceLock(name));
    EXPECT_EQ(HandleCount(), handles + 1) << "the lock's own";
}

TEST(InstanceLock, LimitCountsThePrefix) {
    CSystemMutex objects;
    EXPECT_TRUE(UniqueKernelHandle(objects.CheckSingleInstanceAndLock(UniqueName(253))));
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { objects.CheckSingleInstanceAndLock(UniqueName(254)); }),
              "Global\\GlobalName > MAX_PATH!");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { objects.ProbeInstanceLock(std::wstring()); }),
              "GlobalName is empty!");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { objects.CheckSingleInstanceAndLock(std::wstring()); }),
              "GlobalName is empty!");
}
