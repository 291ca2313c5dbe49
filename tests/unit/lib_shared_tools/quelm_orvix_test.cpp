#include "quelm_orvix.h"

#include <shlobj.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "configuration_library_location.h"
#include "module_hooks.h"
#include "text_of.h"
#include "windows_api_excp.h"

using modul_exception::CWindowsApiExcp;
using quelm::Q5orvix;
using test_support::ConfigurationLibraryLocation;
using test_support::FaultyLibrary;

using test_support::TextOf;

namespace {

bool LibraryIsLoaded() {
    return ::GetModuleHandleW(L"q5orvix64x.dll") != nullptr;
}

void AnswerWith(DWORD code) {
    ::SetEnvironmentVariableW(L"Q5ORVIX_ANSWER", std::to_wstring(code).c_str());
}

wchar_t buffer[16];
DWORD length = 16;

/// A library that answers with what a test tells it to.
class AnsweringLibrary : public testing::Test {
  protected:
    AnsweringLibrary() {
        AnswerWith(0);
        library_.LoadLib();
    }

    DWORD Exists() { return library_.LogDeviceExists(L"NX4120.XLI.1", 0); }
    DWORD GetValue() { return library_.LogDeviceGetValue(L"NX4120.XLI.1", L"p", buffer, &length); }
    DWORD SetNdiValue() { return library_.LogDeviceSetNdiValue(L"NX4120.XLI.1", L"hidden", L"true"); }
    DWORD GetEnum() { return library_.TemplateGetEnum(L"DefaultLogDevices", 0, buffer, &length); }

    ConfigurationLibraryLocation location_{FaultyLibrary(L"answers_code")};
    Q5orvix library_;
};

/// Every code of the table, and some that are not in it.
const std::vector<DWORD> kCodes = {0,    1,    5,    87,   234,  259,  8012,
                                   8040, 8042, 8044, 8046, 8503, 8508, 4294967295};

/// Calls with every code and compares with what is accepted.
template <typename Call>
void ExpectAccepted(const std::vector<DWORD>& accepted, const std::string& prefix, Call call) {
    for (const DWORD code : kCodes) {
        AnswerWith(code);
        if (std::ranges::find(accepted, code) != accepted.end())
            EXPECT_EQ(call(), code);
        else
            EXPECT_EQ(TextOf<std::runtime_error>(call), prefix + std::to_string(code));
    }
}

}  // namespace

TEST(ConfigurationLibrary, CallsBeforeLoadingAreRefused) {
    Q5orvix library;
    const std::string text = "Q5Orvix-DLL not loaded!";
    EXPECT_EQ(TextOf<std::runtime_error>([&] { library.LogDeviceExists(L"d", 0); }), text);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { library.LogDeviceGetValue(L"d", L"p", buffer, &length); }),
              text);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { library.LogDeviceSetNdiValue(L"d", L"p", L"true"); }), text);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { library.TemplateGetEnum(L"t", 0, buffer, &length); }), text);
    library.UnloadLib();  // harmless
}

TEST(ConfigurationLibrary, MissingFileIsAFailedCall) {
    const ConfigurationLibraryLocation location(L"C:\\no such folder");
    Q5orvix library;
    const std::string text = TextOf<CWindowsApiExcp>([&] { library.LoadLib(); });
    EXPECT_TRUE(text.starts_with("FAILED! LoadLibraryW()! LE(")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: q5orvix64x.dll\n")) << text;
}

TEST(ConfigurationLibrary, MissingExportLeavesItUnloaded) {
    const ConfigurationLibraryLocation location(FaultyLibrary(L"missing_export"));
    Q5orvix library;
    const std::string text = TextOf<CWindowsApiExcp>([&] { library.LoadLib(); });
    EXPECT_TRUE(text.starts_with("FAILED! GetProcAddress()! LE(127): ")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: TemplateGetEnum\n")) << text;
    EXPECT_FALSE(LibraryIsLoaded());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { library.LogDeviceExists(L"d", 0); }),
              "Q5Orvix-DLL not loaded!");
}

