#include "logdevice_db.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "allocations.h"
#include "configuration_library_location.h"
#include "module_hooks.h"
#include "text_of.h"
#include "trace_point.h"
#include "trace_recorder.h"

using korvane::DefaultLogDeviceDatabaseOrvix;
using korvane::LogDeviceDatabaseOrvix;
using korvane::LogDeviceName;
using test_support::ModuleHooks;
using testing::_;
using testing::NiceMock;
using testing::Return;
using testing::StrEq;

using test_support::TextOf;

namespace {

class MockLibrary : public quelm::Q5orvixIf {
  public:
    MOCK_METHOD(void, LoadLib, (), (override));
    MOCK_METHOD(void, UnloadLib, (), (override));
    MOCK_METHOD(const char*, GetReturnCodeName, (DWORD), (const, override));
    MOCK_METHOD(DWORD, LogDeviceExists, (const wchar_t*, DWORD), (override));
    MOCK_METHOD(DWORD, LogDeviceGetValue, (const wchar_t*, const wchar_t*, wchar_t*, DWORD*), (override));
    MOCK_METHOD(DWORD, LogDeviceSetNdiValue, (const wchar_t*, const wchar_t*, const wchar_t*), (override));
    MOCK_METHOD(DWORD, TemplateGetEnum, (const wchar_t*, DWORD, wchar_t*, DWORD*), (override));
};

/// Message GUID of the file under test.
constexpr GUID kLogDeviceFile = trace::GuidFrom("b3e7a5c1-4d60-4f89-a2b8-9c1d7e0f5a0d");

class LogDevice : public testing::Test {
  protected:
    /// The library answers a read with `value`.
    void Answer(const std::wstring& value) {
        ON_CALL(library_, LogDeviceGetValue)
            .WillByDefault([value](const wchar_t*, const wchar_t*, wchar_t* buffer, DWORD* length) {
                std::ranges::copy(value, buffer);
                *length = static_cast<DWORD>(value.length());
                return 0;
            });
    }

    NiceMock<MockLibrary>& library_ = *new NiceMock<MockLibrary>;
    LogDeviceDatabaseOrvix logDevice_{std::unique_ptr<quelm::Q5orvixIf>(&library_),
                                      std::make_shared<LogDeviceName>("NX4120(XLI)")};
};

class DefaultLogDevices : public testing::Test {
  protected:
    void Answer(const std::vector<std::wstring>& entries, DWORD endCode = 259) {
        ON_CALL(library_, TemplateGetEnum)
            .WillByDefault([=](const wchar_t* type, DWORD index, wchar_t* buffer, DWORD* length) -> DWORD {
                EXPECT_STREQ(type, L"DefaultLogDevices");
                EXPECT_EQ(*length, 256u);
                if (index >= entries.size()) return endCode;
                std::ranges::copy(entries[index], buffer);
                *length = static_cast<DWORD>(entries[index].length());
                return 0;
            });
    }

    NiceMock<MockLibrary>& library_ = *new NiceMock<MockLibrary>;
    DefaultLogDeviceDatabaseOrvix logDevices_{std::unique_ptr<quelm::Q5orvixIf>(&library_)};
};

}  // namespace

TEST(LogDeviceName, LengthLimits) {
    EXPECT_EQ(TextOf<std::invalid_argument>([] { LogDeviceName(""); }), "LogDeviceName is empty!");
    EXPECT_EQ(TextOf<std::invalid_argument>([] { LogDeviceName(std::string(128, 'a')); }),
              "LogDeviceName is >= 128 !");
    EXPECT_EQ(LogDeviceName(std::string(127, 'a')).GetLogNameA(), std::string(127, 'a'));
}

TEST(LogDeviceName, ClassicNameIsTrimmedAndUpperCased) {
    const LogDeviceName name("  fennlink u3(xli)  ");
    EXPECT_EQ(name.GetLogNameClassicA(), "FENNLINK U3(XLI)");
    EXPECT_EQ(name.GetLogNameA(), "FENNLINK U3.XLI.1");
    EXPECT_EQ(name.GetLogName(), L"FENNLINK U3.XLI.1");
    EXPECT_EQ(name.GetLogNameClassic(), L"FENNLINK U3(XLI)");
}

