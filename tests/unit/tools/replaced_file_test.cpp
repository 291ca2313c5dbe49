#include "replaced_file.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <thread>

#include "text.h"
#include "unique_handle.h"

using tessactl::ReplaceFileContent;
using tessactl::ToolError;

namespace {

class ReplacedFile : public testing::Test {
  protected:
    ReplacedFile() { std::filesystem::create_directory(folder_); }
    ~ReplacedFile() override { std::filesystem::remove_all(folder_); }

    static std::string Content(const std::filesystem::path& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::ptrdiff_t FileCount() const {
        return std::distance(std::filesystem::directory_iterator(folder_), {});
    }
    /// As most programs open a file to read it.
    UniqueKernelHandle OpenToRead() const {
        UniqueKernelHandle file(::CreateFileW(file_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                              nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_TRUE(file);
        return file;
    }

    const std::filesystem::path folder_ =
        std::filesystem::temp_directory_path() / ("replaced_file_" + std::to_string(::GetCurrentProcessId()));
    const std::filesystem::path file_ = folder_ / L"a b.prom";
};

}  // namespace

TEST_F(ReplacedFile, IsMadeAndReplacedAndNothingStandsBesideIt) {
    ReplaceFileContent(file_, "first and longer\n");
    EXPECT_EQ(Content(file_), "first and longer\n");
    ReplaceFileContent(file_, "second\n");
    EXPECT_EQ(Content(file_), "second\n");
    EXPECT_EQ(FileCount(), 1);
}

TEST_F(ReplacedFile, WhatARunThatWasCutOffLeftIsWrittenOver) {
    std::ofstream(folder_ / L"a b.prom.new") << "half of something that was much longer";
    ReplaceFileContent(file_, "whole\n");
    EXPECT_EQ(Content(file_), "whole\n");
    EXPECT_EQ(FileCount(), 1);
}

TEST_F(ReplacedFile, ReaderSeesTheOldContentUntilHeIsThrough) {
    ReplaceFileContent(file_, "old");
    UniqueKernelHandle reader = OpenToRead();
    std::thread writer([&] { ReplaceFileContent(file_, "new"); });
    ::Sleep(200);  // the writer tries meanwhile
    char content[4] = {};
    DWORD read = 0;
    EXPECT_TRUE(::ReadFile(reader.get(), content, sizeof content, &read, nullptr));
    EXPECT_EQ(std::string(content, read), "old");
    reader.reset();
    writer.join();
    EXPECT_EQ(Content(file_), "new");
}

TEST_F(ReplacedFile, ReaderWhoNeverEndsIsToldAndTheFileStays) {
    ReplaceFileContent(file_, "old");
    const UniqueKernelHandle reader = OpenToRead();
    EXPECT_THROW(ReplaceFileContent(file_, "new"), ToolError);
    EXPECT_EQ(Content(file_), "old");
    EXPECT_EQ(FileCount(), 1);
}

TEST_F(ReplacedFile, FolderThatIsMissingIsTold) {
    try {
        ReplaceFileContent(folder_ / L"missing" / L"x.prom", "x");
        FAIL();
    } catch (const ToolError& error) {
        EXPECT_NE(std::string(error.what()).find("missing\\x.prom"), std::string::npos) << error.what();
    }
}

TEST_F(ReplacedFile, FolderInItsPlaceIsToldAndStays) {
    std::filesystem::create_directory(file_);
    EXPECT_THROW(ReplaceFileContent(file_, "x"), ToolError);
    EXPECT_TRUE(std::filesystem::is_directory(file_));
    EXPECT_EQ(FileCount(), 1);
}
