#include "dump_folder.h"

#include <dbghelp.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "test_registry.h"
#include "text.h"

using tessactl::AgeInWords;
using tessactl::DumpsIn;
using tessactl::DumpsToPrune;
using tessactl::IsDumpName;
using tessactl::PruneRule;
using tessactl::RemoveDump;
using tessactl::StoredDump;
using tessactl::ToolError;

namespace {

constexpr ULONG64 kDay = 24ULL * 60 * 60 * 10'000'000;
constexpr ULONG64 kFirstDay = 150000;  // some day that a file can be of
constexpr wchar_t kName[] = L"tessaplug.dll_20261121-101112.dmp";

std::vector<std::wstring> NamesOf(const std::vector<StoredDump>& dumps) {
    std::vector<std::wstring> names;
    for (const StoredDump& dump : dumps)
        names.push_back(dump.name);
    return names;
}
using Names = std::vector<std::wstring>;

/// A folder of its own.
class DumpFolder : public testing::Test {
  protected:
    DumpFolder()
        : folder_(std::filesystem::temp_directory_path() /
                  (L"dump_folder_" + std::to_wstring(::GetCurrentProcessId()))) {
        std::filesystem::create_directory(folder_);
    }
    ~DumpFolder() override {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    static std::string DumpContent() {
        MINIDUMP_HEADER header = {};
        header.Signature = MINIDUMP_SIGNATURE;
        header.Version = 0xB0E50000 | MINIDUMP_VERSION;
        return std::string(reinterpret_cast<const char*>(&header), sizeof header) + "and what it holds";
    }
    /// @param day on which it was written, since kFirstDay
    void Write(const std::wstring& name, const std::string& content = DumpContent(), ULONG64 day = 1) {
        std::ofstream(folder_ / name, std::ios::binary) << content;
        const HANDLE file = ::CreateFileW((folder_ / name).c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr,
                                          OPEN_EXISTING, 0, nullptr);
        const ULONG64 time = (kFirstDay + day) * kDay;
        const FILETIME written = {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
        EXPECT_TRUE(::SetFileTime(file, nullptr, nullptr, &written));
        ::CloseHandle(file);
    }
    bool Exists(const std::wstring& name) const { return std::filesystem::exists(folder_ / name); }
    StoredDump Dump(const std::wstring& name) const { return {folder_.wstring(), name, 0, 0}; }
    std::string Refusal(const std::wstring& name) const {
        try {
            RemoveDump(Dump(name), false);
        } catch (const ToolError& error) {
            return error.what();
        }
        return {};
    }
    std::filesystem::path folder_;
};

std::vector<StoredDump> OfAges(const std::vector<ULONG64>& days) {
    std::vector<StoredDump> dumps;
    for (const ULONG64 age : days)
        dumps.push_back({L"C:", std::to_wstring(age), 0, 1000 * kDay - age * kDay});
    return dumps;
}

}  // namespace

TEST(DumpName, IsThatOfThePlugInWithATime) {
    EXPECT_TRUE(IsDumpName(kName));
    EXPECT_TRUE(IsDumpName(L"TessaPlug.DLL_20261121-101112.DMP"));
    for (const auto* other : {L"", L"tessaplug.dll.dmp", L"tessaplug.dll_2026112a-101112.dmp",
                              L"tessaplug.dll_20261121-101112.dmp2", L"tessaplug.dll_20261121_101112.dmp",
                              L"othermodule.d_20261121-101112.dmp"})
        EXPECT_FALSE(IsDumpName(other)) << other;
}

TEST_F(DumpFolder, ListsThePlugInsDumpsNewestFirst) {
    Write(kName, DumpContent(), 7);
    Write(L"tessaplug.dll_20261120-101112.dmp", DumpContent(), 9);
    Write(L"tessaplug.dll_20261122-101112.dmp", DumpContent(), 8);
    Write(L"other.dmp");
    std::filesystem::create_directory(folder_ / L"tessaplug.dll_20200101-000000.dmp");
    const auto dumps = DumpsIn(folder_.wstring());
    EXPECT_EQ(NamesOf(dumps),
              (Names{L"tessaplug.dll_20261120-101112.dmp", L"tessaplug.dll_20261122-101112.dmp", kName}));
    EXPECT_EQ(dumps[0].bytes, DumpContent().size());
    EXPECT_EQ(dumps[0].writtenAt, (kFirstDay + 9) * kDay);
    EXPECT_EQ(dumps[0].Path(), (folder_ / L"tessaplug.dll_20261120-101112.dmp").wstring());
}

TEST_F(DumpFolder, ListsThoseOfOneTimeByTheirNames) {
    Write(kName);
    Write(L"tessaplug.dll_20261121-101113.dmp");
    Write(L"tessaplug.dll_20261121-101111.dmp");
    EXPECT_EQ(NamesOf(DumpsIn(folder_.wstring())),
              (Names{L"tessaplug.dll_20261121-101113.dmp", kName, L"tessaplug.dll_20261121-101111.dmp"}));
}

TEST_F(DumpFolder, WithoutDumpsIsEmptyAndMissingIsTold) {
    EXPECT_TRUE(DumpsIn(folder_.wstring()).empty());
    EXPECT_THROW(DumpsIn(folder_.wstring() + L"\\missing"), ToolError);
}

TEST_F(DumpFolder, DumpIsRemoved) {
    Write(kName);
    RemoveDump(Dump(kName), true);
    EXPECT_TRUE(Exists(kName)) << "a try removes nothing";
    RemoveDump(Dump(kName), false);
    EXPECT_FALSE(Exists(kName));
    EXPECT_NE(Refusal(kName), "") << "it is gone";
}

TEST_F(DumpFolder, FileThatIsNoDumpStays) {
    std::string otherVersion = DumpContent();
    otherVersion[4] ^= 1;
    for (const std::string& content :
         {std::string(), std::string("MDMP"), "MDMX" + DumpContent().substr(4), otherVersion}) {
        Write(kName, content);
        EXPECT_TRUE(Refusal(kName).ends_with(" is no memory dump")) << content;
        EXPECT_THROW(RemoveDump(Dump(kName), true), ToolError) << "a try says so too";
        EXPECT_TRUE(Exists(kName));
    }
}

TEST_F(DumpFolder, NothingIsRemovedThroughALink) {
    Write(L"somebody's dump");
    ASSERT_TRUE(
        ::CreateHardLinkW((folder_ / kName).c_str(), (folder_ / L"somebody's dump").c_str(), nullptr));
    EXPECT_NE(Refusal(kName).find("2 names (hard links)"), std::string::npos) << Refusal(kName);
    EXPECT_TRUE(Exists(kName));
    EXPECT_TRUE(Exists(L"somebody's dump"));
}

TEST_F(DumpFolder, DumpThatIsStillWrittenStays) {
    Write(kName);
    const HANDLE writer = ::CreateFileW((folder_ / kName).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                        OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(Refusal(kName), "");
    ::CloseHandle(writer);
    EXPECT_TRUE(Exists(kName));
    EXPECT_EQ(Refusal(kName), "");
}

TEST(PruneDumps, KeepsTheNewest) {
    const auto dumps = OfAges({1, 2, 3});
    EXPECT_EQ(NamesOf(DumpsToPrune(dumps, PruneRule{1, {}}, 1000 * kDay)), (Names{L"2", L"3"}));
    EXPECT_EQ(NamesOf(DumpsToPrune(dumps, PruneRule{0, {}}, 1000 * kDay)), (Names{L"1", L"2", L"3"}));
    EXPECT_EQ(NamesOf(DumpsToPrune(dumps, PruneRule{9, {}}, 1000 * kDay)), Names{});
    EXPECT_EQ(NamesOf(DumpsToPrune({}, PruneRule{9, {}}, 1000 * kDay)), Names{});
}

TEST(PruneDumps, KeepsWhatIsYoung) {
    const auto dumps = OfAges({1, 2, 3});
    EXPECT_EQ(NamesOf(DumpsToPrune(dumps, PruneRule{{}, 2}, 1000 * kDay)), (Names{L"2", L"3"}));
    EXPECT_EQ(NamesOf(DumpsToPrune(dumps, PruneRule{{}, 2}, 1000 * kDay - 1)), Names{L"3"});
}

TEST(PruneDumps, TakesWhatBothRulesLetGo) {
    const auto dumps = OfAges({1, 2, 3});
    EXPECT_EQ(NamesOf(DumpsToPrune(dumps, PruneRule{2, 1}, 1000 * kDay)), Names{L"3"});
    EXPECT_EQ(NamesOf(DumpsToPrune(dumps, PruneRule{0, 3}, 1000 * kDay)), Names{L"3"});
}

TEST(DumpAge, IsToldInTheLargestWholeUnit) {
    constexpr ULONG64 kSecond = 10'000'000;
    EXPECT_EQ(AgeInWords(kDay, kDay), "0 seconds");
    EXPECT_EQ(AgeInWords(kDay, kDay + kSecond), "1 second");
    EXPECT_EQ(AgeInWords(kDay, kDay + 119 * kSecond), "1 minute");
    EXPECT_EQ(AgeInWords(kDay, kDay + 7200 * kSecond), "2 hours");
    EXPECT_EQ(AgeInWords(0, 3 * kDay), "3 days");
    EXPECT_EQ(AgeInWords(kDay, 0), "0 seconds") << "of tomorrow, by another clock";
}

TEST(ServiceTemporaryFolder, IsTheMachines) {
    wchar_t windows[MAX_PATH] = {};
    ::GetSystemWindowsDirectoryW(windows, MAX_PATH);
    const std::wstring expected = std::wstring(windows) + L"\\temp";
    EXPECT_EQ(::_wcsicmp(tessactl::ServiceTemporaryFolder().c_str(), expected.c_str()), 0)
        << tessactl::Utf8(tessactl::ServiceTemporaryFolder());
}

TEST(ServiceTemporaryFolder, IsWhatTheMachinesVariablesTell) {
    const test_support::TestRegistry registry;
    const std::wstring variables = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment";
    registry.Set(variables, L"TEMP", L"C:\\second");
    EXPECT_EQ(tessactl::ServiceTemporaryFolder(), L"C:\\second");
    ::SetEnvironmentVariableW(L"TESSA_FOLDER", L"C:\\some folder");
    registry.Set(variables, L"TMP", L"%TESSA_FOLDER%\\first\\");
    EXPECT_EQ(tessactl::ServiceTemporaryFolder(), L"C:\\some folder\\first");
}
