#include <gtest/gtest.h>
#include <string>

#include "allocations.h"
#include "function_trace.h"
#include "trace_point.h"
#include "trace_recorder.h"

TRACE_SOURCE("tests\\unit\\trace_test", "0f2b5f1e-9c4d-4f5a-8a57-6f1f0c9d1e01", trace::kModule);

using test_support::kModuleGuid;
using test_support::kSharedToolsGuid;
using test_support::TakeTraceRecords;

namespace {

constexpr TRACEHANDLE kLogger = 0x1234;

class Trace : public testing::Test {
    const test_support::Tracing tracing_;
};

namespace worker {
struct Machine {
    static void Start() { FUNCTION_TRACE(); }
    static void Fail() {
        FUNCTION_TRACE();
        throw 1;
    }
};
}  // namespace worker

int evaluations = 0;
int Evaluated() {
    return ++evaluations;
}

}  // namespace

TEST(TraceProvider, RegistersBothControlGuidsInOrderAndUnregistersThem) {
    trace::RegisterProvider();

    const auto registrations = test_support::TraceRegistrations();
    ASSERT_EQ(registrations.size(), 2u);
    EXPECT_TRUE(IsEqualGUID(registrations[0].controlGuid, kSharedToolsGuid));
    EXPECT_EQ(registrations[0].context, &trace::sharedToolsBlock);
    EXPECT_EQ(registrations[0].handle, trace::sharedToolsBlock.registrationHandle);
    EXPECT_TRUE(IsEqualGUID(registrations[1].controlGuid, kModuleGuid));
    EXPECT_EQ(trace::controlBlocks, &trace::sharedToolsBlock);
    EXPECT_EQ(trace::controlBlocks->next, &trace::moduleBlock);

    trace::UnregisterProvider();
    EXPECT_TRUE(test_support::TraceRegistrations().empty());
    EXPECT_EQ(trace::moduleBlock.registrationHandle, 0u);
    EXPECT_FALSE(trace::IsInitialised());
    trace::UnregisterProvider();  // harmless
}

TEST(TraceProvider, IsSilentWhenNotInitialised) {
    trace::moduleBlock.level = trace::kVerbose;
    trace::moduleBlock.flags = 0xFFFFFFFF;

    TRACE_ERROR(10, "never sent %d", Evaluated());
    worker::Machine::Start();

    EXPECT_EQ(evaluations, 0);
    EXPECT_TRUE(TakeTraceRecords().empty());
}

TEST_F(Trace, ControllerEnablesAndDisablesOneBlock) {
    test_support::EnableTracing(kModuleGuid, trace::kWarning, 0x5, kLogger);

    EXPECT_EQ(trace::moduleBlock.loggerHandle, kLogger);
    EXPECT_EQ(trace::moduleBlock.level, trace::kWarning);
    EXPECT_EQ(trace::moduleBlock.flags, 0x5u);
    EXPECT_EQ(trace::sharedToolsBlock.level, 0);

    test_support::DisableTracing(kModuleGuid);

    EXPECT_EQ(trace::moduleBlock.loggerHandle, 0u);
    EXPECT_EQ(trace::moduleBlock.level, 0);
    EXPECT_EQ(trace::moduleBlock.flags, 0u);
}

TEST_F(Trace, UnknownControlRequestIsRefusedAndChangesNothing) {
    test_support::EnableTracing(kModuleGuid, trace::kWarning, 0x5, kLogger);
    ULONG size = 0;

    const ULONG result = trace::ControlCallback(WMI_GET_ALL_DATA, &trace::moduleBlock, &size, nullptr);

    EXPECT_EQ(result, static_cast<ULONG>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(trace::moduleBlock.level, trace::kWarning);
    EXPECT_EQ(trace::moduleBlock.loggerHandle, kLogger);
}

TEST_F(Trace, PointFiresByLevelAndFlag) {
    test_support::EnableTracing(kModuleGuid, trace::kWarning, trace::kMessage, kLogger);
    TRACE_INFO(11, "below the level %d", Evaluated());
    EXPECT_EQ(evaluations, 0);

    TRACE_WARNING(12, "at the level %d", Evaluated());
    TRACE_ERROR(13, "above the level");
    test_support::EnableTracing(kModuleGuid, trace::kVerbose, trace::kFunction, kLogger);
    TRACE_ERROR(14, "other flag %d", Evaluated());

    EXPECT_EQ(evaluations, 1);
    const auto records = TakeTraceRecords();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].number, 12);
    EXPECT_EQ(records[1].number, 13);
}

TEST_F(Trace, MessageCarriesLoggerFlagsGuidAndNumber) {
    test_support::EnableTracing(kModuleGuid, trace::kVerbose, trace::kMessage, kLogger);

    TRACE_VERBOSE(15, "nothing more");

    const auto records = TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].logger, kLogger);
    EXPECT_EQ(records[0].flags, 0x2Bu);
    EXPECT_TRUE(IsEqualGUID(records[0].messageGuid, kMessageGuid));
    EXPECT_EQ(records[0].messageGuid.Data1, 0x0f2b5f1eu);
    EXPECT_EQ(records[0].messageGuid.Data4[7], 0x01);
    EXPECT_TRUE(records[0].arguments.empty());
}