TEST(LogDeviceName, SlashesAreCut) {
    EXPECT_EQ(LogDeviceName("/NX4120(XLI)/").GetLogNameClassicA(), "NX4120(XLI)");
    EXPECT_EQ(LogDeviceName("NX4120(XLI)/ABC").GetLogNameClassicA(), "NX4120(XLI)");
}

TEST(LogDeviceName, OnlyLettersOfTheAlphabetAreUpperCased) {
    std::string given;
    for (int c = 1; c < 128; ++c)
        if (c != '/' && c != '\n' && c != '\r' && c != '(' && c != ')') given += static_cast<char>(c);
    std::string expected;
    for (const char c : given)
        expected += c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    EXPECT_EQ(LogDeviceName(given + "()").GetLogNameClassicA(), expected + "()");
    given.clear();
    for (int c = 128; c < 253; ++c)
        given += static_cast<char>(c);
    EXPECT_EQ(LogDeviceName(given + "()").GetLogNameClassicA(), given + "()") << "bytes from 0x80 up";
    EXPECT_EQ(LogDeviceName("\xFC\xFF()").GetLogNameClassicA(), "\xFC\xFF()");
}

TEST(LogDeviceName, EachByteIsWidenedToTheCharacterOfItsNumber) {
    EXPECT_EQ(LogDeviceName("\xE4\x80(\xFF)").GetLogName(), L"\x00E4\x0080.\x00FF.1");
}

TEST(LogDeviceName, OnlyBlanksAreTrimmed) {
    EXPECT_EQ(LogDeviceName(" \tA(B)").GetLogNameClassicA(), "\tA(B)");
    EXPECT_EQ(LogDeviceName("\v\f\xA0 A(B)  ").GetLogNameClassicA(), "\v\f\xA0 A(B)");
    EXPECT_EQ(LogDeviceName("A(B)\t").GetLogNameClassicA(), "A(B)\t") << "kept, and so of unknown format";
    EXPECT_EQ(LogDeviceName("a (b )").GetLogNameClassicA(), "A (B )") << "blanks inside stay";
}

TEST(LogDeviceName, OneLeadingSlashIsDroppedAndEverythingFromTheLastOneOn) {
    EXPECT_EQ(LogDeviceName("//A(B)/").GetLogNameClassicA(), "/A(B)");
    EXPECT_EQ(LogDeviceName("//A(B)").GetLogNameClassicA(), "//A(B)") << "nothing is left: unknown, kept";
    EXPECT_EQ(LogDeviceName("A(B)/C(D)/E(F)").GetLogNameClassicA(), "A(B)/C(D)");
    EXPECT_EQ(LogDeviceName("A(B)//").GetLogNameClassicA(), "A(B)//") << "A(B)/ is of unknown format";
}

TEST(LogDeviceName, BlanksAreTrimmedBeforeSlashesAreLookedFor) {
    EXPECT_EQ(LogDeviceName("  /a(b)").GetLogNameClassicA(), "A(B)");
    EXPECT_EQ(LogDeviceName("/  a(b)").GetLogNameClassicA(), "  A(B)") << "not trimmed again";
    EXPECT_EQ(LogDeviceName("a.b.1 /x").GetLogNameA(), "a.b.1 /x") << "a blank before the slash stays";
}

TEST(LogDeviceName, LengthIsThatOfTheNameAsGiven) {
    const std::string given = std::string(124, ' ') + "A(B)";
    ASSERT_EQ(given.length(), 128u);
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { LogDeviceName{given}; }), "LogDeviceName is >= 128 !");
    EXPECT_EQ(LogDeviceName(given.substr(1)).GetLogNameClassicA(), "A(B)");
    EXPECT_EQ(LogDeviceName("   ").GetLogNameA(), "   ") << "blanks alone are no empty name";
}

TEST(LogDeviceName, CasesAreTraced) {
    const test_support::EnabledTracing tracing(test_support::kSharedToolsGuid, trace::kVerbose,
                                               trace::kConfiguration);
    const auto numbersFor = [](const char* name) {
        const LogDeviceName made(name);
        return test_support::TakeTraceNumbers();
    };
    EXPECT_EQ(numbersFor("LDCF_TEMP_LOG_DEVICE____1"), (std::vector<USHORT>{14, 10}));
    EXPECT_EQ(numbersFor("A(B)"), (std::vector<USHORT>{14, 11}));
    EXPECT_EQ(numbersFor("A.B.1"), (std::vector<USHORT>{14, 12}));
    EXPECT_EQ(numbersFor("A"), (std::vector<USHORT>{14, 13}));
}

