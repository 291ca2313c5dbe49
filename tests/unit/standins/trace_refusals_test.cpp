#include <string>

#include "tracing_fixture.h"

// What is refused, with the codes that Windows documents.
using namespace tracing_test;  // NOLINT: all of it

namespace {

constexpr ULONG kBadLength = ERROR_BAD_LENGTH;
constexpr ULONG kInvalidParameter = ERROR_INVALID_PARAMETER;
constexpr ULONG kBadPath = ERROR_BAD_PATHNAME;
constexpr ULONG kNotRunning = ERROR_WMI_INSTANCE_NOT_FOUND;
constexpr ULONG kNotSupported = ERROR_NOT_SUPPORTED;
constexpr GUID kSystemTrace = {0x9e814aad, 0x3204, 0x11d2, {0x9a, 0x82, 0x00, 0x60, 0x08, 0xa8, 0x69, 0x39}};

/// StartTrace with properties that are changed in one point.
class StartOfASession : public Tracing {
  protected:
    ULONG Start(const wchar_t* name = L"wine_gap_test") {
        session_ = 99;
        const ULONG result = ::StartTraceW(&session_, name, properties_.Get());
        EXPECT_EQ(session_ == 0, result != 0) << "no handle unless it succeeds";
        if (result == 0)
            EXPECT_EQ(::ControlTraceW(session_, nullptr, Properties().Get(), EVENT_TRACE_CONTROL_STOP), 0u);
        return result;
    }
    ULONG StartWithMode(ULONG mode) {
        properties_.head.LogFileMode = mode;
        properties_.head.MaximumFileSize = 1;
        return Start();
    }
    Properties properties_;
};

class ControlOfASession : public Tracing {
  protected:
    ControlOfASession() { StartSession(); }
    ULONG Control(ULONG code, const wchar_t* name = L"wine_gap_test", TRACEHANDLE handle = 0) {
        return ::ControlTraceW(handle, name, properties_.Get(), code);
    }
    Properties properties_;
};

constexpr ULONG kAllControls[] = {EVENT_TRACE_CONTROL_QUERY, EVENT_TRACE_CONTROL_STOP,
                                  EVENT_TRACE_CONTROL_UPDATE, EVENT_TRACE_CONTROL_FLUSH};

}  // namespace

TEST_F(StartOfASession, AsDocumentedSucceedsAndFillsTheProperties) {
    TRACEHANDLE session = 0;
    ASSERT_EQ(::StartTraceW(&session, L"wine_gap_test", properties_.Get()), 0u);
    EXPECT_EQ(properties_.head.Wnode.HistoricalContext, session);
    EXPECT_EQ(std::wstring(properties_.name), L"wine_gap_test");
    EXPECT_FALSE(IsEqualGUID(properties_.head.Wnode.Guid, GUID{})) << "it gets one of its own";
}

TEST_F(StartOfASession, NeedsHandleNameAndProperties) {
    TRACEHANDLE session = 0;
    EXPECT_EQ(::StartTraceW(nullptr, L"wine_gap_test", properties_.Get()), kInvalidParameter);
    EXPECT_EQ(::StartTraceW(&session, nullptr, properties_.Get()), kInvalidParameter);
    EXPECT_EQ(::StartTraceW(&session, L"wine_gap_test", nullptr), kInvalidParameter);
}

TEST_F(StartOfASession, WithABufferSizeThatIsTooSmallHasABadLength) {
    for (const ULONG size : {ULONG{0}, static_cast<ULONG>(sizeof(EVENT_TRACE_PROPERTIES)) - 1}) {
        properties_.head.Wnode.BufferSize = size;
        EXPECT_EQ(Start(), kBadLength);
    }
}

TEST_F(StartOfASession, WithoutRoomForItsNameHasABadLength) {
    EXPECT_EQ(Start(std::wstring(63, L'n').c_str()), 0u) << "it fits just so";
    EXPECT_EQ(Start(std::wstring(64, L'n').c_str()), kBadLength);
}

TEST_F(StartOfASession, WithoutTheFlagOfTraceSessionsIsRefused) {
    properties_.head.Wnode.Flags = 0;
    EXPECT_EQ(Start(), kInvalidParameter);
}

