#include "windows_api_excp.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>

using modul_exception::CWindowsApiExcp;
using modul_exception::GetSystemErrorText;

TEST(WindowsApiException, NamesCallLastErrorTextAndHint) {
    ::SetLastError(ERROR_ACCESS_DENIED);
    const CWindowsApiExcp error("OpenMutexW", "hint");
    EXPECT_EQ(std::string(error.what()),
              "FAILED! OpenMutexW! LE(5): " + GetSystemErrorText(ERROR_ACCESS_DENIED) + " Hint: hint\n");
}

TEST(WindowsApiException, TakesStringsAsWell) {
    ::SetLastError(ERROR_ACCESS_DENIED);
    const CWindowsApiExcp fromStrings(std::string("Call"), std::string("hint"));
    ::SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_STREQ(fromStrings.what(), CWindowsApiExcp("Call", "hint").what());
    EXPECT_STREQ(CWindowsApiExcp(std::string("Call"), 2, std::string("")).what(),
                 CWindowsApiExcp("Call", 2, "").what());
}

TEST(WindowsApiException, ReturnValueFormIgnoresTheLastError) {
    ::SetLastError(ERROR_ACCESS_DENIED);
    const CWindowsApiExcp error("SHGetKnownFolderPath()", ERROR_FILE_NOT_FOUND, "");
    EXPECT_EQ(std::string(error.what()), "FAILED! SHGetKnownFolderPath()! ReturnValue(2): " +
                                             GetSystemErrorText(ERROR_FILE_NOT_FOUND) + " Hint: \n");
}

TEST(WindowsApiException, ReturnValueIsDecimal) {
    const std::string text = CWindowsApiExcp("Call", 0x80070002, "").what();
    EXPECT_TRUE(text.starts_with("FAILED! Call! ReturnValue(2147942402): ")) << text;
}

TEST(SystemErrorText, IsTheSystemsSentenceWithoutLineEnd) {
    const std::string text = GetSystemErrorText(ERROR_ACCESS_DENIED);
    EXPECT_GT(text.length(), 5u);
    EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);
}

TEST(SystemErrorText, OfAnUnknownCodeSaysSo) {
    EXPECT_EQ(GetSystemErrorText(0x2FFFFFFF), "Unknown system error-code(805306367)");
}
