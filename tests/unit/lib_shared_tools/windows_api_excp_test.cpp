#include "windows_api_excp.h"

#include <windows.h>

#include <gtest/gtest.h>
#include <string>

#include "system_calls.h"

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

TEST(SystemErrorText, LosesItsLastTwoCharactersAndIsFreed) {
    const test_support::SystemCallsOfTest systemCalls;
    static char text[] = "A text.\r\n";
    static void* freed = nullptr;
    test_support::systemCalls.formatMessageA = [](DWORD flags, LPCVOID source, DWORD code, DWORD language,
                                                  LPSTR buffer, DWORD size, va_list* arguments) -> DWORD {
        EXPECT_EQ(flags, 0x3100u);
        EXPECT_EQ(source, nullptr);
        EXPECT_EQ(code, 77u);
        EXPECT_EQ(language, 0u);
        EXPECT_EQ(size, 0u);
        EXPECT_EQ(arguments, nullptr);
        *reinterpret_cast<char**>(buffer) = text;
        return 9;
    };
    test_support::systemCalls.localFree = [](HLOCAL memory) -> HLOCAL {
        freed = memory;
        return nullptr;
    };
    EXPECT_EQ(GetSystemErrorText(77), "A text.");
    EXPECT_EQ(freed, text);
}

TEST(SystemErrorText, OfLessThanTwoCharactersIsEmpty) {
    const test_support::SystemCallsOfTest systemCalls;
    static char text[] = "x";
    test_support::systemCalls.formatMessageA = [](DWORD, LPCVOID, DWORD, DWORD, LPSTR buffer, DWORD,
                                                  va_list*) -> DWORD {
        *reinterpret_cast<char**>(buffer) = text;
        return 1;
    };
    test_support::systemCalls.localFree = [](HLOCAL) -> HLOCAL { return nullptr; };
    EXPECT_EQ(GetSystemErrorText(77), "");
}

TEST(SystemErrorText, ThatCannotBeFormattedNamesCodeAndLastError) {
    const test_support::SystemCallsOfTest systemCalls;
    test_support::systemCalls.formatMessageA = [](DWORD, LPCVOID, DWORD, DWORD, LPSTR, DWORD,
                                                  va_list*) -> DWORD {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    };
    EXPECT_EQ(GetSystemErrorText(0x80070002), "FormatMessage(2147942402) FAILED! LE(8)");
}

TEST(SystemErrorText, OfAnUnknownCodeSaysSo) {
    EXPECT_EQ(GetSystemErrorText(0x2FFFFFFF), "Unknown system error-code(805306367)");
}