TEST(ConfigurationLibrary, IsLookedForInTheRegisteredFolder) {
    const ConfigurationLibraryLocation location(L"C:\\base");
    EXPECT_EQ(quelm::ConfigurationLibraryPath(), L"C:\\base\\bin\\q5orvix64x.dll");
}

TEST(ConfigurationLibrary, IsLookedForInTheCommonFolderOtherwise) {
    const ConfigurationLibraryLocation location(L"");
    wchar_t common[MAX_PATH] = {};
    ASSERT_TRUE(::SHGetSpecialFolderPathW(nullptr, common, CSIDL_PROGRAM_FILES_COMMON, FALSE));
    const std::wstring expected =
        std::wstring(common) + L"\\Valdorn\\Automation\\Korvane OAM\\bin\\q5orvix64x.dll";
    EXPECT_EQ(quelm::ConfigurationLibraryPath(), expected) << "an empty folder counts as none";
    ConfigurationLibraryLocation::Remove();
    EXPECT_EQ(quelm::ConfigurationLibraryPath(), expected);
    const std::wstring longest = L"C:\\" + std::wstring(125, L'f');  // 258 bytes with its end
    ConfigurationLibraryLocation::Set(longest);
    EXPECT_EQ(quelm::ConfigurationLibraryPath(), longest + L"\\bin\\q5orvix64x.dll");
    ConfigurationLibraryLocation::Set(longest + L"f");
    EXPECT_EQ(quelm::ConfigurationLibraryPath(), expected) << "what does not fit into 259 bytes is not read";
}

TEST_F(AnsweringLibrary, SecondLoadIsRefused) {
    EXPECT_EQ(TextOf<std::runtime_error>([&] { library_.LoadLib(); }),
              "Sequence! Q5orvix-DLL already loaded");
}

TEST_F(AnsweringLibrary, IsFreedByUnloadAndByDestruction) {
    EXPECT_TRUE(LibraryIsLoaded());
    library_.UnloadLib();
    EXPECT_FALSE(LibraryIsLoaded());
    {
        Q5orvix other;
        other.LoadLib();
        EXPECT_TRUE(LibraryIsLoaded());
    }
    EXPECT_FALSE(LibraryIsLoaded());
    library_.LoadLib();  // can be loaded again
}

TEST_F(AnsweringLibrary, LogDeviceNameLimits) {
    EXPECT_EQ(library_.LogDeviceExists(std::wstring(128, L'n').c_str(), 0), 0u);
    const std::wstring tooLong(129, L'n');
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { library_.LogDeviceExists(tooLong.c_str(), 0); }),
              "LogDevice > MAX_LOG_DEVICE_NAME_LEN");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { library_.LogDeviceExists(nullptr, 0); }),
              "LogDevice == nullptr");
    EXPECT_EQ(TextOf<std::invalid_argument>(
                  [&] { library_.LogDeviceGetValue(tooLong.c_str(), nullptr, nullptr, nullptr); }),
              "LogDevice > MAX_LOG_DEVICE_NAME_LEN");
}

TEST_F(AnsweringLibrary, FlagsAreRefusedByTheirTopBitOnly) {
    EXPECT_EQ(library_.LogDeviceExists(L"d", 13), 0u);
    EXPECT_EQ(library_.LogDeviceExists(L"d", 0x7FFFFFFF), 0u);
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { library_.LogDeviceExists(L"d", 0x80000000); }),
              "Invalid Bitmask dwflag [0..12]");
}

