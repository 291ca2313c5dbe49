#include "log_file.h"

#include <aclapi.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

#include "module_hooks.h"
#include "protected_folder.h"
#include "status_log.h"

using host::LogFile;
using operating_system::PathRefused;

namespace {

class Log : public testing::Test {
  protected:
    Log() {
        std::filesystem::remove_all(folder_);
        std::filesystem::create_directory(folder_);
    }
    ~Log() override {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    std::string Content(const std::wstring& behind = L"") const {
        std::ifstream file(std::filesystem::path(path_ + behind), std::ios::binary);
        return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "no file";
    }

    std::wstring folder_ = L"C:\\windows\\temp\\log_file_test";
    std::wstring path_ = folder_ + L"\\x.log";
    LogFile log_;
};

/// Whether anybody may write in a folder.
bool IsOpenToAll(const std::wstring& folder) {
    ACL* rights = nullptr;
    void* descriptor = nullptr;
    ::GetNamedSecurityInfoW(folder.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                            &rights, nullptr, &descriptor);
    BYTE sid[SECURITY_MAX_SID_SIZE] = {};
    DWORD size = sizeof sid;
    ::CreateWellKnownSid(WinWorldSid, nullptr, sid, &size);
    bool isOpen = false;
    for (DWORD i = 0; i < rights->AceCount; ++i) {
        void* entry = nullptr;
        ::GetAce(rights, i, &entry);
        const auto& allowed = *static_cast<ACCESS_ALLOWED_ACE*>(entry);
        isOpen |=
            ::EqualSid(sid, const_cast<DWORD*>(&allowed.SidStart)) && (allowed.Mask & FILE_ADD_FILE) != 0;
    }
    ::LocalFree(descriptor);
    return isOpen;
}

void OpenToAll(const std::wstring& folder) {
    SECURITY_DESCRIPTOR descriptor = {};
    ::InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    alignas(ACL) BYTE memory[256] = {};
    auto* rights = reinterpret_cast<ACL*>(memory);
    BYTE sid[SECURITY_MAX_SID_SIZE] = {};
    DWORD size = sizeof sid;
    ::CreateWellKnownSid(WinWorldSid, nullptr, sid, &size);
    ::InitializeAcl(rights, sizeof memory, ACL_REVISION);
    ::AddAccessAllowedAceEx(rights, ACL_REVISION, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE, FILE_ALL_ACCESS,
                            sid);
    ::SetSecurityDescriptorDacl(&descriptor, TRUE, rights, FALSE);
    ::SetFileSecurityW(folder.c_str(), DACL_SECURITY_INFORMATION, &descriptor);
}

}  // namespace

TEST_F(Log, IsAppendedTo) {
    std::ofstream(std::filesystem::path(path_)) << "old ";
    log_.Open(path_, {});
    log_.Append("new");
    EXPECT_EQ(Content(), "old new");
}

TEST_F(Log, FullFileIsPutAsideAndTheOldestGoes) {
    log_.Open(path_, {10, 2});
    for (const char* text : {"aaaaaa", "bbbb", "cccccc", "dddddd", "eeeeee"})
        log_.Append(text);
    EXPECT_EQ(Content(), "eeeeee");
    EXPECT_EQ(Content(L".1"), "dddddd");
    EXPECT_EQ(Content(L".2"), "cccccc") << "what came before went";
    EXPECT_EQ(Content(L".3"), "no file");
}

TEST_F(Log, FileIsFilledUpToItsSize) {
    log_.Open(path_, {10, 2});
    log_.Append("aaaaaa");
    log_.Append("bbbb");
    EXPECT_EQ(Content(), "aaaaaabbbb");
    log_.Append("c");
    EXPECT_EQ(Content(), "c");
    EXPECT_EQ(Content(L".1"), "aaaaaabbbb");
}

TEST_F(Log, SizeOfWhatIsThereCounts) {
    std::ofstream(std::filesystem::path(path_)) << "aaaaaaaaaa";
    log_.Open(path_, {10, 1});
    log_.Append("b");
    EXPECT_EQ(Content(), "b");
    EXPECT_EQ(Content(L".1"), "aaaaaaaaaa");
}

TEST_F(Log, TextLongerThanAFileIsWrittenWhole) {
    log_.Open(path_, {10, 1});
    log_.Append("aaaaaaaaaaaaaaaaaaaa");
    EXPECT_EQ(Content(), "aaaaaaaaaaaaaaaaaaaa");
    EXPECT_EQ(Content(L".1"), "no file") << "an empty file is not put aside";
}

TEST_F(Log, NoneIsKeptIfSoWished) {
    log_.Open(path_, {10, 0});
    log_.Append("aaaaaaaaaa");
    log_.Append("b");
    EXPECT_EQ(Content(), "b");
    EXPECT_EQ(Content(L".1"), "no file");
    EXPECT_EQ(Content(L".0"), "no file");
}

TEST_F(Log, FileThatSomebodyHasOpenGrowsOnAndIsPutAsideLater) {
    log_.Open(path_, {80, 1});
    log_.Append(std::string(80, 'a'));
    UniqueKernelHandle reader(::CreateFileW(path_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                            nullptr, OPEN_EXISTING, 0, nullptr));
    log_.Append("b");
    EXPECT_EQ(Content(), std::string(80, 'a') + "b");
    EXPECT_EQ(Content(L".1"), "no file");
    reader.reset();
    log_.Append("c");
    EXPECT_EQ(Content(L".1"), "no file") << "not every line tries again";
    log_.Append(std::string(9, 'd'));
    EXPECT_EQ(Content(), std::string(9, 'd'));
    EXPECT_EQ(Content(L".1"), std::string(80, 'a') + "bc");
    log_.Append(std::string(80, 'e'));
    EXPECT_EQ(Content(), std::string(80, 'e')) << "the limit is the usual one again";
}

TEST_F(Log, LinkIsRefused) {
    const std::wstring target = folder_ + L"\\target";
    std::ofstream(std::filesystem::path(target)) << "precious";
    ASSERT_TRUE(::CreateHardLinkW(path_.c_str(), target.c_str(), nullptr));
    EXPECT_THROW(log_.Open(path_, {}), PathRefused);
    log_.Append("x");
    EXPECT_EQ(Content(), "precious");
}

TEST_F(Log, FullFileStaysWhileAnOldOneIsInUse) {
    log_.Open(path_, {10, 1});
    log_.Append("aaaaaaaaaa");
    const UniqueKernelHandle reader(::CreateFileW((path_ + L".1").c_str(), GENERIC_READ, FILE_SHARE_READ,
                                                  nullptr, OPEN_ALWAYS, 0, nullptr));
    log_.Append("b");
    EXPECT_EQ(Content(), "aaaaaaaaaab");
    EXPECT_EQ(Content(L".1"), "");
}

TEST_F(Log, WithoutAFileNothingHappens) {
    log_.Append("x");
    EXPECT_EQ(Content(), "no file");
}

TEST_F(Log, ChosenFolderKeepsItsRights) {
    OpenToAll(folder_);
    log_.Open(path_, {});
    EXPECT_TRUE(IsOpenToAll(folder_));
}

TEST(DefaultLog, FolderIsClosedToOthers) {
    const std::wstring folder = operating_system::ProductDataFolder();
    LogFile().Open(host::DefaultLogPath(), {});
    OpenToAll(folder);
    ASSERT_TRUE(IsOpenToAll(folder));
    LogFile().Open(host::DefaultLogPath(), {});
    EXPECT_FALSE(IsOpenToAll(folder));
}

TEST(DefaultLog, StandsInTheProductsFolder) {
    EXPECT_EQ(host::DefaultLogPath(), L"C:\\ProgramData\\Tessaplug\\tessahost.log");
}
