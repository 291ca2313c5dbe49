#include "quelm_orvix.h"

#include <shlobj.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "common_files_folder.h"
#include "configuration_library_location.h"
#include "exception_history.h"
#include "text_of.h"
#include "trace_recorder.h"
#include "windows_api_excp.h"

using modul_exception::CWindowsApiExcp;
using quelm::Q5orvix;
using test_support::CommonFilesFolder;
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

/// What the library that answers was asked last.
std::wstring Received() {
    wchar_t text[1024] = {};
    ::GetEnvironmentVariableW(L"Q5ORVIX_RECEIVED", text, 1024);
    return text;
}

wchar_t buffer[16];
DWORD length = 16;

/// The function that the exception history names for the last exception.
std::string LastThrowingFunction() {
    const auto& history = modul_exception::exceptionHistory;
    return history.records[(history.writeIndex + history.kCapacity - 1) % history.kCapacity].function;
}

/// The trace points that were passed, in order.
std::vector<USHORT> NumbersOf(const std::vector<test_support::TraceRecord>& records) {
    std::vector<USHORT> numbers;
    for (const auto& record : records)
        numbers.push_back(record.number);
    return numbers;
}

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

/// Calls with every code up to beyond the table's last and with the greatest ones, and compares with what is
/// accepted.
template <typename Call>
void ExpectAccepted(const std::vector<DWORD>& accepted, const std::string& prefix, Call call) {
    constexpr DWORD kBeyondTheTable = 8600;
    for (DWORD i = 0; i < kBeyondTheTable + 2; ++i) {
        const DWORD code = i < kBeyondTheTable ? i : 0xFFFFFFFF - (i - kBeyondTheTable);
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

TEST(ConfigurationLibrary, CallsBeforeLoadingAreRefusedWhateverTheirArguments) {
    Q5orvix library;
    const std::string text = "Q5Orvix-DLL not loaded!";
    EXPECT_EQ(TextOf<std::runtime_error>([&] { library.LogDeviceExists(nullptr, 0x80000000); }), text);
    EXPECT_EQ(
        TextOf<std::runtime_error>([&] { library.LogDeviceGetValue(nullptr, nullptr, nullptr, nullptr); }),
        text);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { library.LogDeviceSetNdiValue(nullptr, nullptr, nullptr); }),
              text);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { library.TemplateGetEnum(nullptr, 0, nullptr, nullptr); }),
              text);
}

