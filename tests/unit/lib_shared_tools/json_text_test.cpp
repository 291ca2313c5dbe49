#include "json_text.h"

#include <gtest/gtest.h>

using toolbox::JsonText;

TEST(JsonText, IsQuoted) {
    EXPECT_EQ(JsonText(L""), "\"\"");
    EXPECT_EQ(JsonText(L"plain"), "\"plain\"");
}

TEST(JsonText, EscapesQuotationMarksBackslashesAndControlCharacters) {
    EXPECT_EQ(JsonText(L"C:\\a \"b\"\n\t\x01"), R"("C:\\a \"b\"\u000a\u0009\u0001")");
}

TEST(JsonText, IsUtf8) {
    EXPECT_EQ(JsonText(L"Gerät \x65E5 \xD83D\xDE00"), "\"Ger\xC3\xA4t \xE6\x97\xA5 \xF0\x9F\x98\x80\"");
}

TEST(JsonText, HalfOfASurrogatePairIsReplaced) {
    EXPECT_EQ(JsonText(L"a\xD83D!"), "\"a\xEF\xBF\xBD!\"");
}
