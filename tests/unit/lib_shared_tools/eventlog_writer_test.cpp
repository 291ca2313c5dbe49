#include "eventlog_writer.h"

#include <algorithm>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "module_hooks.h"
#include "trace_recorder.h"

using logger::EventLogProvider;
using logger::EventLogWriter;
using testing::_;
using testing::DoAll;
using testing::InSequence;
using testing::NiceMock;
using testing::Return;
using testing::SetArgPointee;
using testing::StrEq;

namespace {

class MockAdvapi32 : public windows_api::Advapi32 {
  public:
    MOCK_METHOD(LSTATUS, RegCreateKeyExW,
                (HKEY, const wchar_t*, DWORD, wchar_t*, DWORD, REGSAM, SECURITY_ATTRIBUTES*, HKEY*, DWORD*),
                (override));
    MOCK_METHOD(LSTATUS, RegSetValueExW, (HKEY, const wchar_t*, DWORD, DWORD, const BYTE*, DWORD),
                (override));
    MOCK_METHOD(LSTATUS, RegCloseKey, (HKEY), (override));
    MOCK_METHOD(HANDLE, RegisterEventSourceW, (const wchar_t*, const wchar_t*), (override));
    MOCK_METHOD(BOOL, DeregisterEventSource, (HANDLE), (override));
    MOCK_METHOD(BOOL, ReportEventW, (HANDLE, WORD, WORD, DWORD, void*, WORD, DWORD, const wchar_t**, void*),
                (override));
};

const auto kKey = reinterpret_cast<HKEY>(0x11);
const auto kSource = reinterpret_cast<HANDLE>(0x22);

class Provider : public testing::Test {
  protected:
    Provider() {
        ON_CALL(advapi32_, RegCreateKeyExW)
            .WillByDefault(DoAll(SetArgPointee<7>(kKey), Return(ERROR_SUCCESS)));
        ON_CALL(advapi32_, RegisterEventSourceW).WillByDefault(Return(kSource));
        ON_CALL(advapi32_, DeregisterEventSource).WillByDefault(Return(TRUE));
    }
    NiceMock<MockAdvapi32>& advapi32_ = *new NiceMock<MockAdvapi32>;
    EventLogProvider provider_{L"Source", L"C:\\file.dll",
                               std::unique_ptr<windows_api::Advapi32>(&advapi32_)};
};

std::string TextOf(const std::wstring& name, const std::wstring& file) {
    try {
        const EventLogProvider provider(name, file);
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "accepted";
}

/// Records what is reported.
class FakeProvider : public EventLogProvider {
  public:
    FakeProvider() : EventLogProvider(L"Source", L"file") {}
    void Report(WORD type, WORD category, DWORD eventId, WORD numberOfStrings, const wchar_t** strings,
                DWORD dataSize, void* data) override {
        reportedType = type;
        reportedId = eventId;
        EXPECT_EQ(category, 0);
        EXPECT_EQ(numberOfStrings, 0);
        EXPECT_EQ(strings, nullptr);
        EXPECT_EQ(dataSize, 0u);
        EXPECT_EQ(data, nullptr);
    }
    int reportedType = -1;
    DWORD reportedId = 0;
};

}  // namespace

TEST(EventLogProvider, ParameterLimits) {
    EXPECT_EQ(TextOf(L"", L""), "ProviderName is empty.");
    EXPECT_EQ(TextOf(std::wstring(260, L'n'), L""), "ProviderName is >= MAX_PATH.");
    EXPECT_EQ(TextOf(std::wstring(259, L'n'), L""), "EventMessageFile is empty.");
    EXPECT_EQ(TextOf(L"n", std::wstring(520, L'f')), "EventMessageFile is >= (2*MAX_PATH).");
    EXPECT_EQ(TextOf(std::wstring(259, L'n'), std::wstring(519, L'f')), "accepted");
}

TEST_F(Provider, RegistersItselfThenOpensTheSource) {
    const InSequence inSequence;
    EXPECT_CALL(advapi32_,
                RegCreateKeyExW(HKEY_LOCAL_MACHINE,
                                StrEq(L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Application\\Source"),
                                0u, nullptr, 0u, 0xF003Fu, nullptr, _, _));
    EXPECT_CALL(advapi32_, RegSetValueExW(kKey, StrEq(L"EventMessageFile"), 0u,
                                          static_cast<DWORD>(REG_EXPAND_SZ), _, 22u))
        .WillOnce([](HKEY, const wchar_t*, DWORD, DWORD, const BYTE* data, DWORD size) -> LSTATUS {
            EXPECT_EQ(std::memcmp(data, L"C:\\file.dll", size), 0) << "without the terminating zero";
            return ERROR_SUCCESS;
        });
    EXPECT_CALL(advapi32_,
                RegSetValueExW(kKey, StrEq(L"TypesSupported"), 0u, static_cast<DWORD>(REG_DWORD), _, 4u))
        .WillOnce([](HKEY, const wchar_t*, DWORD, DWORD, const BYTE* data, DWORD) -> LSTATUS {
            DWORD types = 0;
            std::memcpy(&types, data, sizeof types);
            EXPECT_EQ(types, 7u);
            return ERROR_SUCCESS;
        });
    EXPECT_CALL(advapi32_, RegCloseKey(kKey));
    EXPECT_CALL(advapi32_, RegisterEventSourceW(nullptr, StrEq(L"Source"))).WillOnce(Return(kSource));

    provider_.Register();
    provider_.Register();  // does nothing more
}

TEST_F(Provider, GoesOnWithoutItsKey) {
    EXPECT_CALL(advapi32_, RegCreateKeyExW).WillOnce(Return(ERROR_ACCESS_DENIED));
    EXPECT_CALL(advapi32_, RegSetValueExW).Times(0);
    EXPECT_CALL(advapi32_, RegisterEventSourceW).WillOnce(Return(kSource));
    EXPECT_NO_THROW(provider_.Register());
}

TEST_F(Provider, WritesTheSecondValueWhenTheFirstFails) {
    EXPECT_CALL(advapi32_, RegSetValueExW).Times(2).WillRepeatedly(Return(ERROR_ACCESS_DENIED));
    EXPECT_CALL(advapi32_, RegCloseKey(kKey)).WillOnce(Return(ERROR_INVALID_HANDLE));
    EXPECT_NO_THROW(provider_.Register());
}

TEST_F(Provider, WithoutSourceNothingIsReported) {
    EXPECT_CALL(advapi32_, ReportEventW).Times(0);
    provider_.Report(EVENTLOG_ERROR_TYPE, 0, 1);  // before Register
    ON_CALL(advapi32_, RegisterEventSourceW).WillByDefault(Return(nullptr));
    provider_.Register();
    provider_.Report(EVENTLOG_ERROR_TYPE, 0, 1);
}

TEST_F(Provider, ReportsTheThreeTypesOnly) {
    provider_.Register();
    for (const WORD type : std::initializer_list<WORD>{1, 2, 4})
        EXPECT_CALL(advapi32_, ReportEventW(kSource, type, 3, 77u, nullptr, 0, 0u, nullptr, nullptr));
    for (const WORD type : std::initializer_list<WORD>{0, 1, 2, 3, 4, 8, 16})
        provider_.Report(type, 3, 77);
}

TEST_F(Provider, ReportAfterUnregisterIsTracedAndReturns) {
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kSharedToolsGuid, trace::kError, trace::kMessage, 1);
    provider_.Register();
    EXPECT_CALL(advapi32_, DeregisterEventSource(kSource)).Times(1);
    EXPECT_CALL(advapi32_, ReportEventW).Times(0);
    provider_.Unregister();
    provider_.Report(EVENTLOG_ERROR_TYPE, 0, 77);
    provider_.Unregister();
    const auto records = test_support::TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].Integer(0), 77u);
}