TEST(LogDeviceName, ConversionIsTracedAtLevelFourAndABadTemporaryNameAtLevelTwo) {
    const test_support::EnabledTracing tracing(test_support::kSharedToolsGuid, trace::kInformation,
                                               trace::kConfiguration);
    const LogDeviceName name("A(B)");
    EXPECT_EQ(name.GetLogNameA(), "A.B.1");
    EXPECT_EQ(test_support::TakeTraceNumbers(), (std::vector<USHORT>{16}));
    test_support::EnableTracing(test_support::kSharedToolsGuid, trace::kError, trace::kConfiguration, 1);
    EXPECT_THROW(LogDeviceName("LDCF_TEMP_LOG_DEVICE_1"), std::invalid_argument);
    EXPECT_EQ(test_support::TakeTraceNumbers(), (std::vector<USHORT>{15}));
}

TEST(LogDeviceName, NewNameHasNoWayBack) {
    const LogDeviceName name("NX4120.XLI.1");
    EXPECT_EQ(name.GetLogNameA(), "NX4120.XLI.1");
    const std::string text =
        "LogDevice Name is neither classic format e.g. NX4120(Xli) nor temporary e.g. "
        "LDCF_TEMP_LOG_DEVICE____!";
    EXPECT_EQ(TextOf<std::runtime_error>([&] { name.GetLogNameClassicA(); }), text);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { name.GetLogNameClassic(); }), text);
}

TEST(LogDeviceName, UnknownFormatIsKeptAsGiven) {
    for (const std::string given : {"NX4120.XLI.12", "NX4120.XLI", "  plain name "}) {
        const LogDeviceName name(given);
        EXPECT_EQ(name.GetLogNameA(), given);
        EXPECT_EQ(name.GetLogNameClassicA(), given);
    }
}

TEST(LogDeviceName, TemporaryNames) {
    EXPECT_EQ(LogDeviceName("LDCF_TEMP_LOG_DEVICE____").GetLogNameA(), "LDCF_TEMP_LOG_DEVICE____");
    EXPECT_EQ(LogDeviceName("ldcf_temp_log_device____17").GetLogNameClassicA(), "LDCF_TEMP_LOG_DEVICE____17");
    for (const std::string given :
         {"LDCF_TEMP_LOG_DEVICE", "LDCF_TEMP_LOG_DEVICEX", "LDCF_TEMP_LOG_DEVICE___1",
          "LDCF_TEMP_LOG_DEVICE____X", "LDCF_TEMP_LOG_DEVICE_____1"}) {
        EXPECT_EQ(TextOf<std::invalid_argument>([&] { LogDeviceName{given}; }),
                  "Invalid temporary LogDevName")
            << given;
    }
}

TEST(LogDeviceName, ClassicComesBeforeNew) {
    EXPECT_EQ(LogDeviceName("A.B(C)").GetLogNameA(), "A.B.C.1");
}

TEST(LogDeviceName, EarlierParenthesisOverwritesWhatFollowsIt) {
    EXPECT_EQ(LogDeviceName("A(B)C(D)").GetLogNameA(), "A.B.1(D)");
}

TEST_F(LogDevice, LoadsItsOwnLibrary) {
    auto library = std::make_unique<MockLibrary>();
    EXPECT_CALL(*library, LoadLib());
    const LogDeviceDatabaseOrvix logDevice(std::move(library), std::make_shared<LogDeviceName>("A(B)"));
}

TEST_F(LogDevice, ReadsAParameterByItsNewName) {
    EXPECT_CALL(library_, LogDeviceGetValue(StrEq(L"NX4120.XLI.1"), StrEq(L"station"), _, _))
        .WillOnce([](const wchar_t*, const wchar_t*, wchar_t* buffer, DWORD* length) {
            EXPECT_EQ(*length, 516u);
            buffer[0] = L'7';
            *length = 1;
            return 0;
        });
    EXPECT_EQ(logDevice_.ReadStringParameter(L"station"), L"7");
}

TEST_F(LogDevice, EmptyParameterNameIsRefused) {
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { logDevice_.ReadStringParameter(L""); }),
              "ParameterName is EMPTY");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { logDevice_.EnableFlagNdi(L""); }),
              "ParameterName is EMPTY");
}