TEST_F(Trace, ArgumentsTravelWithTheirLengths) {
    test_support::EnableTracing(kModuleGuid, trace::kVerbose, trace::kMessage, kLogger);
    const std::string narrow = "abc";
    const std::wstring wide = L"wide";
    int here = 0;

    TRACE_INFO(16, "%d %llu %p %s %S %s", -2, 0x100000000ULL, &here, narrow, wide, "literal");

    const auto records = TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    const auto& arguments = records[0].arguments;
    ASSERT_EQ(arguments.size(), 6u);
    EXPECT_EQ(arguments[0].size(), 4u);
    EXPECT_EQ(static_cast<int>(records[0].Integer(0)), -2);
    EXPECT_EQ(arguments[1].size(), 8u);
    EXPECT_EQ(arguments[2].size(), 8u);
    EXPECT_EQ(arguments[3].size(), 4u);
    EXPECT_EQ(records[0].Text(3), "abc");
    EXPECT_EQ(arguments[4].size(), 10u);
    EXPECT_EQ(records[0].WideText(4), L"wide");
    EXPECT_EQ(records[0].Text(5), "literal");
}

TEST_F(Trace, NullStringsGoOutAsNull) {
    test_support::EnableTracing(kModuleGuid, trace::kVerbose, trace::kMessage, kLogger);

    TRACE_INFO(17, "%s %S", static_cast<const char*>(nullptr), static_cast<const wchar_t*>(nullptr));

    const auto records = TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].arguments[0].size(), 5u);
    EXPECT_EQ(records[0].Text(0), "NULL");
    EXPECT_EQ(records[0].arguments[1].size(), 10u);
    EXPECT_EQ(records[0].WideText(1), L"NULL");
}

TEST_F(Trace, TracingLeavesTheLastErrorAlone) {
    test_support::EnableTracing(kModuleGuid, trace::kVerbose, 0xFFFFFFFF, kLogger);
    ::SetLastError(ERROR_FILE_NOT_FOUND);

    TRACE_INFO(18, "the recorder sets another last error");
    worker::Machine::Start();

    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(Trace, FunctionEntryAndExitPairUp) {
    test_support::EnableTracing(kModuleGuid, trace::kVerbose, trace::kFunction, kLogger);

    worker::Machine::Start();

    const auto records = TakeTraceRecords();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].number, 10);
    EXPECT_EQ(records[1].number, 11);
    EXPECT_TRUE(IsEqualGUID(records[0].messageGuid, records[1].messageGuid));
    for (const auto& record : records) {
        EXPECT_EQ(record.Text(0), "trace_test");
        EXPECT_EQ(record.Text(1), "(anonymous namespace)::worker::Machine::Start");
    }
}

TEST_F(Trace, FunctionLeftByAnExceptionWritesItsExit) {
    test_support::EnableTracing(kModuleGuid, trace::kVerbose, trace::kFunction, kLogger);

    EXPECT_THROW(worker::Machine::Fail(), int);

    const auto records = TakeTraceRecords();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[1].number, 11);
}

TEST_F(Trace, FunctionEntryNeedsLevelVerbose) {
    test_support::EnableTracing(kModuleGuid, trace::kInformation, trace::kFunction, kLogger);
    worker::Machine::Start();
    EXPECT_TRUE(TakeTraceRecords().empty());
}

TEST_F(Trace, FunctionInWhichTracingIsSwitchedOnWritesItsExit) {
    const auto traced = [] {
        FUNCTION_TRACE();
        test_support::EnableTracing(kModuleGuid, trace::kVerbose, trace::kFunction, kLogger);
    };
    traced();
    const auto records = TakeTraceRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].number, 11);
    EXPECT_EQ(records[0].Text(0), "trace_test");
}

TEST_F(Trace, FunctionTraceThatIsOffAllocatesNothing) {
    test_support::TakeAllocations();
    for (int i = 0; i < 10; ++i)
        worker::Machine::Start();
    EXPECT_EQ(test_support::TakeAllocations().count, 0u);
}

TEST_F(Trace, SourcePathWithoutFolderIsKeptWhole) {
    test_support::EnableTracing(kModuleGuid, trace::kVerbose, trace::kFunction, kLogger);
    {
        const trace::FunctionTrace functionTrace("f", "plain");
    }
    EXPECT_EQ(TakeTraceRecords().at(0).Text(0), "plain");
}

TEST_F(Trace, OverlongFunctionNameIsCutOff) {
    test_support::EnableTracing(kModuleGuid, trace::kVerbose, trace::kFunction, kLogger);
    const std::string longName(500, 'n');
    {
        const trace::FunctionTrace functionTrace(longName.c_str(), kSourcePath);
    }
    EXPECT_EQ(TakeTraceRecords().at(0).Text(1), std::string(127, 'n'));
}

TEST(FunctionName, IsFoundInWhatTheCompilerCallsAFunction) {
    EXPECT_EQ(trace::FullName("void a::B::c(int)"), "a::B::c");
    EXPECT_EQ(trace::FullName("a::B::B()"), "a::B::B");
    EXPECT_EQ(trace::FullName("const wchar_t *a::f(const std::vector<int> &)"), "a::f");
    EXPECT_EQ(trace::FullName("std::map<int, a::b<c>> a::T<int>::g() const [T = int]"), "a::T<int>::g");
    EXPECT_EQ(trace::FullName("int (anonymous namespace)::h(void)"), "(anonymous namespace)::h");
}