TEST_F(Provider, WhatBecomesOfItIsTraced) {
    const test_support::Tracing tracing;
    using Traced = std::vector<std::pair<int, int>>;  // level and number
    const auto traced = [](const auto& action) {
        Traced all;
        for (const UCHAR level : {trace::kVerbose, trace::kInformation, trace::kWarning, trace::kError}) {
            test_support::EnableTracing(test_support::kSharedToolsGuid, level, trace::kMessage, 1);
            action();
            for (const auto& record : test_support::TakeTraceRecords()) {
                std::erase_if(all, [&](const auto& one) { return one.second == record.number; });
                all.emplace_back(level, record.number);
            }
        }
        std::ranges::sort(all);
        return all;  // each number at the lowest level at which it is seen
    };
    const auto registering = [this] {
        provider_.Unregister();
        provider_.Register();
    };
    EXPECT_EQ(traced(registering), (Traced{{trace::kInformation, 13}, {trace::kVerbose, 10}}));
    ON_CALL(advapi32_, RegSetValueExW).WillByDefault(Return(ERROR_ACCESS_DENIED));
    ON_CALL(advapi32_, RegCloseKey).WillByDefault(Return(ERROR_ACCESS_DENIED));
    EXPECT_EQ(traced(registering), (Traced{{trace::kWarning, 14},
                                           {trace::kWarning, 15},
                                           {trace::kWarning, 16},
                                           {trace::kInformation, 13},
                                           {trace::kVerbose, 10}}));
    ON_CALL(advapi32_, RegCreateKeyExW).WillByDefault(Return(ERROR_ACCESS_DENIED));
    EXPECT_EQ(traced(registering), (Traced{{trace::kWarning, 12}, {trace::kVerbose, 10}}));
    EXPECT_EQ(traced([this] { provider_.Report(3, 0, 1); }), (Traced{{trace::kError, 19}}));
    EXPECT_EQ(traced([this] { provider_.Report(1, 0, 1); }), (Traced{{trace::kError, 20}}));
    ON_CALL(advapi32_, DeregisterEventSource).WillByDefault(Return(FALSE));
    ON_CALL(advapi32_, RegisterEventSourceW).WillByDefault(Return(nullptr));
    provider_.Unregister();
    EXPECT_EQ(traced(registering), (Traced{{trace::kError, 11}, {trace::kWarning, 12}}));
    EXPECT_EQ(traced([this] { provider_.Report(1, 0, 1); }), (Traced{{trace::kError, 18}}));
}