TEST_F(StartOfASession, WithAnOffsetOutsideOrInsideTheStructureIsRefused) {
    const auto size = static_cast<ULONG>(sizeof properties_);
    for (const ULONG offset :
         {ULONG{1}, static_cast<ULONG>(sizeof(EVENT_TRACE_PROPERTIES)) - 2, size, size + 2}) {
        properties_ = {};
        properties_.head.LogFileNameOffset = offset;
        EXPECT_EQ(Start(), kInvalidParameter) << offset;
        properties_ = {};
        properties_.head.LoggerNameOffset = offset;
        EXPECT_EQ(Start(), kInvalidParameter) << offset;
    }
    properties_ = {};
    properties_.head.LoggerNameOffset = 0;
    EXPECT_EQ(Start(), kInvalidParameter);
}

TEST_F(StartOfASession, WithTheFilesNameBeforeItsOwnIsRefused) {
    std::swap(properties_.head.LogFileNameOffset, properties_.head.LoggerNameOffset);
    EXPECT_EQ(Start(), kInvalidParameter);
}

TEST_F(StartOfASession, WithModesThatExcludeEachOtherIsRefused) {
    for (const int mode : {EVENT_TRACE_FILE_MODE_SEQUENTIAL | EVENT_TRACE_FILE_MODE_CIRCULAR,
                           EVENT_TRACE_FILE_MODE_SEQUENTIAL | EVENT_TRACE_FILE_MODE_NEWFILE,
                           EVENT_TRACE_FILE_MODE_CIRCULAR | EVENT_TRACE_FILE_MODE_APPEND,
                           EVENT_TRACE_FILE_MODE_CIRCULAR | EVENT_TRACE_FILE_MODE_NEWFILE,
                           EVENT_TRACE_FILE_MODE_APPEND | EVENT_TRACE_FILE_MODE_NEWFILE,
                           EVENT_TRACE_FILE_MODE_APPEND | EVENT_TRACE_REAL_TIME_MODE,
                           EVENT_TRACE_FILE_MODE_APPEND | EVENT_TRACE_PRIVATE_LOGGER_MODE,
                           EVENT_TRACE_PRIVATE_LOGGER_MODE | EVENT_TRACE_REAL_TIME_MODE,
                           EVENT_TRACE_PRIVATE_LOGGER_MODE | EVENT_TRACE_FILE_MODE_PREALLOCATE,
                           EVENT_TRACE_BUFFERING_MODE | EVENT_TRACE_FILE_MODE_SEQUENTIAL,
                           EVENT_TRACE_BUFFERING_MODE | EVENT_TRACE_REAL_TIME_MODE,
                           EVENT_TRACE_USE_GLOBAL_SEQUENCE | EVENT_TRACE_USE_LOCAL_SEQUENCE})
        EXPECT_EQ(StartWithMode(static_cast<ULONG>(mode)), kInvalidParameter) << mode;
}

TEST_F(StartOfASession, OfACircularFileNeedsAMaximalSize) {
    for (const int mode :
         {EVENT_TRACE_FILE_MODE_CIRCULAR, EVENT_TRACE_FILE_MODE_NEWFILE, EVENT_TRACE_FILE_MODE_PREALLOCATE}) {
        properties_.head.LogFileMode = static_cast<ULONG>(mode);
        EXPECT_EQ(Start(), kInvalidParameter) << mode;
    }
    EXPECT_EQ(StartWithMode(EVENT_TRACE_FILE_MODE_CIRCULAR), 0u);
}

TEST_F(StartOfASession, InAModeThatIsLeftOutHereSaysSo) {
    for (const int mode :
         {EVENT_TRACE_FILE_MODE_APPEND, EVENT_TRACE_FILE_MODE_NEWFILE, EVENT_TRACE_FILE_MODE_PREALLOCATE,
          EVENT_TRACE_REAL_TIME_MODE, EVENT_TRACE_BUFFERING_MODE, EVENT_TRACE_PRIVATE_LOGGER_MODE})
        EXPECT_EQ(StartWithMode(static_cast<ULONG>(mode)), kNotSupported) << mode;
}