TEST_F(LogDevice, UnknownLogDeviceCannotBeRead) {
    ON_CALL(library_, LogDeviceExists).WillByDefault(Return(8012));
    ON_CALL(library_, LogDeviceGetValue).WillByDefault(Return(8012));
    EXPECT_FALSE(logDevice_.Exists());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { logDevice_.ReadStringParameter(L"p"); }),
              "LogDeviceGetValue() FAILED!");
}

TEST_F(LogDevice, LongestValueIsReadWhole) {
    Answer(std::wstring(515, L'v'));
    EXPECT_EQ(logDevice_.ReadStringParameter(L"p"), std::wstring(515, L'v'));
}

TEST_F(LogDevice, LongerValueIsAssertedAndStillReturned) {
    const ModuleHooks hooks;
    Answer(std::wstring(516, L'v'));
    EXPECT_EQ(logDevice_.ReadStringParameter(L"p"), std::wstring(516, L'v'));
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"!\"LogDeviceGetValue() HEAP-Corruption!\""}));
}

TEST_F(LogDevice, OverlongReturnedLengthIsAsserted) {
    const ModuleHooks hooks;
    ON_CALL(library_, LogDeviceGetValue).WillByDefault([](auto, auto, wchar_t*, DWORD* length) {
        *length = 520;
        return 0;
    });
    EXPECT_EQ(logDevice_.ReadStringParameterNdi(L"p"), L"");
    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"tmpBufLen < tmpBufLenOrg"}));
}

TEST_F(LogDevice, NumbersAreReadInBaseTen) {
    Answer(L"  042x");
    EXPECT_EQ(logDevice_.ReadParameter(L"p"), 42u);
    Answer(L"4294967295");
    EXPECT_EQ(logDevice_.ReadParameterNdi(L"p"), 4294967295u);
    Answer(L"4294967296");
    EXPECT_EQ(TextOf<std::out_of_range>([&] { logDevice_.ReadParameter(L"p"); }),
              "stoul argument out of range");
    Answer(L"x1");
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { logDevice_.ReadParameter(L"p"); }),
              "invalid stoul argument");
}

TEST_F(LogDevice, FlagsAreWrittenByTheNewName) {
    EXPECT_CALL(library_, LogDeviceSetNdiValue(StrEq(L"NX4120.XLI.1"), StrEq(L"hidden"), StrEq(L"true")));
    logDevice_.EnableFlagNdi(L"hidden");
    EXPECT_CALL(library_, LogDeviceSetNdiValue(StrEq(L"NX4120.XLI.1"), StrEq(L"hidden"), StrEq(L"false")));
    logDevice_.DisableFlagNdi(L"hidden");
}

TEST_F(LogDevice, FlagNameLimits) {
    EXPECT_CALL(library_, LogDeviceSetNdiValue).Times(1);
    logDevice_.EnableFlagNdi(std::wstring(260, L'f'));
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { logDevice_.EnableFlagNdi(std::wstring(261, L'f')); }),
              "ParameterName is > MAX_PATH");
}

TEST_F(LogDevice, FailedWriteIsReportedAndTheObjectStaysUsable) {
    EXPECT_CALL(library_, LogDeviceSetNdiValue).WillOnce(Return(8508)).WillOnce(Return(0));
    EXPECT_EQ(TextOf<std::runtime_error>([&] { logDevice_.EnableFlagNdi(L"hidden"); }),
              "LogDeviceSetNdiValue() FAILED!");
    EXPECT_NO_THROW(logDevice_.EnableFlagNdi(L"hidden"));
}

TEST_F(LogDevice, ExistsOnlyForCodeZero) {
    EXPECT_CALL(library_, LogDeviceExists(StrEq(L"NX4120.XLI.1"), 0u))
        .WillOnce(Return(0))
        .WillOnce(Return(8012))
        .WillOnce(Return(8503))
        .WillOnce(Return(5))
        .WillOnce(Return(87));
    EXPECT_TRUE(logDevice_.Exists());
    for (int i = 0; i < 4; ++i)
        EXPECT_FALSE(logDevice_.Exists());
}

