#include "tmf_build.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

#include "module_hooks.h"
#include "program_folder.h"
#include "text.h"

using tessactl::BuildVersion;
using tessactl::ReadTmfBuild;
using tessactl::ToolError;

namespace {

class TmfBuild : public testing::Test {
  protected:
    TmfBuild() { std::filesystem::create_directories(folder_); }
    ~TmfBuild() override { std::filesystem::remove_all(folder_); }

    BuildVersion Of(const std::string& text) const {
        std::ofstream(folder_ / L"build.txt", std::ios::binary) << text;
        return ReadTmfBuild(folder_.wstring());
    }

    std::filesystem::path folder_ = std::filesystem::temp_directory_path() / L"tmf build";
};

}  // namespace

TEST_F(TmfBuild, OfTheBuiltFormatsIsThisBuild) {
    EXPECT_EQ(ReadTmfBuild(test_support::ProgramFolder() + L"tmf"), tessactl::OwnBuild());
}

TEST_F(TmfBuild, IsReadWithEitherLineEnd) {
    const BuildVersion build = {"tessaplug", "V1", "c1", "a date"};
    EXPECT_EQ(Of("version V1\ncommit c1\ndate a date\n"), build);
    EXPECT_EQ(Of("version V1\r\ncommit c1\r\ndate a date"), build);
}

TEST_F(TmfBuild, WhatIsNotToldIsEmpty) {
    EXPECT_EQ(Of("version V1\n"), (BuildVersion{"tessaplug", "V1", "", ""}));
}

TEST_F(TmfBuild, WhatIsNotUnderstoodIsRefused) {
    for (const auto* text : {"", "version", "version \n", "aversion V1\n", "versions V1\n"})
        EXPECT_THROW(Of(text), ToolError) << text;
    EXPECT_THROW(Of(std::string(100000, 'x') + "\nversion V1\n"), ToolError);
    EXPECT_EQ(Of("version \x1B[2J\xFF").version, "?[2J\xEF\xBF\xBD");
    std::filesystem::remove(folder_ / L"build.txt");
    EXPECT_THROW(ReadTmfBuild(folder_.wstring()), ToolError);
}
