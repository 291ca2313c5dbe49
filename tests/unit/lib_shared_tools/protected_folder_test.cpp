#include "protected_folder.h"

#include <aclapi.h>
#include <sddl.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include "unique_handle.h"

using operating_system::EnsureProtectedFolder;
using operating_system::EnsureTrustedFolder;
using operating_system::PathRefused;
using operating_system::RequireNoLink;

namespace {

constexpr SECURITY_INFORMATION kOwnerAndRights = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

template <typename... More>
UniqueKernelHandle OpenWithoutLinks(const std::wstring& path, DWORD disposition, More... more) {
    return UniqueKernelHandle(
        operating_system::OpenWithoutLinks(path, FILE_APPEND_DATA, 0, disposition, more...));
}

/// Why an action is refused; empty if it is not.
template <typename Action>
std::wstring Refusal(Action action) {
    try {
        action();
    } catch (const PathRefused& refused) {
        return refused.Text();
    }
    return {};
}

/// Owner and rights of a file or folder as text.
std::wstring RightsOf(const std::wstring& path) {
    void* descriptor = nullptr;
    ::GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, kOwnerAndRights, nullptr, nullptr, nullptr, nullptr,
                            &descriptor);
    wchar_t* text = nullptr;
    ::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, kOwnerAndRights,
                                                           &text, nullptr);
    const std::wstring rights = text == nullptr ? L"" : text;
    ::LocalFree(text);
    ::LocalFree(descriptor);
    return rights;
}

/// Rights for everybody, all of them unless told otherwise.
void OpenToAll(const std::wstring& path, const wchar_t* rights = L"D:(A;OICI;FA;;;WD)") {
    void* descriptor = nullptr;
    ::ConvertStringSecurityDescriptorToSecurityDescriptorW(rights, SDDL_REVISION_1, &descriptor, nullptr);
    EXPECT_TRUE(::SetFileSecurityW(path.c_str(), DACL_SECURITY_INFORMATION, descriptor));
    ::LocalFree(descriptor);
}

/// This thread runs as the same account, but not as an administrator.
class WithoutAdministratorsRights {
  public:
    WithoutAdministratorsRights() {
        BYTE administrators[SECURITY_MAX_SID_SIZE] = {};
        DWORD size = sizeof administrators;
        ::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size);
        SID_AND_ATTRIBUTES disabled = {administrators, 0};
        HANDLE own = nullptr;
        HANDLE restricted = nullptr;
        EXPECT_TRUE(::OpenProcessToken(::GetCurrentProcess(), TOKEN_ALL_ACCESS, &own));
        EXPECT_TRUE(::CreateRestrictedToken(own, 0, 1, &disabled, 0, nullptr, 0, nullptr, &restricted));
        EXPECT_TRUE(::ImpersonateLoggedOnUser(restricted));
        ::CloseHandle(restricted);
        ::CloseHandle(own);
    }
    ~WithoutAdministratorsRights() { ::RevertToSelf(); }
};

/// Says of what is opened that it is a reparse point, which cannot be made under Wine. Remembers how the last
/// file was opened.
class ReparsePoints : public windows_api::CKernel32 {
  public:
    DWORD flags = 0;
    HANDLE CreateFileW(const wchar_t* name, DWORD access, DWORD shareMode, SECURITY_ATTRIBUTES* security,
                       DWORD disposition, DWORD flagsAndAttributes, HANDLE templateFile) override {
        flags = flagsAndAttributes;
        return CKernel32::CreateFileW(name, access, shareMode, security, disposition, flagsAndAttributes,
                                      templateFile);
    }
    BOOL GetFileInformationByHandle(HANDLE file, BY_HANDLE_FILE_INFORMATION* information) override {
        const BOOL result = CKernel32::GetFileInformationByHandle(file, information);
        information->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        return result;
    }
};

class ProtectedFolder : public testing::Test {
  protected:
    ProtectedFolder() {
        std::filesystem::remove_all(root_);
        std::filesystem::create_directory(root_);
    }
    ~ProtectedFolder() override {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    std::wstring NewFile(const std::wstring& name) {
        const std::wstring path = root_ + L"\\" + name;
        std::ofstream(std::filesystem::path(path)) << "old";
        return path;
    }

    std::wstring root_ = L"C:\\windows\\temp\\protected_folder_test";
};

}  // namespace

