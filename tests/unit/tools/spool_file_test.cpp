#include "spool_file.h"

#include <windows.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

#include "text.h"

using tessactl::SpoolFile;

namespace {

std::string Copied(SpoolFile& spool) {
    std::ostringstream output;
    spool.CopyTo(output);
    return output.str();
}

/// A temporary folder of the test's own.
class Spool : public testing::Test {
  protected:
    Spool() {
        std::filesystem::create_directory(folder_);
        ::GetEnvironmentVariableW(L"TMP", former_, ARRAYSIZE(former_));
        ::SetEnvironmentVariableW(L"TMP", folder_.c_str());
    }
    ~Spool() override {
        ::SetEnvironmentVariableW(L"TMP", former_);
        std::filesystem::remove_all(folder_);
    }
    bool HasFile() const { return !std::filesystem::is_empty(folder_); }

    const std::wstring folder_ = L"C:\\windows\\temp\\spool_file_test";

  private:
    wchar_t former_[MAX_PATH] = {};
};

}  // namespace

TEST_F(Spool, LittleStaysInMemory) {
    SpoolFile spool(10);
    EXPECT_TRUE(spool.IsEmpty());
    spool.Write("0123456789");
    EXPECT_FALSE(spool.IsEmpty());
    EXPECT_FALSE(HasFile());
    EXPECT_EQ(Copied(spool), "0123456789");
}

TEST_F(Spool, MuchIsKeptInAFileThatIsGoneAfterwards) {
    {
        SpoolFile spool(10);
        std::string all;
        for (int i = 0; i < 30000; ++i) {
            const std::string text = std::to_string(i) + "\r\n";
            spool.Write(text);
            all += text;
        }
        EXPECT_TRUE(HasFile());
        EXPECT_EQ(Copied(spool), all);
        spool.Write("more, behind it");
        EXPECT_EQ(Copied(spool), all + "more, behind it");
    }
    EXPECT_FALSE(HasFile());
}

TEST_F(Spool, TwoDoNotMix) {
    SpoolFile one(1);
    SpoolFile other(1);
    one.Write("one");
    other.Write("other");
    EXPECT_EQ(Copied(one), "one");
    EXPECT_EQ(Copied(other), "other");
}

TEST_F(Spool, FolderThatIsMissingIsTold) {
    ::SetEnvironmentVariableW(L"TMP", L"C:\\no such folder");
    SpoolFile spool(1);
    EXPECT_THROW(spool.Write("text"), tessactl::ToolError);
}
