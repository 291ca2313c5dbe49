#include "text.h"

#include <gtest/gtest.h>
#include <string>

#include "json.h"
#include "module_hooks.h"
#include "windows_api_excp.h"

using tessactl::ErrorInWords;
using tessactl::InWords;
using tessactl::Json;
using tessactl::JsonLines;
using tessactl::JsonText;

TEST(TextInWords, IsOnOneLine) {
    EXPECT_EQ(InWords("one\r\ntwo\n\n"), "one  two");
    EXPECT_EQ(InWords(" \n"), "");
    EXPECT_EQ(InWords(""), "");
}

TEST(TextInWords, IsUtf8) {
    EXPECT_EQ(InWords("caf\xe9"), "caf\xc3\xa9") << "the code page of test machines is 1252";
    EXPECT_EQ(InWords("caf\xc3\xa9"), "caf\xc3\xa9") << "the code page of programs with a manifest is UTF-8";
}

TEST(TextInWords, HasTheSystemsWordsForWhatItCouldNotInsert) {
    const modul_exception::CWindowsApiExcp error("LoadLibraryW()", ERROR_BAD_EXE_FORMAT, "some.dll");
    ASSERT_NE(std::string(error.what()).find("FormatMessage(193) FAILED! LE(87)"), std::string::npos);
    EXPECT_EQ(InWords(error), "FAILED! LoadLibraryW()! ReturnValue(193): " +
                                  ErrorInWords(ERROR_BAD_EXE_FORMAT) + " Hint: some.dll");
}

TEST(TextInWords, StaysAsItIsWhereNothingIsMissing) {
    for (const char* text : {"FormatMessage(193) FAILED! LE(8)", "FormatMessage(", ") FAILED! LE(87)",
                             ") FAILED! LE(87) FormatMessage(1"})
        EXPECT_EQ(InWords(std::string(text)), text);
}

TEST(ErrorInWords, NamesItsNumberAndSubject) {
    EXPECT_TRUE(ErrorInWords(ERROR_ACCESS_DENIED).ends_with(" (error 5)"));
    EXPECT_NE(ErrorInWords(ERROR_BAD_EXE_FORMAT, L"my.dll").find("my.dll"), std::string::npos);
}

TEST(JsonText, IsReadableByOthersWhateverTheTextHolds) {
    EXPECT_EQ(JsonText("a\"b\\c\x01\n"), R"("a\"b\\c\u0001\n")");
    EXPECT_EQ(JsonText("\xff"), "\"\xef\xbf\xbd\"") << "no UTF-8";
    EXPECT_EQ(JsonText("\xc3\xbc"), "\"\xc3\xbc\"");
    EXPECT_EQ(JsonText({{"na\"me", "\\"}, {"a", 1}}), R"({"na\"me":"\\","a":1})") << "in their order";
}

TEST(JsonLines, IsALineForEachElement) {
    EXPECT_EQ(JsonLines(Json::array()), "[]");
    EXPECT_EQ(JsonLines({1, {{"a", Json::array({2, 3})}}}), "[1,\n {\"a\":[2,3]}]");
}