TEST_F(StartOfASession, WithoutALogFileHasABadPath) {
    properties_.head.LogFileNameOffset = 0;
    EXPECT_EQ(Start(), kBadPath);
    EXPECT_EQ(StartWithMode(EVENT_TRACE_FILE_MODE_SEQUENTIAL), kBadPath);
    properties_ = {};
    properties_.file[0] = L'\0';
    EXPECT_EQ(Start(), kBadPath);
}

TEST_F(StartOfASession, WithALogFileNameThatIsTooLongHasABadPath) {
    struct {
        Properties short_;
        wchar_t rest[1100] = {};
    } large;
    large.short_.head.Wnode.BufferSize = sizeof large;
    wchar_t* file = large.short_.file;
    std::wcscpy(file, L"C:\\windows\\temp\\");
    for (std::size_t i = std::wcslen(file); i < 1024; ++i)
        file[i] = i % 100 == 0 ? L'\\' : L'f';
    TRACEHANDLE session = 0;
    EXPECT_EQ(::StartTraceW(&session, L"wine_gap_test", large.short_.Get()), kBadPath);
}

TEST_F(StartOfASession, WithALogFileInAFolderThatIsNotThereFails) {
    std::wcscpy(properties_.file, L"C:\\no such folder\\file.etl");
    EXPECT_EQ(Start(), static_cast<ULONG>(ERROR_PATH_NOT_FOUND));
}

TEST_F(StartOfASession, WithMoreThanTheDriveHasIsRefused) {
    properties_.head.MaximumFileSize = 0x7FFFFFFF;  // MB
    properties_.head.LogFileMode = EVENT_TRACE_FILE_MODE_CIRCULAR;
    EXPECT_EQ(Start(), static_cast<ULONG>(ERROR_DISK_FULL));
}

TEST_F(StartOfASession, WithTheGuidOfTheSystemsNeedsItsName) {
    properties_.head.Wnode.Guid = kSystemTrace;
    EXPECT_EQ(Start(), kInvalidParameter);
    EXPECT_EQ(Start(KERNEL_LOGGER_NAMEW), kNotSupported) << "left out here";
}

TEST_F(StartOfASession, OfANameOrGuidThatRunsIsRefused) {
    properties_.head.Wnode.Guid = {1, 2, 3, {4}};
    TRACEHANDLE session = 0;
    ASSERT_EQ(::StartTraceW(&session, L"wine_gap_test", properties_.Get()), 0u);
    TRACEHANDLE other = 0;
    EXPECT_EQ(::StartTraceW(&other, L"WINE_gap_test", Properties().Get()),
              static_cast<ULONG>(ERROR_ALREADY_EXISTS))
        << "in any case of its letters";
    Properties sameGuid;
    sameGuid.head.Wnode.Guid = {1, 2, 3, {4}};
    EXPECT_EQ(::StartTraceW(&other, L"another", sameGuid.Get()), static_cast<ULONG>(ERROR_ALREADY_EXISTS));
    EXPECT_EQ(::StartTraceW(&other, L"another", Properties().Get()), kBadPath) << "its file is in use";
}

TEST_F(ControlOfASession, NeedsProperties) {
    for (const ULONG code : kAllControls)
        EXPECT_EQ(::ControlTraceW(0, L"wine_gap_test", nullptr, code), kInvalidParameter);
}

TEST_F(ControlOfASession, NeedsANameOrAHandle) {
    for (const ULONG code : kAllControls)
        EXPECT_EQ(Control(code, nullptr), kInvalidParameter);
    EXPECT_EQ(Control(EVENT_TRACE_CONTROL_QUERY, nullptr, session_), 0u);
    EXPECT_EQ(Control(EVENT_TRACE_CONTROL_QUERY, L"WINE_gap_test", 12345), 0u) << "the name counts";
}

TEST_F(ControlOfASession, ThatDoesNotRunFindsNone) {
    for (const ULONG code : kAllControls) {
        EXPECT_EQ(Control(code, L"another"), kNotRunning);
        EXPECT_EQ(Control(code, nullptr, session_ + 1), kNotRunning);
    }
    ASSERT_EQ(Stop(), 0u);
    for (const ULONG code : kAllControls)
        EXPECT_EQ(Control(code), kNotRunning);
}