TEST_F(Provider, NameOfASourceThatCannotBeOpenedIsTraced) {
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kSharedToolsGuid, trace::kError, trace::kMessage, 1);
    ON_CALL(advapi32_, RegisterEventSourceW).WillByDefault([](auto...) -> HANDLE {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    });
    provider_.Register();
    const auto records = test_support::TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].Text(0), "Source");
    EXPECT_EQ(records[0].Integer(1), static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST_F(Provider, ReportHandsOnStringsAndData) {
    provider_.Register();
    const wchar_t* strings[] = {L"one", L"two"};
    char data[3] = {};
    EXPECT_CALL(advapi32_, ReportEventW(kSource, 2, 9, 8u, nullptr, 2, 3u, strings, data));
    provider_.Report(EVENTLOG_WARNING_TYPE, 9, 8, 2, strings, sizeof data, data);
}

TEST_F(Provider, IsClosedWhenItEnds) {
    EXPECT_CALL(advapi32_, DeregisterEventSource(kSource)).Times(1).WillOnce(Return(TRUE));
    provider_.Register();
}

TEST_F(Provider, ValuesAreWrittenAlsoWhereTheKeyExists) {
    EXPECT_CALL(advapi32_, RegCreateKeyExW)
        .WillOnce(
            DoAll(SetArgPointee<7>(kKey), SetArgPointee<8>(REG_OPENED_EXISTING_KEY), Return(ERROR_SUCCESS)));
    EXPECT_CALL(advapi32_, RegSetValueExW).Times(2);
    provider_.Register();
}

TEST_F(Provider, MissingKeyHandleIsAsserted) {
    const test_support::ModuleHooks hooks;
    ON_CALL(advapi32_, RegCreateKeyExW).WillByDefault(Return(ERROR_SUCCESS));
    provider_.Register();
    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"evlogKey != nullptr"}));
}

TEST_F(Provider, FailuresToReportAndToCloseAreIgnored) {
    ON_CALL(advapi32_, ReportEventW).WillByDefault(Return(FALSE));
    ON_CALL(advapi32_, DeregisterEventSource).WillByDefault(Return(FALSE));
    provider_.Register();
    EXPECT_NO_THROW(provider_.Report(EVENTLOG_ERROR_TYPE, 0, 1));
    EXPECT_NO_THROW(provider_.Unregister());
    EXPECT_CALL(advapi32_, ReportEventW).Times(0);
    provider_.Report(EVENTLOG_ERROR_TYPE, 0, 1);  // the handle is gone all the same
}

TEST(EventLogProvider, SecondRegistrationOverwritesTheValuesOfTheFirst) {
    const std::wstring key = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Application\\tessaplug_test";
    {
        EventLogProvider(L"tessaplug_test", L"C:\\a longer first file.dll").Register();
    }
    {
        EventLogProvider(L"tessaplug_test", L"C:\\second.dll").Register();
    }
    wchar_t file[MAX_PATH] = {};
    DWORD size = sizeof file;
    DWORD types = 0;
    DWORD typesSize = sizeof types;
    EXPECT_EQ(::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"EventMessageFile", RRF_RT_REG_SZ, nullptr,
                             file, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"TypesSupported", RRF_RT_REG_DWORD, nullptr,
                             &types, &typesSize),
              ERROR_SUCCESS);
    EXPECT_STREQ(file, L"C:\\second.dll");
    EXPECT_EQ(types, 7u);
    ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, key.c_str());
}

TEST(EventLogWriter, MapsLevelsToTypes) {
    const auto provider = std::make_shared<FakeProvider>();
    EventLogWriter writer(provider);
    writer.Log(1, 0x100);
    EXPECT_EQ(provider->reportedType, EVENTLOG_INFORMATION_TYPE);
    EXPECT_EQ(provider->reportedId, 0x100u);
    writer.Log(2, 0x80000104);
    EXPECT_EQ(provider->reportedType, EVENTLOG_WARNING_TYPE);
    writer.Log(3, 0xC0000101);
    EXPECT_EQ(provider->reportedType, EVENTLOG_ERROR_TYPE);
}

TEST(EventLogWriter, UnknownLevelIsAssertedAndReportedAsTypeZero) {
    const test_support::ModuleHooks hooks;
    const auto provider = std::make_shared<FakeProvider>();
    EventLogWriter(provider).Log(7, 0x100);
    ASSERT_EQ(hooks.Assertions().size(), 1u);
    EXPECT_EQ(hooks.Assertions()[0].expression, L"!\"Invalid EventType!\"");
    EXPECT_EQ(hooks.Assertions()[0].sourcePath, L"lib_shared_tools\\src\\eventlog_writer");
    EXPECT_EQ(hooks.Assertions()[0].line, 401u);
    EXPECT_EQ(provider->reportedType, 0);
}