TEST_F(ProtectedFolder, IsMadeWithoutRightsForOthers) {
    const std::wstring folder = root_ + L"\\own";
    OpenToAll(root_);
    EXPECT_NE(RightsOf(root_).find(L";WD)"), std::wstring::npos) << "the folder above is open to all";

    EnsureProtectedFolder(folder);

    const std::wstring rights = RightsOf(folder);
    EXPECT_NE(rights.find(L"(A;OICI;FA;;;SY)"), std::wstring::npos);
    EXPECT_EQ(rights.find(L";WD)"), std::wstring::npos) << std::string(rights.begin(), rights.end());
    EXPECT_EQ(rights.find(L";BU)"), std::wstring::npos);
}

TEST_F(ProtectedFolder, OneThatIsOpenToOthersIsClosed) {
    const std::wstring folder = root_ + L"\\own";
    std::filesystem::create_directory(folder);
    OpenToAll(folder);
    // Wine keeps rights as Linux' file modes, so that they come back in other words.
    const std::wstring open = RightsOf(folder);
    ASSERT_TRUE(open.find(L"(A;OICI;FA;;;WD)") != std::wstring::npos ||
                open.find(L"(A;OICI;0x1301ff;;;WD)") != std::wstring::npos)
        << std::string(open.begin(), open.end());

    EnsureProtectedFolder(folder);

    // Wine adds what the folder above lets everybody read, although that is not asked for.
    const std::wstring rights = RightsOf(folder);
    const std::wstring readOnly = L"(A;OICI;0x1200a9;;;WD)";
    EXPECT_TRUE(rights.ends_with(readOnly) || rights.find(L";WD)") == std::wstring::npos)
        << std::string(rights.begin(), rights.end());
}

TEST_F(ProtectedFolder, OneThatOthersMayOnlyReadStaysAsItIs) {
    // Wine adds the rights of the folder above to those that are set: here these give others none.
    const std::wstring above = root_ + L"\\above";
    const std::wstring folder = above + L"\\own";
    EnsureProtectedFolder(above);
    std::filesystem::create_directory(folder);
    OpenToAll(folder, L"D:(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;WD)");
    const std::wstring before = RightsOf(folder);
    ASSERT_NE(before.find(L";WD)"), std::wstring::npos);

    EnsureProtectedFolder(folder);

    EXPECT_EQ(RightsOf(folder), before);
}

TEST_F(ProtectedFolder, ChosenFolderKeepsItsRights) {
    OpenToAll(root_);
    const std::wstring before = RightsOf(root_);
    EnsureTrustedFolder(root_);
    EXPECT_EQ(RightsOf(root_), before);
}

TEST_F(ProtectedFolder, MissingFoldersOnTheWayAreMade) {
    EnsureTrustedFolder(root_ + L"\\a\\b\\c");
    EXPECT_TRUE(std::filesystem::is_directory(root_ + L"\\a\\b\\c"));
    EXPECT_EQ(RightsOf(root_ + L"\\a").find(L";WD)"), std::wstring::npos);
    EXPECT_EQ(RightsOf(root_ + L"\\a\\b\\c").find(L";WD)"), std::wstring::npos);
}

TEST_F(ProtectedFolder, RootOfADriveIsAFolder) {
    EXPECT_EQ(Refusal([] { EnsureTrustedFolder(L"C:"); }), L"");
    EXPECT_EQ(Refusal([] { EnsureTrustedFolder(L"C:\\"); }), L"");
}

TEST_F(ProtectedFolder, LinkInItsPlaceIsOpenedItselfAndRefused) {
    const auto kernel32 = std::make_shared<ReparsePoints>();
    EXPECT_EQ(Refusal([&] { EnsureTrustedFolder(root_, kernel32); }),
              root_ + L" is a link; name the place that is meant");
    EXPECT_NE(kernel32->flags & FILE_FLAG_OPEN_REPARSE_POINT, 0u);
    EXPECT_TRUE(Refusal([&] { EnsureProtectedFolder(root_, kernel32); }).starts_with(root_ + L" is a link"));
}