TEST_F(ControlOfASession, WithABufferSizeThatIsTooSmallHasABadLength) {
    properties_.head.Wnode.BufferSize = sizeof(EVENT_TRACE_PROPERTIES) - 1;
    for (const ULONG code : kAllControls)
        EXPECT_EQ(Control(code), kBadLength);
    EXPECT_EQ(Query().result, 0u) << "it runs on";
}

TEST_F(ControlOfASession, WithOffsetsThatAreNotValidIsRefused) {
    for (const ULONG code : kAllControls) {
        properties_ = {};
        properties_.head.LoggerNameOffset = 1;
        EXPECT_EQ(Control(code), kInvalidParameter);
        properties_ = {};
        properties_.head.LogFileNameOffset = sizeof properties_;
        EXPECT_EQ(Control(code), kInvalidParameter);
    }
}

TEST_F(ControlOfASession, OfAnUnknownKindIsRefused) {
    EXPECT_EQ(Control(99), kInvalidParameter);
}

TEST_F(ControlOfASession, TellsWhatTheSessionIs) {
    std::wcscpy(properties_.file, L"");
    ASSERT_EQ(Control(EVENT_TRACE_CONTROL_QUERY), 0u);
    EXPECT_EQ(properties_.head.Wnode.HistoricalContext, session_);
    EXPECT_EQ(std::wstring(properties_.name), L"wine_gap_test");
    EXPECT_EQ(std::wstring(properties_.file), kFile);
    EXPECT_EQ(properties_.head.BufferSize, 64u);
    EXPECT_EQ(properties_.head.BuffersWritten, 1u);
}

TEST_F(ControlOfASession, WithoutRoomForTheNamesStopsItAllTheSame) {
    properties_.head.LogFileNameOffset = properties_.head.LoggerNameOffset + 4;
    EXPECT_EQ(Control(EVENT_TRACE_CONTROL_QUERY), static_cast<ULONG>(ERROR_MORE_DATA));
    EXPECT_EQ(Control(EVENT_TRACE_CONTROL_STOP), static_cast<ULONG>(ERROR_MORE_DATA));
    EXPECT_EQ(Query().result, kNotRunning);
}

TEST_F(ControlOfASession, UpdatesNothingButWhatChangesNothingHere) {
    properties_.head.LogFileNameOffset = 0;
    properties_.head.LoggerNameOffset = 0;
    properties_.head.FlushTimer = 5;
    properties_.head.MaximumBuffers = 50;
    EXPECT_EQ(Control(EVENT_TRACE_CONTROL_UPDATE), 0u);
    properties_.head.LogFileMode = EVENT_TRACE_REAL_TIME_MODE;
    EXPECT_EQ(Control(EVENT_TRACE_CONTROL_UPDATE), kNotSupported);
    properties_ = {};
    EXPECT_EQ(Control(EVENT_TRACE_CONTROL_UPDATE), kBadPath) << "the file is the same";
    std::wcscpy(properties_.file, L"C:\\windows\\temp\\another.etl");
    EXPECT_EQ(Control(EVENT_TRACE_CONTROL_UPDATE), kNotSupported) << "another is left out here";
}

TEST_F(ControlOfASession, EnablesWithAGuidAHandleAndALevelOnly) {
    EXPECT_EQ(::EnableTrace(TRUE, 1, 5, nullptr, session_), kInvalidParameter);
    EXPECT_EQ(::EnableTrace(TRUE, 1, 5, &kControlGuid, 0), kInvalidParameter);
    EXPECT_EQ(::EnableTrace(TRUE, 1, 256, &kControlGuid, session_), kInvalidParameter);
    EXPECT_EQ(::EnableTrace(TRUE, 1, 5, &kControlGuid, session_ + 1),
              static_cast<ULONG>(ERROR_INVALID_HANDLE));
}

