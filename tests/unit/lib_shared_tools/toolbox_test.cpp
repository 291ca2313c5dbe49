#include "toolbox.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

#include "module_hooks.h"
#include "system_calls.h"
#include "text_of.h"

using test_support::TextOf;
using toolbox::GuidToString;
using toolbox::StringToWstring;
using toolbox::WstringToString;

namespace {

constexpr UINT kNoSuchCodePage = 54321;

}  // namespace

TEST(WstringToString, NarrowsByCodePage) {
    EXPECT_EQ(WstringToString(L"Fennlink U3(XLI)"), "Fennlink U3(XLI)");
    EXPECT_EQ(WstringToString(L"\u00e4\u20ac", 1252), "\xe4\x80");
    EXPECT_EQ(WstringToString(L"\u00e4", CP_UTF8), "\xc3\xa4");
    EXPECT_EQ(WstringToString(std::wstring(L"a\0b", 3)), std::string("a\0b", 3));
}

TEST(WstringToString, OfEmptyTextCallsNothing) {
    // With a code page that fails every conversion.
    EXPECT_EQ(WstringToString(L"", kNoSuchCodePage), "");
}

TEST(WstringToString, FailureNamesTheCallAndTheLastError) {
    EXPECT_EQ(TextOf<std::runtime_error>([] { WstringToString(L"text", kNoSuchCodePage); }),
              "FAILED: WideCharToMultiByte() len calculation! LE(87)!");
}

TEST(WstringToString, FailureOfTheConversionItselfHasItsOwnText) {
    const test_support::SystemCallsOfTest systemCalls;
    test_support::systemCalls.wideCharToMultiByte = [](UINT, DWORD, LPCWCH, int, LPSTR narrow, int, LPCCH,
                                                       LPBOOL) -> int {
        ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return narrow == nullptr ? 4 : 0;
    };
    EXPECT_EQ(TextOf<std::runtime_error>([] { WstringToString(L"text"); }),
              "FAILED: WideCharToMultiByte() StringConversion! LE(122)!");
}

TEST(WstringToString, UsesTheAnsiCodePageWithoutFlags) {
    const test_support::SystemCallsOfTest systemCalls;
    test_support::systemCalls.wideCharToMultiByte = [](UINT codePage, DWORD flags, LPCWCH, int, LPSTR narrow,
                                                       int, LPCCH, LPBOOL) -> int {
        EXPECT_EQ(codePage, static_cast<UINT>(CP_ACP));
        EXPECT_EQ(flags, 0u);
        if (narrow != nullptr) *narrow = 'x';
        return 1;
    };
    EXPECT_EQ(WstringToString(L"y"), "x");
}

TEST(WstringToString, LeavesTheLastErrorAlone) {
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    WstringToString(L"text");
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST(StringToWstring, WidensByCodePage) {
    EXPECT_EQ(StringToWstring("NX4120"), L"NX4120");
    EXPECT_EQ(StringToWstring("\xe4\x80", 1252), L"\u00e4\u20ac");
    EXPECT_EQ(StringToWstring(""), L"");
}

TEST(StringToWstring, FailureShowsTheInput) {
    EXPECT_EQ(TextOf<std::runtime_error>([] { StringToWstring("bad \xff", CP_UTF8); }),
              "Invalid ANSI-String: bad \xff");
}

TEST(GuidToString, WritesRegistryForm) {
    constexpr GUID guid = {0x042C8EDC, 0xC410, 0x4FDB, {0xA9, 0x06, 0xD3, 0xBD, 0xBD, 0x84, 0xFD, 0xF4}};
    EXPECT_EQ(GuidToString(&guid), "{042C8EDC-C410-4FDB-A906-D3BDBD84FDF4}");
}

TEST(GuidToString, OfAnythingButThirtyNineCharactersSaysSo) {
    const test_support::SystemCallsOfTest systemCalls;
    constexpr GUID guid = {};
    test_support::systemCalls.stringFromGuid2 = [](REFGUID, LPOLESTR text, int room) -> int {
        EXPECT_EQ(room, 40);
        text[0] = L'{';
        return 38;
    };
    EXPECT_EQ(GuidToString(&guid), "<INVALID GUID>");
    test_support::systemCalls.stringFromGuid2 = [](REFGUID, LPOLESTR, int) -> int { return 0; };
    EXPECT_EQ(GuidToString(&guid), "<INVALID GUID>");
}

TEST(GuidToString, OfNullSaysSo) {
    EXPECT_EQ(GuidToString(nullptr), "<NULL>");
}