TEST_F(LogDevice, OtherCodesThanThoseOfAMissingLogDeviceAreTracedWithTheirNames) {
    quelm::Q5orvix names;
    ON_CALL(library_, GetReturnCodeName).WillByDefault([&names](DWORD code) {
        return names.GetReturnCodeName(code);
    });
    EXPECT_CALL(library_, LogDeviceExists)
        .WillOnce(Return(0))
        .WillOnce(Return(8012))
        .WillOnce(Return(8503))
        .WillOnce(Return(5))
        .WillOnce(Return(87));
    const test_support::EnabledTracing tracing(test_support::kSharedToolsGuid, trace::kError,
                                               trace::kConfiguration);
    for (int i = 0; i < 5; ++i)
        logDevice_.Exists();
    const auto records = test_support::TakeTraceRecords();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].Text(1), "LDCF_ACCESS_DENIED");
    EXPECT_EQ(records[1].Text(1), "LDCF_ERR_INVALID_PARAMETERS");
}

TEST_F(LogDevice, FailedReadAndWriteAreTracedAtLevelTwo) {
    ON_CALL(library_, LogDeviceGetValue).WillByDefault(Return(8040));
    ON_CALL(library_, LogDeviceSetNdiValue).WillByDefault(Return(8044));
    const test_support::EnabledTracing tracing(test_support::kSharedToolsGuid, trace::kError,
                                               trace::kConfiguration);
    EXPECT_THROW(logDevice_.ReadStringParameter(L"p"), std::runtime_error);
    EXPECT_THROW(logDevice_.EnableFlagNdi(L"p"), std::runtime_error);
    EXPECT_EQ(test_support::TakeTraceNumbers(), (std::vector<USHORT>{17, 18}));
}

TEST_F(LogDevice, ExceptionsOfTheLibraryPassUnchanged) {
    ON_CALL(library_, LogDeviceExists).WillByDefault(testing::Throw(std::runtime_error("of the library")));
    EXPECT_EQ(TextOf<std::runtime_error>([&] { logDevice_.Exists(); }), "of the library");
}

TEST(LogDeviceFactory, OpensTheLibraryOfItsOwnAndNamesTheKeyOfTheLogDevices) {
    const test_support::ConfigurationLibraryLocation location(test_support::FaultyLibrary(L"answers_code"));
    ::SetEnvironmentVariableW(L"Q5ORVIX_ANSWER", L"0");
    const test_support::EnabledTracing tracing(test_support::kSharedToolsGuid, trace::kVerbose,
                                               trace::kConfiguration);
    {
        const auto logDevice = korvane::LogDeviceDatabaseFactory().create_from_log_device("nx4120(xli)");
        EXPECT_NE(::GetModuleHandleW(L"q5orvix64x.dll"), nullptr);
        EXPECT_TRUE(logDevice->Exists());
    }
    EXPECT_EQ(::GetModuleHandleW(L"q5orvix64x.dll"), nullptr);
    std::wstring key;
    for (const auto& record : test_support::TakeTraceRecords())
        if (IsEqualGUID(record.messageGuid, kLogDeviceFile) && record.number == 21) key = record.WideText(1);
    EXPECT_EQ(key, L"SOFTWARE\\VALDORN\\TORUX\\LogDevices");
}

TEST(LogDeviceFactory, RefusesANameBeforeItLoadsTheLibrary) {
    const test_support::ConfigurationLibraryLocation location(L"C:\\no such folder");
    EXPECT_EQ(TextOf<std::invalid_argument>(
                  [] { korvane::LogDeviceDatabaseFactory().create_from_log_device(std::string()); }),
              "LogDeviceName is empty!");
}

TEST_F(DefaultLogDevices, AreListedInClassicSpelling) {
    Answer({L"/0/LDT-Fennlink U3.xli", L"no such entry", L"LDT-no dot", L"LDT-a.LDT-NX4120.Profibus"});
    EXPECT_EQ(logDevices_.Installed(), (std::vector<std::string>{"Fennlink U3(XLI)", "NX4120(PROFIBUS)"}));
}

TEST_F(DefaultLogDevices, EndAtOnceYieldsAnEmptyList) {
    Answer({});
    EXPECT_TRUE(logDevices_.Installed().empty());
}

TEST_F(DefaultLogDevices, OverlongEntryEndsTheList) {
    Answer({L"LDT-A.b"}, 234);
    EXPECT_EQ(logDevices_.Installed(), (std::vector<std::string>{"A(B)"}));
}