TEST(ConfigurationLibrary, CallsBeforeLoadingAreFiledUnderTheOperation) {
    Q5orvix library;
    EXPECT_THROW(library.LogDeviceExists(L"d", 0), std::runtime_error);
    EXPECT_EQ(LastThrowingFunction(), "quelm::Q5orvix::LogDeviceExists");
    EXPECT_THROW(library.LogDeviceGetValue(L"d", L"p", buffer, &length), std::runtime_error);
    EXPECT_EQ(LastThrowingFunction(), "quelm::Q5orvix::LogDeviceGetValue");
    EXPECT_THROW(library.LogDeviceSetNdiValue(L"d", L"p", L"true"), std::runtime_error);
    EXPECT_EQ(LastThrowingFunction(), "quelm::Q5orvix::LogDeviceSetNdiValue");
    EXPECT_THROW(library.TemplateGetEnum(L"t", 0, buffer, &length), std::runtime_error);
    EXPECT_EQ(LastThrowingFunction(), "quelm::Q5orvix::TemplateGetEnum");
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

TEST(ConfigurationLibrary, IsLookedForAnewAtEachLoadUnlessItIsToBeLookedUpOnce) {
    const auto loads = [] {
        Q5orvix library;
        try {
            library.LoadLib();
            return true;
        } catch (const CWindowsApiExcp&) {
            return false;
        }
    };
    const std::wstring nowhere = L"C:\\no such folder";
    const ConfigurationLibraryLocation location(FaultyLibrary(L"answers_code"));
    {
        const quelm::LookUpPathOnce once;
        EXPECT_TRUE(loads());
        ConfigurationLibraryLocation::Set(nowhere);
        {
            const quelm::LookUpPathOnce twice;
            EXPECT_TRUE(loads());
        }
        EXPECT_TRUE(loads()) << "as long as one lives";
        quelm::LookUpPathOnce::Forget();
        EXPECT_FALSE(loads());
    }
    ConfigurationLibraryLocation::Set(FaultyLibrary(L"answers_code"));
    EXPECT_TRUE(loads());
    ConfigurationLibraryLocation::Set(nowhere);
    EXPECT_FALSE(loads());
    ConfigurationLibraryLocation::Set(FaultyLibrary(L"answers_code"));
    {
        const quelm::LookUpPathOnce once;
        EXPECT_TRUE(loads()) << "nothing is remembered from the last ones";
    }
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

TEST(ConfigurationLibrary, LongestPathIsTriedAndALongerOneIsReturnedWhole) {
    const ConfigurationLibraryLocation location(L"");
    {
        const CommonFilesFolder folder(CommonFilesFolder::ForPathOf(259));
        EXPECT_EQ(quelm::ConfigurationLibraryPath().length(), 259u);
        Q5orvix library;
        EXPECT_TRUE(
            TextOf<CWindowsApiExcp>([&] { library.LoadLib(); }).starts_with("FAILED! LoadLibraryW()!"));
    }
    const CommonFilesFolder folder(CommonFilesFolder::ForPathOf(260));
    EXPECT_EQ(quelm::ConfigurationLibraryPath().length(), 260u);
    EXPECT_TRUE(quelm::ConfigurationLibraryPath().ends_with(L"\\bin\\q5orvix64x.dll"));
}

TEST(ConfigurationLibraryDeathTest, OverlongPathEndsTheProcessByFastFail) {
    constexpr int kFastFail = static_cast<int>(0xC0000409);  // STATUS_STACK_BUFFER_OVERRUN, its exit status
    const ConfigurationLibraryLocation location(L"");
    const CommonFilesFolder folder(CommonFilesFolder::ForPathOf(260));
    EXPECT_EXIT(Q5orvix().LoadLib(), testing::ExitedWithCode(kFastFail), "");
}

TEST(ConfigurationLibrary, PathTellsWhereItComesFrom) {
    const ConfigurationLibraryLocation location(L"C:\\base");
    bool isRegistered = false;
    quelm::ConfigurationLibraryPath(&isRegistered);
    EXPECT_TRUE(isRegistered);
    ConfigurationLibraryLocation::Remove();
    quelm::ConfigurationLibraryPath(&isRegistered);
    EXPECT_FALSE(isRegistered);
}

TEST(ConfigurationLibrary, MissingExportIsTraced) {
    const ConfigurationLibraryLocation location(FaultyLibrary(L"missing_export"));
    Q5orvix library;
    const test_support::EnabledTracing tracing(test_support::kSharedToolsGuid, trace::kError,
                                               trace::kConfiguration);
    EXPECT_THROW(library.LoadLib(), CWindowsApiExcp);
    EXPECT_EQ(NumbersOf(test_support::TakeTraceRecords()), (std::vector<USHORT>{11}));
}

TEST_F(AnsweringLibrary, IsAskedWhatTheCallerAsks) {
    length = 16;
    Exists();
    EXPECT_EQ(Received(), L"exists NX4120.XLI.1 0");
    library_.LogDeviceExists(L"d", 12);
    EXPECT_EQ(Received(), L"exists d 12");
    GetValue();
    EXPECT_EQ(Received(), L"get NX4120.XLI.1 p 16");
    EXPECT_STREQ(buffer, L"answer");
    EXPECT_EQ(length, 6u);
    SetNdiValue();
    EXPECT_EQ(Received(), L"set NX4120.XLI.1 hidden true");
    buffer[0] = L'\0';
    length = 16;
    library_.TemplateGetEnum(L"DefaultLogDevices", 7, buffer, &length);
    EXPECT_EQ(Received(), L"enum DefaultLogDevices 7 16");
    EXPECT_STREQ(buffer, L"answer");
    EXPECT_EQ(length, 6u);
}

TEST_F(AnsweringLibrary, ThrowsAreFiledUnderTheOperation) {
    const std::wstring tooLong(257, L'p');
    EXPECT_THROW(library_.LogDeviceExists(nullptr, 0), std::invalid_argument);
    EXPECT_EQ(LastThrowingFunction(), "quelm::Q5orvix::ParameterCheck_LogDevice");
    EXPECT_THROW(library_.LogDeviceExists(L"d", 0x80000000), std::invalid_argument);
    EXPECT_EQ(LastThrowingFunction(), "quelm::Q5orvix::LogDeviceExists");
    EXPECT_THROW(library_.LogDeviceGetValue(L"d", nullptr, buffer, &length), std::invalid_argument);
    EXPECT_EQ(LastThrowingFunction(), "quelm::Q5orvix::LogDeviceGetValue");
    EXPECT_THROW(library_.LogDeviceSetNdiValue(L"d", tooLong.c_str(), L"true"), std::invalid_argument);
    EXPECT_EQ(LastThrowingFunction(), "quelm::Q5orvix::LogDeviceSetNdiValue");
    EXPECT_THROW(library_.TemplateGetEnum(nullptr, 0, buffer, &length), std::invalid_argument);
    EXPECT_EQ(LastThrowingFunction(), "quelm::Q5orvix::TemplateGetEnum");
    AnswerWith(1);
    EXPECT_THROW(Exists(), std::runtime_error);
    EXPECT_EQ(LastThrowingFunction(), "quelm::Q5orvix::LogDeviceExists");
    EXPECT_STREQ(modul_exception::exceptionHistory.records[0].file, "quelm_orvix");
}

TEST_F(AnsweringLibrary, CallIsTracedAtLevelFourAndAnUnexpectedCodeAtLevelTwo) {
    const test_support::EnabledTracing tracing(test_support::kSharedToolsGuid, trace::kInformation,
                                               trace::kConfiguration);
    AnswerWith(8012);
    Exists();
    const auto accepted = test_support::TakeTraceRecords();
    ASSERT_EQ(NumbersOf(accepted), (std::vector<USHORT>{16, 21}));
    EXPECT_EQ(accepted[1].Integer(1), 8012u);
    EXPECT_EQ(accepted[1].Text(2), "LDCF_ERR_LOG_DEVICE_NOT_EXISTS");
    AnswerWith(234);
    EXPECT_THROW(GetValue(), std::runtime_error);
    EXPECT_THROW(SetNdiValue(), std::runtime_error);
    AnswerWith(5);
    EXPECT_THROW(GetEnum(), std::runtime_error);
    EXPECT_EQ(NumbersOf(test_support::TakeTraceRecords()),
              (std::vector<USHORT>{17, 21, 22, 18, 21, 22, 19, 21, 22}));
    test_support::EnableTracing(test_support::kSharedToolsGuid, trace::kError, trace::kConfiguration, 1);
    EXPECT_THROW(GetEnum(), std::runtime_error);
    EXPECT_EQ(NumbersOf(test_support::TakeTraceRecords()), (std::vector<USHORT>{22}));
}

TEST_F(AnsweringLibrary, LoadingAndFreeingAreTraced) {
    library_.UnloadLib();
    const test_support::EnabledTracing tracing(test_support::kSharedToolsGuid, trace::kVerbose,
                                               trace::kConfiguration);
    library_.LoadLib();
    const auto loaded = test_support::TakeTraceRecords();
    ASSERT_EQ(NumbersOf(loaded), (std::vector<USHORT>{10}));
    EXPECT_EQ(loaded[0].WideText(0), quelm::ConfigurationLibraryPath());
    library_.UnloadLib();
    EXPECT_EQ(NumbersOf(test_support::TakeTraceRecords()), (std::vector<USHORT>{12}));
    library_.UnloadLib();
    EXPECT_TRUE(test_support::TakeTraceRecords().empty()) << "there is nothing to free";
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

TEST_F(AnsweringLibrary, CallsAfterUnloadingAreRefused) {
    library_.UnloadLib();
    const std::string text = "Q5Orvix-DLL not loaded!";
    EXPECT_EQ(TextOf<std::runtime_error>([&] { Exists(); }), text);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { GetValue(); }), text);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { SetNdiValue(); }), text);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { GetEnum(); }), text);
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
    EXPECT_EQ(get(nullptr, nullptr, nullptr), "Parameter == nullptr");
    EXPECT_EQ(get(tooLong.c_str(), buffer, &length), "MAX_XML_PARAM_NAME_LEN > MAX_LOG_DEVICE_NAME_LEN");
    EXPECT_EQ(get(longest.c_str(), buffer, &length), "no exception");
    EXPECT_EQ(get(L"p", nullptr, nullptr), "Value == nullptr");
    EXPECT_EQ(get(L"p", buffer, nullptr), "valueLen == nullptr");
    const auto set = [&](const wchar_t* parameter, const wchar_t* value) {
        return TextOf<std::invalid_argument>([&] { library_.LogDeviceSetNdiValue(L"d", parameter, value); });
    };
    EXPECT_EQ(set(nullptr, nullptr), "Parameter == nullptr");
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
