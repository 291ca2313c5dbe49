#include "library_search.h"

#include <shlobj.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "companion_library.h"
#include "configuration_library_location.h"
#include "quelm_orvix.h"
#include "unique_handle.h"

using operating_system::LimitLibrarySearch;
using operating_system::SearchedFolder;
using test_support::CompanionBaseFolder;
using test_support::kCompanion;
using test_support::OpenFolder;

// Each test is a process of its own: what one of them limits stays so to its end.
namespace {

std::wstring OwnFolder() {
    return CompanionBaseFolder() + L"\\bin";
}
std::wstring PlantedFolder() {
    return CompanionBaseFolder() + L"\\planted";
}

/// The folder that a library is found in; empty if it is found nowhere.
std::wstring FolderOf(const wchar_t* library) {
    const UniqueModule module(::LoadLibraryW(library));
    if (!module) return {};
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(module.get(), path, MAX_PATH);
    return std::filesystem::path(path).parent_path().wstring();
}

/// What comes of loading the library that needs a companion, by its full path.
DWORD LoadByPath() {
    const UniqueModule module(::LoadLibraryW((OwnFolder() + L"\\q5orvix64x.dll").c_str()));
    return module ? ERROR_SUCCESS : ::GetLastError();
}

/// Where the library is if nothing is registered.
std::wstring DefaultFolder() {
    wchar_t common[MAX_PATH] = {};
    ::SHGetSpecialFolderPathW(nullptr, common, CSIDL_PROGRAM_FILES_COMMON, FALSE);
    return std::wstring(common) + L"\\Valdorn\\Automation\\Korvane OAM\\bin";
}

}  // namespace

TEST(LibrarySearch, WithoutALimitTheCurrentFolderAndPathAreSearched) {
    const OpenFolder open(PlantedFolder());
    EXPECT_EQ(FolderOf(kCompanion), PlantedFolder());
}

TEST(LibrarySearch, LimitedItFindsNothingInTheCurrentFolderOrOnPath) {
    const OpenFolder open(PlantedFolder());
    LimitLibrarySearch();
    EXPECT_EQ(FolderOf(kCompanion), L"");
    EXPECT_NE(FolderOf(L"wtsapi32.dll"), L"") << "System32 is searched";
}

TEST(LibrarySearch, FullPathAloneDoesNotFindWhatStandsBesideTheLibrary) {
    LimitLibrarySearch();
    EXPECT_EQ(LoadByPath(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
}

TEST(LibrarySearch, WhatStandsBesideTheLibraryIsFoundOnceItsFolderIsSearched) {
    const OpenFolder open(PlantedFolder());
    LimitLibrarySearch();
    SearchedFolder folder;
    EXPECT_TRUE(folder.Set(OwnFolder()));
    EXPECT_EQ(folder.Error(), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(LoadByPath(), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(FolderOf(kCompanion), OwnFolder());
}

TEST(LibrarySearch, FolderIsSearchedAsLongAsItIsSet) {
    LimitLibrarySearch();
    {
        SearchedFolder folder;
        EXPECT_TRUE(folder.Set(OwnFolder()));
        EXPECT_FALSE(folder.Set(OwnFolder())) << "nothing has changed";
        EXPECT_EQ(FolderOf(kCompanion), OwnFolder());
        EXPECT_TRUE(folder.Set(PlantedFolder()));
        EXPECT_EQ(FolderOf(kCompanion), PlantedFolder());
        EXPECT_TRUE(folder.Set(L""));
        EXPECT_EQ(FolderOf(kCompanion), L"");
        EXPECT_TRUE(folder.Set(OwnFolder()));
    }
    EXPECT_EQ(FolderOf(kCompanion), L"") << "it ends with the object";
}

TEST(LibrarySearch, FolderThatIsMissingIsSearchedOnceItIsThere) {
    LimitLibrarySearch();
    const std::filesystem::path late = L"C:\\windows\\temp\\late folder";
    std::filesystem::remove_all(late);
    SearchedFolder folder;
    EXPECT_TRUE(folder.Set(late.wstring()));
    EXPECT_EQ(folder.Folder(), late.wstring());
    EXPECT_EQ(folder.Error(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_FALSE(folder.Set(late.wstring())) << "still missing: nothing has changed";
    std::filesystem::create_directory(late);
    std::filesystem::copy(OwnFolder() + L"\\" + kCompanion, late);
    EXPECT_TRUE(folder.Set(late.wstring()));
    EXPECT_EQ(folder.Error(), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(FolderOf(kCompanion), late.wstring());
    std::filesystem::remove_all(late);
}

TEST(LibrarySearch, FolderThatIsNoFullPathIsRefused) {
    SearchedFolder folder;
    EXPECT_TRUE(folder.Set(L"relative\\bin"));
    EXPECT_EQ(folder.Error(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(LibrarySearch, ConfigurationLibrarysFolderIsThatOfItsPath) {
    const test_support::ConfigurationLibraryLocation location(CompanionBaseFolder());
    EXPECT_EQ(quelm::LibraryRegistration().Folder(), OwnFolder());
}

TEST(LibraryRegistration, EachLookFindsWhatIsRegisteredThen) {
    const test_support::ConfigurationLibraryLocation location(L"C:\\one");
    quelm::LibraryRegistration registration;
    EXPECT_EQ(registration.Folder(), L"C:\\one\\bin");
    location.Set(L"C:\\another");
    EXPECT_EQ(registration.Folder(), L"C:\\another\\bin");
    location.Remove();
    EXPECT_EQ(registration.Folder(), DefaultFolder());
    location.Set(L"C:\\one");
    EXPECT_EQ(registration.Folder(), L"C:\\one\\bin");
}

TEST(LibraryRegistration, KeyIsKeptFromNobodyAndFoundWhenItIsMadeAnew) {
    const test_support::ConfigurationLibraryLocation location(L"C:\\one");
    quelm::LibraryRegistration registration;
    registration.Folder();
    ASSERT_EQ(::RegDeleteTreeW(HKEY_LOCAL_MACHINE, location.kKey), ERROR_SUCCESS);
    EXPECT_EQ(registration.Folder(), DefaultFolder());
    location.Set(L"C:\\made anew");
    EXPECT_EQ(registration.Folder(), L"C:\\made anew\\bin");
    // Deleted and made anew between two looks.
    ASSERT_EQ(::RegDeleteTreeW(HKEY_LOCAL_MACHINE, location.kKey), ERROR_SUCCESS);
    location.Set(L"C:\\once more");
    EXPECT_EQ(registration.Folder(), L"C:\\once more\\bin");
}