TEST_F(DefaultLogDevices, EntryIsCutToTheReturnedLength) {
    const std::vector<std::pair<std::wstring, DWORD>> entries = {
        {L"LDT-A.bcd", 7}, {L"LDT-E.f", 256}, {L"LDT-G.h", 257}, {L"LDT-I.j", 0xFFFFFFFF}, {L"LDT-K.l", 0}};
    ON_CALL(library_, TemplateGetEnum)
        .WillByDefault([&](const wchar_t*, DWORD index, wchar_t* buffer, DWORD* length) -> DWORD {
            if (index >= entries.size()) return 259;
            std::ranges::copy(entries[index].first, buffer);
            *length = entries[index].second;
            return 0;
        });
    const test_support::EnabledTracing tracing(test_support::kSharedToolsGuid, trace::kWarning,
                                               trace::kConfiguration);
    test_support::TakeAllocations();
    EXPECT_EQ(logDevices_.Installed(), (std::vector<std::string>{"A(B)", "E(F)", "G(H)", "I(J)"}));
    EXPECT_LT(test_support::TakeAllocations().largest, 65536u) << "what the library claims is not allocated";
    EXPECT_EQ(test_support::TakeTraceNumbers(), (std::vector<USHORT>{22, 22})) << "more than the buffer";
}

TEST_F(DefaultLogDevices, EntryMayFillTheBufferWithoutAZero) {
    const std::wstring entry = L"LDT-" + std::wstring(250, L'a') + L".b";
    ASSERT_EQ(entry.length(), 256u);
    Answer({entry});
    EXPECT_EQ(logDevices_.Installed(), (std::vector<std::string>{std::string(250, 'a') + "(B)"}));
}

TEST_F(DefaultLogDevices, EntryEndsAtItsZero) {
    Answer({std::wstring(L"LDT-A.b\0c", 9)});
    EXPECT_EQ(logDevices_.Installed(), (std::vector<std::string>{"A(B)"}));
}

TEST_F(DefaultLogDevices, OnlyTheKindIsUpperCasedAndMayBeEmpty) {
    Answer({L"LDT-a.b.c.d", L"LDT-.", L"x.LDT-y", L"LDT-LDT-z.LDT.q", L"ldt-a.b"});
    EXPECT_EQ(logDevices_.Installed(), (std::vector<std::string>{"a.b.c(D)", "()", "z.LDT(Q)"}));
}

TEST_F(DefaultLogDevices, TemplateThatNeverEndsIsLeftAfterTenThousandEntries) {
    DWORD last = 0;
    ON_CALL(library_, TemplateGetEnum)
        .WillByDefault([&last](const wchar_t*, DWORD index, wchar_t* buffer, DWORD* length) -> DWORD {
            last = index;
            std::ranges::copy(std::wstring_view(L"LDT-A.b"), buffer);
            *length = 7;
            return 0;
        });
    const test_support::EnabledTracing tracing(test_support::kSharedToolsGuid, trace::kWarning,
                                               trace::kConfiguration);
    EXPECT_EQ(logDevices_.Installed().size(), 10000u);
    EXPECT_EQ(last, 9999u);
    EXPECT_EQ(test_support::TakeTraceNumbers(), (std::vector<USHORT>{23}));
}

TEST_F(DefaultLogDevices, EndIsTracedWithTheCountAndAnEntryThatDoesNotFitIsNot) {
    Answer({L"LDT-A.b", L"x"});
    const test_support::EnabledTracing tracing(test_support::kSharedToolsGuid, trace::kInformation,
                                               trace::kConfiguration);
    logDevices_.Installed();
    const auto records = test_support::TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].Integer(0), 2u);
    Answer({}, 234);
    logDevices_.Installed();
    EXPECT_TRUE(test_support::TakeTraceRecords().empty());
}

TEST(DefaultLogDevicesFactory, LoadsTheLibrary) {
    const test_support::ConfigurationLibraryLocation location(test_support::FaultyLibrary(L"answers_code"));
    ::SetEnvironmentVariableW(L"Q5ORVIX_ANSWER", L"259");
    const auto logDevices = korvane::DefaultLogDeviceDatabaseIf::Create();
    EXPECT_NE(::GetModuleHandleW(L"q5orvix64x.dll"), nullptr);
    EXPECT_TRUE(logDevices->Installed().empty());
}
