#include "modul_sysadjust.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

#include "exception_history.h"
#include "modul_assert.h"
#include "system_calls.h"
#include "trace_provider.h"
#include "trace_recorder.h"
#include "unique_handle.h"

using test_support::kModuleGuid;

// The plug-in's own entries; this program links them instead of the test programs' usual ones.
namespace {

class ModuleEntries : public testing::Test {
  protected:
    ModuleEntries() { modul_exception::InitializeExceptionHistory(); }
    ~ModuleEntries() override {
        tessaplug::DeleteEventLogProvider();
        modul_exception::CleanupExceptionHistory();
    }

  private:
    const test_support::Tracing tracing_;
};

}  // namespace

TEST_F(ModuleEntries, AssertionIsTracedWithPathLineAndExpression) {
    test_support::EnableTracing(kModuleGuid, trace::kError, trace::kMessage, 1);

    _ModulAssert(L"a == b", L"folder\\src\\name", 77);

    const auto records = test_support::TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].number, 10);
    EXPECT_EQ(records[0].Text(0), "folder\\src\\name");
    EXPECT_EQ(records[0].Integer(1), 77u);
    EXPECT_EQ(records[0].Text(2), "a == b");
}

TEST_F(ModuleEntries, AssertionThatCannotBeTracedIsStillReported) {
    const test_support::SystemCallsOfTest systemCalls;
    static std::wstring reported;
    test_support::EnableTracing(kModuleGuid, trace::kError, trace::kMessage, 1);
    test_support::systemCalls.wideCharToMultiByte = [](auto...) -> int { return 0; };
    test_support::systemCalls.outputDebugStringW = [](const wchar_t* text) { reported = text; };

    _ModulAssert(L"a == b", L"folder\\src\\name", 77);

    EXPECT_EQ(reported, L"tessaplug: assertion failed: a == b, folder\\src\\name(77)\n");
    const auto records = test_support::TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].number, 15);
    EXPECT_EQ(records[0].Integer(0), 77u);
}

TEST_F(ModuleEntries, AssertionGoesToTheHandlerAsLongAsThereIsOne) {
    const test_support::SystemCallsOfTest systemCalls;
    // Nobody is there to be asked.
    test_support::systemCalls.loadLibraryW = [](LPCWSTR) -> HMODULE {
        ::SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    };
    const auto isHandled = [] {
        test_support::EnableTracing(test_support::kSharedToolsGuid, trace::kError, trace::kMessage, 1);
        _ModulAssert(L"a == b", L"path", 1);
        const auto records = test_support::TakeTraceRecords();
        return records.size() == 1 && records[0].Text(0).find("Loading Wtsapi32.dll") != std::string::npos;
    };
    EXPECT_FALSE(isHandled());
    tessaplug::CreateErrorHandler();
    EXPECT_TRUE(isHandled());
    tessaplug::DeleteErrorHandler();
    EXPECT_FALSE(isHandled());
}

TEST_F(ModuleEntries, AssertionWithoutTextsIsReportedAsNull) {
    const test_support::SystemCallsOfTest systemCalls;
    static std::wstring reported;
    test_support::EnableTracing(kModuleGuid, trace::kError, trace::kMessage, 1);
    test_support::systemCalls.outputDebugStringW = [](const wchar_t* text) { reported = text; };

    _ModulAssert(nullptr, nullptr, 5);

    EXPECT_EQ(reported, L"tessaplug: assertion failed: (null), (null)(5)\n");
    const auto records = test_support::TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].Text(0), "(null)");
    EXPECT_EQ(records[0].Text(2), "(null)");
}

TEST_F(ModuleEntries, EventLogEntryIsTracedWithTypeAndIdentifier) {
    test_support::EnableTracing(kModuleGuid, trace::kInformation, trace::kMessage, 1);

    _ModulSysLog_00(1, 0x100);

    const auto records = test_support::TakeTraceRecords();
    ASSERT_GE(records.size(), 1u);
    EXPECT_EQ(records[0].number, 11);
    EXPECT_EQ(records[0].Integer(0), 1u);
    EXPECT_EQ(records[0].Integer(1), 0x100u);
}

TEST_F(ModuleEntries, EntriesWithoutTracingAndProviderReturnQuietly) {
    _ModulAssert(L"a == b", L"path", 1);
    _ModulSysLog_00(3, 0xC0000101);
    EXPECT_TRUE(test_support::TakeTraceRecords().empty());
}

TEST_F(ModuleEntries, UnknownEventTypeIsAssertedAndStillReturns) {
    test_support::EnableTracing(kModuleGuid, trace::kError, trace::kMessage, 1);

    _ModulSysLog_00(7, 0x100);

    const auto records = test_support::TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].Text(0), "lib_shared_tools\\src\\eventlog_writer");
    EXPECT_EQ(records[0].Integer(1), 401u);
    EXPECT_EQ(records[0].Text(2), "!\"Invalid EventType!\"");
}

TEST_F(ModuleEntries, EventLogEntryFailsItsCallerOnlyWithWhatIsNoStandardException) {
    const test_support::SystemCallsOfTest systemCalls;
    tessaplug::CreateEventLogProvider(nullptr);
    test_support::EnableTracing(kModuleGuid, trace::kError, trace::kMessage, 1);

    test_support::systemCalls.reportEventW = [](auto...) -> BOOL { throw std::runtime_error("no log"); };
    EXPECT_NO_THROW(_ModulSysLog_00(1, 0x100));
    const auto records = test_support::TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].number, 12);
    EXPECT_EQ(records[0].Text(0), "no log");

    test_support::systemCalls.reportEventW = [](auto...) -> BOOL { throw 42; };
    EXPECT_THROW(_ModulSysLog_00(1, 0x100), int);
}

TEST_F(ModuleEntries, EventLogEntryIsReportedByTheModulesProvider) {
    const test_support::SystemCallsOfTest systemCalls;
    static DWORD reported = 0;
    tessaplug::CreateEventLogProvider(nullptr);
    test_support::systemCalls.reportEventW = [](HANDLE, WORD type, WORD, DWORD id, auto...) -> BOOL {
        reported = id + type;
        return TRUE;
    };
    _ModulSysLog_00(3, 0xC0000100);
    EXPECT_EQ(reported, 0xC0000100 + EVENTLOG_ERROR_TYPE);
    tessaplug::DeleteEventLogProvider();
    reported = 0;
    _ModulSysLog_00(3, 0xC0000100);
    EXPECT_EQ(reported, 0u) << "there is no provider any more";
}

TEST_F(ModuleEntries, ProviderRegistersThisModuleAsTheMessageFile) {
    tessaplug::CreateEventLogProvider(nullptr);
    tessaplug::CreateEventLogProvider(::GetModuleHandleW(L"kernel32.dll"));  // there is one already

    wchar_t file[MAX_PATH] = {};
    DWORD size = sizeof file;
    ASSERT_EQ(::RegGetValueW(HKEY_LOCAL_MACHINE,
                             L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\Application\\tessaplug",
                             L"EventMessageFile", RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, file, &size),
              ERROR_SUCCESS);
    wchar_t self[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    EXPECT_STREQ(file, self);
}
