#include "file_version.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

#include "build_info.h"
#include "module_hooks.h"
#include "program_folder.h"
#include "text.h"

using tessactl::BuildVersion;
using tessactl::ReadFileVersion;
using tessactl::ToolError;

namespace {

class FileVersion : public testing::Test {
  protected:
    FileVersion() {
        std::ifstream file(std::filesystem::path(test_support::ProgramFolder() + L"tessaplug.dll"),
                           std::ios::binary);
        plugIn_.assign(std::istreambuf_iterator<char>(file), {});
    }
    ~FileVersion() override { ::DeleteFileW(path_.c_str()); }

    /// What is told of a file with these bytes.
    std::string Told(const std::string& bytes) const {
        std::ofstream(path_, std::ios::binary) << bytes;
        return Told();
    }
    std::string Told() const {
        try {
            return InWords(ReadFileVersion(path_.wstring()));
        } catch (const ToolError& error) {
            return error.what();
        }
    }

    std::filesystem::path path_ = std::filesystem::temp_directory_path() / L"file version.dll";
    std::string plugIn_;
};

}  // namespace

TEST_F(FileVersion, OfThePlugInIsThisBuild) {
    const BuildVersion build = ReadFileVersion(test_support::ProgramFolder() + L"tessaplug.dll");
    EXPECT_EQ(build, tessactl::OwnBuild());
    EXPECT_EQ(InWords(build), TESSA_VERSION_TEXT ", commit " TESSA_COMMIT " of " TESSA_BUILD_DATE);
}

TEST_F(FileVersion, OfAFileThatIsNotThereIsToldInWords) {
    EXPECT_TRUE(Told().starts_with("it cannot be opened: ")) << Told();
    EXPECT_NE(Told().find("(error 2)"), std::string::npos) << Told();
    EXPECT_THROW(ReadFileVersion(test_support::ProgramFolder()), ToolError) << "a folder";
}

TEST_F(FileVersion, OfWhatIsNoProgramIsToldInWords) {
    EXPECT_EQ(Told(""), "it is no 64-bit program or library");
    EXPECT_EQ(Told("this is a text"), "it is no 64-bit program or library");
}

TEST_F(FileVersion, OfACutOffFileIsToldInWords) {
    ASSERT_GT(plugIn_.length(), 100000u);
    EXPECT_EQ(Told(plugIn_), InWords(tessactl::OwnBuild()));
    EXPECT_EQ(Told(plugIn_.substr(0, plugIn_.length() / 2)), "its version resource is damaged");
    for (std::size_t length = 0; length < 0x600; length += 37)
        EXPECT_TRUE(Told(plugIn_.substr(0, length)).starts_with("it")) << length;
}

TEST_F(FileVersion, OfAFileThatItsWriterHasOpenIsRead) {
    Told(plugIn_);
    std::ofstream writer(path_, std::ios::binary | std::ios::app);
    EXPECT_EQ(Told(), InWords(tessactl::OwnBuild()));
}