TEST_F(Tracing, HandleOfASessionComesFromABuffer) {
    ::SetLastError(0);
    EXPECT_EQ(::GetTraceLoggerHandle(nullptr), INVALID_PROCESSTRACE_HANDLE);
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

namespace {

void WINAPI Ignore(EVENT_RECORD*) {}

class Consumer : public Tracing {
  protected:
    Consumer() {
        StartSession();
        logFile_.LogFileName = file_.data();
        logFile_.ProcessTraceMode = PROCESS_TRACE_MODE_EVENT_RECORD;
        logFile_.EventRecordCallback = &Ignore;
    }
    DWORD OpenError() {
        ::SetLastError(0);
        const TRACEHANDLE handle = ::OpenTraceW(&logFile_);
        if (handle == INVALID_PROCESSTRACE_HANDLE) return ::GetLastError();
        EXPECT_EQ(::CloseTrace(handle), 0u);
        return 0;
    }
    std::wstring file_ = kFile;
    std::wstring name_ = L"wine_gap_test";
    EVENT_TRACE_LOGFILEW logFile_ = {};
};

constexpr ULONG kInvalidHandle = ERROR_INVALID_HANDLE;

}  // namespace

TEST_F(Consumer, OpensALogFile) {
    EXPECT_EQ(OpenError(), 0u);
}

TEST_F(Consumer, NeedsALogFileOrTheNameOfASession) {
    EXPECT_EQ(::OpenTraceW(nullptr), INVALID_PROCESSTRACE_HANDLE);
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    logFile_.LoggerName = name_.data();
    EXPECT_EQ(OpenError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER)) << "not both";
    logFile_.LoggerName = nullptr;
    logFile_.LogFileName = nullptr;
    EXPECT_EQ(OpenError(), static_cast<DWORD>(ERROR_BAD_PATHNAME));
    std::wstring missing = L"C:\\windows\\temp\\no such file.etl";
    logFile_.LogFileName = missing.data();
    EXPECT_EQ(OpenError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(Consumer, OfEventsInTheirOldFormIsLeftOut) {
    logFile_.ProcessTraceMode = 0;
    EXPECT_EQ(OpenError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
}

TEST_F(Consumer, InRealTimeFindsNoSuchSession) {
    logFile_.LogFileName = nullptr;
    logFile_.LoggerName = name_.data();
    logFile_.ProcessTraceMode |= PROCESS_TRACE_MODE_REAL_TIME;
    TRACEHANDLE handles[] = {::OpenTraceW(&logFile_), ::OpenTraceW(&logFile_)};
    ASSERT_NE(handles[0], INVALID_PROCESSTRACE_HANDLE);
    EXPECT_EQ(::ProcessTrace(handles, 1, nullptr, nullptr), kNotRunning);
    EXPECT_EQ(::ProcessTrace(handles, 2, nullptr, nullptr), static_cast<ULONG>(ERROR_WMI_ALREADY_ENABLED));
    ::CloseTrace(handles[0]);
    ::CloseTrace(handles[1]);
}

TEST_F(Consumer, ProcessesHandlesThatItHasOpenedOnly) {
    TRACEHANDLE handle = ::OpenTraceW(&logFile_);
    EXPECT_EQ(::ProcessTrace(nullptr, 1, nullptr, nullptr), kInvalidParameter);
    EXPECT_EQ(::ProcessTrace(&handle, 0, nullptr, nullptr), kBadLength);
    EXPECT_EQ(::ProcessTrace(&handle, 65, nullptr, nullptr), kBadLength);
    FILETIME late = {2, 0};
    FILETIME early = {1, 0};
    EXPECT_EQ(::ProcessTrace(&handle, 1, &late, &early), static_cast<ULONG>(ERROR_INVALID_TIME));
    EXPECT_EQ(::CloseTrace(handle), 0u);
    EXPECT_EQ(::ProcessTrace(&handle, 1, nullptr, nullptr), kInvalidHandle);
    for (const TRACEHANDLE closed : {handle, TRACEHANDLE{0}, INVALID_PROCESSTRACE_HANDLE})
        EXPECT_EQ(::CloseTrace(closed), kInvalidHandle);
}

TEST_F(Consumer, ThatIsClosedWhileItProcessesIsToldSo) {
    static TRACEHANDLE handle = 0;
    static ULONG closed = 0;
    logFile_.EventRecordCallback = [](EVENT_RECORD*) { closed = ::CloseTrace(handle); };
    handle = ::OpenTraceW(&logFile_);
    EXPECT_EQ(::ProcessTrace(&handle, 1, nullptr, nullptr), 0u);
    EXPECT_EQ(closed, static_cast<ULONG>(ERROR_CTX_CLOSE_PENDING));
    EXPECT_EQ(::CloseTrace(handle), kInvalidHandle);
}