TEST_F(ProtectedFolder, OneOfAnAccountThatIsNoAdministratorIsRefused) {
    const std::wstring folder = root_ + L"\\own";
    std::filesystem::create_directory(folder);
    const WithoutAdministratorsRights asAnybody;
    for (const auto ensure : {&EnsureProtectedFolder, &EnsureTrustedFolder}) {
        const std::wstring text =
            Refusal([&] { ensure(folder, std::make_shared<windows_api::CKernel32>()); });
        EXPECT_TRUE(text.starts_with(L"The folder " + folder + L" belongs to "))
            << std::string(text.begin(), text.end());
        EXPECT_NE(text.find(L", who is not an administrator"), std::wstring::npos);
    }
}

TEST_F(ProtectedFolder, FileInItsPlaceIsRefused) {
    const std::wstring file = NewFile(L"file");
    EXPECT_TRUE(Refusal([&] { EnsureProtectedFolder(file); }).ends_with(L"is a file, not a folder"));
}

TEST_F(ProtectedFolder, FolderThatCannotBeMadeIsToldWithTheReason) {
    const std::wstring text = Refusal([&] { EnsureTrustedFolder(NewFile(L"file") + L"\\below"); });
    EXPECT_NE(text.find(L"is a file, not a folder"), std::wstring::npos);
    EXPECT_TRUE(Refusal([&] { EnsureTrustedFolder(root_ + L"\\wrong?"); }).ends_with(L"(error 123)"));
}

TEST_F(ProtectedFolder, FileIsOpenedAndMade) {
    const std::wstring path = root_ + L"\\new";
    EXPECT_TRUE(OpenWithoutLinks(path, OPEN_ALWAYS));
    EXPECT_TRUE(OpenWithoutLinks(path, OPEN_ALWAYS));
    RequireNoLink(path);
    RequireNoLink(root_ + L"\\missing");
}

TEST_F(ProtectedFolder, FileWithASecondNameIsRefused) {
    const std::wstring target = NewFile(L"target");
    const std::wstring link = root_ + L"\\link";
    ASSERT_TRUE(::CreateHardLinkW(link.c_str(), target.c_str(), nullptr));
    const std::wstring text = Refusal([&] { OpenWithoutLinks(link, OPEN_ALWAYS); });
    EXPECT_EQ(text, link + L" has 2 names (hard links); remove it or name another");
    EXPECT_EQ(Refusal([&] { RequireNoLink(link); }), text);
    EXPECT_EQ(std::filesystem::file_size(target), 3u) << "untouched";
}

TEST_F(ProtectedFolder, LinkInTheFilesPlaceIsOpenedItselfAndRefused) {
    const std::wstring file = NewFile(L"file");
    const auto kernel32 = std::make_shared<ReparsePoints>();
    EXPECT_TRUE(
        Refusal([&] { OpenWithoutLinks(file, OPEN_ALWAYS, kernel32); }).starts_with(file + L" is a link"));
    EXPECT_NE(kernel32->flags & FILE_FLAG_OPEN_REPARSE_POINT, 0u);
    kernel32->flags = 0;
    EXPECT_TRUE(Refusal([&] { RequireNoLink(file, kernel32); }).starts_with(file + L" is a link"));
    EXPECT_NE(kernel32->flags & FILE_FLAG_OPEN_REPARSE_POINT, 0u);
}

TEST_F(ProtectedFolder, WhatIsNoFileOfADiskIsRefused) {
    EXPECT_TRUE(Refusal([] {
                    OpenWithoutLinks(L"\\\\.\\NUL", OPEN_EXISTING);
                }).ends_with(L"is not a file of a disk"));
}

TEST_F(ProtectedFolder, FileThatCannotBeOpenedIsToldWithTheReason) {
    EXPECT_TRUE(
        Refusal([&] { OpenWithoutLinks(root_ + L"\\no\\file", OPEN_ALWAYS); }).ends_with(L"(error 3)"));
    EXPECT_TRUE(Refusal([&] { RequireNoLink(root_ + L"\\wrong?"); }).ends_with(L"(error 123)"));
}

TEST(ProductDataFolder, StandsBelowProgramDataWhateverTheEnvironmentSays) {
    ::SetEnvironmentVariableW(L"ProgramData", L"C:\\elsewhere");
    EXPECT_EQ(operating_system::ProductDataFolder(), L"C:\\ProgramData\\Tessaplug");
}