TEST_F(AnsweringLibrary, ParametersAreChecked) {
    const std::wstring tooLong(257, L'p');
    const std::wstring longest(256, L'p');
    const auto get = [&](const wchar_t* parameter, wchar_t* value, DWORD* valueLength) {
        return TextOf<std::invalid_argument>(
            [&] { library_.LogDeviceGetValue(L"d", parameter, value, valueLength); });
    };
    EXPECT_EQ(get(nullptr, buffer, &length), "Parameter == nullptr");
    EXPECT_EQ(get(tooLong.c_str(), buffer, &length), "MAX_XML_PARAM_NAME_LEN > MAX_LOG_DEVICE_NAME_LEN");
    EXPECT_EQ(get(longest.c_str(), buffer, &length), "no exception");
    EXPECT_EQ(get(L"p", nullptr, nullptr), "Value == nullptr");
    EXPECT_EQ(get(L"p", buffer, nullptr), "valueLen == nullptr");
    const auto set = [&](const wchar_t* parameter, const wchar_t* value) {
        return TextOf<std::invalid_argument>([&] { library_.LogDeviceSetNdiValue(L"d", parameter, value); });
    };
    EXPECT_EQ(set(nullptr, L"true"), "Parameter == nullptr");
    EXPECT_EQ(set(tooLong.c_str(), L"true"), "MAX_XML_PARAM_NAME_LEN > MAX_LOG_DEVICE_NAME_LEN");
    EXPECT_EQ(set(L"p", nullptr), "Value == nullptr");
}

TEST_F(AnsweringLibrary, TemplateParametersAreChecked) {
    DWORD zero = 0;
    const auto textOf = [&](const wchar_t* type, wchar_t* name, DWORD* nameLength) {
        return TextOf<std::invalid_argument>([&] { library_.TemplateGetEnum(type, 0, name, nameLength); });
    };
    EXPECT_EQ(textOf(nullptr, nullptr, nullptr), "Parameter lpszTemplateType is NULL!");
    EXPECT_EQ(textOf(L"t", nullptr, nullptr), "Parameter lpszTemplate is NULL!");
    EXPECT_EQ(textOf(L"t", buffer, nullptr), "Parameter pcbTemplateLenName is NULL!");
    EXPECT_EQ(textOf(L"t", buffer, &zero), "Parameter *pcbTemplateLenName is 0!");
    EXPECT_EQ(textOf(L"defaultlogdevices", buffer, &length), "Only template DefaultLogDevices supported!");
}

TEST_F(AnsweringLibrary, EveryCallReturnsItsOwnCodesAndRefusesTheOthers) {
    ExpectAccepted({0, 5, 87, 8012, 8503}, "LogDeviceExists() -> Unexpected ReturnCode! ",
                   [&] { return Exists(); });
    ExpectAccepted({0, 87, 8012, 8040, 8042, 8044, 8046}, "LogDeviceGetValue() -> Unexpected ReturnCode! ",
                   [&] { return GetValue(); });
    ExpectAccepted({0, 87, 8012, 8040, 8042, 8044, 8046, 8508},
                   "LogDeviceSetNdiValue() -> Unexpected ReturnCode! ", [&] { return SetNdiValue(); });
    ExpectAccepted({0, 234, 259}, "TemplateGetEnum() -> Unexpected ReturnCode! ", [&] { return GetEnum(); });
}

TEST(ConfigurationLibrary, ReturnCodesHaveNames) {
    const Q5orvix library;
    const std::map<DWORD, std::string> names = {{0, "LDCF_OK"},
                                                {5, "LDCF_ACCESS_DENIED"},
                                                {87, "LDCF_ERR_INVALID_PARAMETERS"},
                                                {234, "LDCF_ERR_BUFFER_TOO_SHORT"},
                                                {259, "LDCF_ERR_NO_MORE_ITEMS"},
                                                {8012, "LDCF_ERR_LOG_DEVICE_NOT_EXISTS"},
                                                {8040, "LDCF_ERR_PARAMETER_NOT_EXISTS"},
                                                {8042, "LDCF_ERR_PARAMETER_LINK_NOT_FOUND"},
                                                {8044, "LDCF_ERR_PARAMETER_DESC_NOT_FOUND"},
                                                {8046, "LDCF_ERR_PARAMETER_DEFAULT_NOT_FOUND"},
                                                {8503, "LDCF_ERR_XML_FILE_NOT_EXISTS"},
                                                {8508, "!! UNKNOWN LDCF_ERROR CODE !!"}};
    for (const auto& [code, name] : names)
        EXPECT_EQ(library.GetReturnCodeName(code), name);
}
