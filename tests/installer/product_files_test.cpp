#include "product_files.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

/// A folder with a product in it.
class ProductFiles : public testing::Test {
  protected:
    ProductFiles() {
        fs::remove_all(root_);
        for (const auto* name :
             {L"docs\\a.txt", L"tmf\\b.tmf", L"tessaplug.dll", L"tessahost.exe", L"not ours.txt"})
            Write(folder_ + name, "old");
    }
    ~ProductFiles() override { fs::remove_all(root_); }

    static void Write(const std::wstring& file, const std::string& text) {
        fs::create_directories(fs::path(file).parent_path());
        std::ofstream(fs::path(file)) << text;
    }
    static std::string Read(const std::wstring& file) {
        std::ifstream stream{fs::path(file)};
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    static std::size_t FilesIn(const std::wstring& folder) {
        std::size_t count = 0;
        for (const auto& entry : fs::recursive_directory_iterator(folder))
            count += entry.is_regular_file() ? 1 : 0;
        return count;
    }

    const std::wstring root_ = L"C:\\windows\\temp\\product files of a test";
    const std::wstring folder_ = root_ + L"\\product\\";
    const std::wstring copies_ = root_ + L"\\product.previous";
};

}  // namespace

TEST_F(ProductFiles, AreCopiedAndPutBack) {
    installer::KeepFiles(folder_);
    EXPECT_EQ(FilesIn(copies_), 4u) << "what is not the product's is left alone";
    for (const auto* name : {L"docs\\a.txt", L"tessaplug.dll"})
        Write(folder_ + name, "new");
    fs::remove_all(folder_ + L"tmf");
    installer::RestoreFiles(folder_);
    for (const auto* name :
         {L"docs\\a.txt", L"tmf\\b.tmf", L"tessaplug.dll", L"tessahost.exe", L"not ours.txt"})
        EXPECT_EQ(Read(folder_ + name), "old") << name;
    EXPECT_FALSE(fs::exists(copies_));
}

TEST_F(ProductFiles, ThatAreNotThereAreNotCopied) {
    fs::remove_all(root_);
    installer::KeepFiles(folder_);
    EXPECT_FALSE(fs::exists(root_));
}

TEST_F(ProductFiles, ThatWereNeverCopiedAreNotPutBack) {
    installer::RestoreFiles(folder_);
    EXPECT_EQ(Read(folder_ + L"tessaplug.dll"), "old");
}

TEST_F(ProductFiles, CopiesOfAnEarlierTimeAreReplaced) {
    Write(copies_ + L"\\tmf\\gone.tmf", "older");
    installer::KeepFiles(folder_);
    EXPECT_FALSE(fs::exists(copies_ + L"\\tmf\\gone.tmf"));
    installer::ForgetFiles(folder_);
    EXPECT_FALSE(fs::exists(copies_));
}

TEST_F(ProductFiles, CopyThatFailsLeavesNone) {
    const HANDLE held =
        ::CreateFileW((folder_ + L"tmf\\b.tmf").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    EXPECT_THROW(installer::KeepFiles(folder_), std::runtime_error);
    ::CloseHandle(held);
    EXPECT_FALSE(fs::exists(copies_));
}

TEST_F(ProductFiles, AreFreeAfterTheyWereReleased) {
    const std::wstring file = folder_ + L"tessaplug.dll";
    // As one that runs it: it may be renamed, not written.
    const HANDLE held = ::CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    installer::ReleaseFiles(folder_);
    EXPECT_EQ(Read(file), "old");
    Write(file, "new");
    EXPECT_EQ(Read(file), "new");
    ::CloseHandle(held);
    EXPECT_EQ(FilesIn(folder_), 5u) << "nothing is left of what was renamed";
}

TEST_F(ProductFiles, ReleaseThatFailsLeavesThemAsTheyWere) {
    const std::wstring file = folder_ + L"tessahost.exe";
    const HANDLE held =
        ::CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);  // it may not even be renamed
    EXPECT_THROW(installer::ReleaseFiles(folder_), std::runtime_error);
    ::CloseHandle(held);
    EXPECT_EQ(Read(file), "old");
    EXPECT_EQ(FilesIn(folder_), 5u);
}

TEST_F(ProductFiles, LogsAreRemovedWithTheirFolderIfItIsEmpty) {
    const std::wstring log = root_ + L"\\logs\\host.log";
    for (const auto* end : {L"", L".1", L".99"})
        Write(log + end, "x");
    Write(root_ + L"\\logs\\other.txt", "x");
    installer::RemoveLogs(log);
    EXPECT_EQ(FilesIn(root_ + L"\\logs"), 1u);
    fs::remove(root_ + L"\\logs\\other.txt");
    installer::RemoveLogs(log);
    EXPECT_FALSE(fs::exists(root_ + L"\\logs"));
}

TEST_F(ProductFiles, DumpsAndRecordingsAreFound) {
    wchar_t temporary[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, temporary);
    const std::wstring dump = std::wstring(temporary) + L"tessaplug.dll_20260101-010203.dmp";
    const std::wstring recording = root_ + L"\\logs\\mine.etl";
    Write(dump, "x");
    Write(recording, "x");
    const auto found = installer::DumpsAndRecordings(root_ + L"\\logs");
    EXPECT_NE(std::ranges::find(found, dump), found.end());
    EXPECT_NE(std::ranges::find(found, recording), found.end());
    fs::remove(dump);
}
