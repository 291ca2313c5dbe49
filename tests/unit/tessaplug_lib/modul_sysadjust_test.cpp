#include "modul_sysadjust.h"

#include <gtest/gtest.h>
#include <string>

#include "exception_history.h"
#include "modul_assert.h"
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
