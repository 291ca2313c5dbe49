#include "system_error.h"

#include <gtest/gtest.h>

using operating_system::DescribeSystemError;

TEST(SystemError, IsTheSystemsSentenceWithItsNumber) {
    const std::wstring text = DescribeSystemError(ERROR_ACCESS_DENIED);
    EXPECT_TRUE(text.ends_with(L" (error 5)"));
    EXPECT_GT(text.length(), std::wstring(L" (error 5)").length() + 5);
}

TEST(SystemError, HasNeitherLineEndsNorAStopBeforeTheNumber) {
    for (const DWORD code : {5u, 2u, 193u}) {
        const std::wstring text = DescribeSystemError(code);
        EXPECT_EQ(text.find_first_of(L"\r\n"), std::wstring::npos);
        EXPECT_EQ(text.find(L". ("), std::wstring::npos);
        EXPECT_EQ(text.find(L"  "), std::wstring::npos);
    }
}

TEST(SystemError, MessageWithAnInsertNamesTheSubject) {
    const std::wstring text = DescribeSystemError(ERROR_BAD_EXE_FORMAT, L"C:\\x.dll");
    EXPECT_NE(text.find(L"C:\\x.dll"), std::wstring::npos);
    EXPECT_TRUE(text.ends_with(L" (error 193)"));
    EXPECT_EQ(text.find(L'%'), std::wstring::npos);
    EXPECT_NE(DescribeSystemError(ERROR_BAD_EXE_FORMAT).find(L"The file"), std::wstring::npos);
}

TEST(SystemError, UnknownCodeIsToldByItsNumber) {
    EXPECT_EQ(DescribeSystemError(0x2FFFFFFF), L"error 805306367");
}

TEST(SystemError, ResultOfComIsToldInHexadecimal) {
    EXPECT_TRUE(DescribeSystemError(0x80070005).ends_with(L"error 0x80070005)"));
    EXPECT_EQ(DescribeSystemError(0xA0000001), L"error 0xA0000001");
}
