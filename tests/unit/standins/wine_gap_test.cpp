#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "command.h"
#include "wine_gap_loader.h"

// What the stand-in adds to Wine, through the functions' imports of this program, as its users have them.
namespace {

constexpr GUID kControlGuid = {0x11223344, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
constexpr GUID kMessageGuid = {0x55667788, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
constexpr wchar_t kFile[] = L"C:\\windows\\temp\\wine_gap_test.etl";

class WineGap : public testing::Test {
  protected:
    static void SetUpTestSuite() { loaded_ = LoadWineGap(); }
    WineGap() {
        if (!loaded_) SkipOnWindows();
    }
    static void SkipOnWindows() { GTEST_SKIP() << "the stand-in is for Wine only"; }
    static inline bool loaded_ = false;
};

struct Properties {
    EVENT_TRACE_PROPERTIES head = {};
    wchar_t file[64] = {};
    wchar_t name[64] = {};
    Properties() {
        head.Wnode.BufferSize = sizeof *this;
        head.LogFileNameOffset = offsetof(Properties, file);
        head.LoggerNameOffset = offsetof(Properties, name);
        std::wcscpy(file, kFile);
    }
    EVENT_TRACE_PROPERTIES* Get() { return &head; }
};

/// What the provider's callback was last told.
struct Told {
    std::atomic<int> request = -1;
    TRACEHANDLE logger = 0;
    UCHAR level = 0;
    ULONG flags = 0;
};

ULONG WINAPI OnControl(WMIDPREQUESTCODE request, void* context, ULONG*, void* buffer) {
    auto& told = *static_cast<Told*>(context);
    told.logger = ::GetTraceLoggerHandle(buffer);
    told.level = ::GetTraceEnableLevel(told.logger);
    told.flags = ::GetTraceEnableFlags(told.logger);
    told.request = request;
    return ERROR_SUCCESS;
}

class Tracing : public WineGap {
  protected:
    Tracing() { ::ControlTraceW(0, L"wine_gap_test", Properties().Get(), EVENT_TRACE_CONTROL_STOP); }
    ~Tracing() override {
        if (provider_ != 0) ::UnregisterTraceGuids(provider_);
        ::ControlTraceW(0, L"wine_gap_test", Properties().Get(), EVENT_TRACE_CONTROL_STOP);
    }
    void RegisterProvider() {
        TRACE_GUID_REGISTRATION registration = {&kControlGuid, nullptr};
        ASSERT_EQ(::RegisterTraceGuidsW(&OnControl, &told_, &kControlGuid, 1, &registration, nullptr, nullptr,
                                        &provider_),
                  0u);
    }
    void StartSession() {
        ASSERT_EQ(::StartTraceW(&session_, L"wine_gap_test", Properties().Get()), 0u);
        ASSERT_EQ(::EnableTrace(TRUE, 0x5, 4, &kControlGuid, session_), 0u);
    }
    bool IsTold(int request) {
        return test_support::Eventually([&] { return told_.request == request; });
    }

    Told told_;
    TRACEHANDLE provider_ = 0;
    TRACEHANDLE session_ = 0;
};

std::vector<EVENT_RECORD> records;
std::vector<std::string> texts;
void WINAPI OnRecord(EVENT_RECORD* record) {
    records.push_back(*record);
    texts.emplace_back(static_cast<const char*>(record->UserData), record->UserDataLength);
}

ULONG ReadBack() {
    records.clear();
    texts.clear();
    EVENT_TRACE_LOGFILEW logFile = {};
    std::wstring file = kFile;
    logFile.LogFileName = file.data();
    logFile.ProcessTraceMode = PROCESS_TRACE_MODE_EVENT_RECORD;
    logFile.EventRecordCallback = &OnRecord;
    TRACEHANDLE handle = ::OpenTraceW(&logFile);
    if (handle == INVALID_PROCESSTRACE_HANDLE) return ::GetLastError();
    const ULONG result = ::ProcessTrace(&handle, 1, nullptr, nullptr);
    ::CloseTrace(handle);
    return result;
}

/// All texts of the Application log that this test's source wrote.
std::vector<std::wstring> ReadLog(HANDLE log) {
    std::vector<std::wstring> found;
    std::vector<BYTE> buffer(0x10000);
    DWORD read = 0;
    DWORD needed = 0;
    while (::ReadEventLogW(log, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ, 0, buffer.data(),
                           static_cast<DWORD>(buffer.size()), &read, &needed)) {
        for (DWORD at = 0; at < read;) {
            const auto* record = reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at);
            const auto* source = reinterpret_cast<const wchar_t*>(record + 1);
            const auto* text = reinterpret_cast<const wchar_t*>(buffer.data() + at + record->StringOffset);
            if (std::wstring(source) == L"wine_gap_test" && record->NumStrings == 1) found.emplace_back(text);
            at += record->Length;
        }
    }
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_HANDLE_EOF));
    return found;
}

void WriteEvent(const std::wstring& text) {
    const HANDLE source = ::RegisterEventSourceW(nullptr, L"wine_gap_test");
    const wchar_t* strings[] = {text.c_str()};
    EXPECT_TRUE(::ReportEventW(source, EVENTLOG_INFORMATION_TYPE, 0, 0x100, nullptr, 1, 0, strings, nullptr));
    EXPECT_TRUE(::DeregisterEventSource(source));
}

}  // namespace

TEST_F(Tracing, SessionThatStartsLaterEnablesTheProvider) {
    RegisterProvider();
    EXPECT_EQ(told_.request, -1);
    StartSession();
    ASSERT_TRUE(IsTold(WMI_ENABLE_EVENTS));
    EXPECT_EQ(told_.logger, session_);
    EXPECT_EQ(told_.level, 4);
    EXPECT_EQ(told_.flags, 0x5u);
    EXPECT_EQ(::EnableTrace(FALSE, 0, 0, &kControlGuid, session_), 0u);
    EXPECT_TRUE(IsTold(WMI_DISABLE_EVENTS));
}

TEST_F(Tracing, SessionThatRunsAlreadyEnablesTheProviderAtOnce) {
    StartSession();
    RegisterProvider();
    EXPECT_EQ(told_.request, WMI_ENABLE_EVENTS);
    EXPECT_EQ(::ControlTraceW(session_, nullptr, Properties().Get(), EVENT_TRACE_CONTROL_STOP), 0u);
    EXPECT_TRUE(IsTold(WMI_DISABLE_EVENTS));
}

TEST_F(Tracing, MessagesAreReadBackAsTheyWereSent) {
    StartSession();
    RegisterProvider();
    const int number = 0x01020304;
    ::TraceMessage(told_.logger, 0x2B, &kMessageGuid, 17, &number, sizeof number, "abc", std::size_t{4},
                   nullptr);
    ::TraceMessage(told_.logger, 0x2B, &kMessageGuid, 18, nullptr);

    ASSERT_EQ(ReadBack(), 0u);

    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(IsEqualGUID(records[0].EventHeader.ProviderId, kMessageGuid));
    EXPECT_EQ(records[0].EventHeader.EventDescriptor.Id, 17);
    EXPECT_EQ(records[0].EventHeader.ProcessId, ::GetCurrentProcessId());
    EXPECT_EQ(records[0].EventHeader.ThreadId, ::GetCurrentThreadId());
    EXPECT_NE(records[0].EventHeader.Flags & EVENT_HEADER_FLAG_TRACE_MESSAGE, 0);
    EXPECT_EQ(texts[0], std::string("\x04\x03\x02\x01"
                                    "abc\0",
                                    8));
    EXPECT_EQ(records[1].EventHeader.EventDescriptor.Id, 18);
    EXPECT_EQ(texts[1], "");
}

TEST_F(Tracing, OnlyOneSessionRuns) {
    StartSession();
    TRACEHANDLE other = 0;
    EXPECT_EQ(::StartTraceW(&other, L"wine_gap_test", Properties().Get()),
              static_cast<ULONG>(ERROR_ALREADY_EXISTS));
    EXPECT_EQ(::StartTraceW(&other, L"another", Properties().Get()),
              static_cast<ULONG>(ERROR_NO_SYSTEM_RESOURCES));
    EXPECT_EQ(::ControlTraceW(0, L"another", Properties().Get(), EVENT_TRACE_CONTROL_STOP),
              static_cast<ULONG>(ERROR_WMI_INSTANCE_NOT_FOUND));
}

TEST_F(Tracing, FileThatIsCutOffIsReadAsFarAsItGoes) {
    StartSession();
    RegisterProvider();
    ::TraceMessage(told_.logger, 0x2B, &kMessageGuid, 17, "whole", std::size_t{6}, nullptr);
    ::TraceMessage(told_.logger, 0x2B, &kMessageGuid, 18, "cut off", std::size_t{8}, nullptr);
    const HANDLE file = ::CreateFileW(kFile, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, 0, nullptr);
    ::SetFilePointer(file, -3, nullptr, FILE_END);
    ::SetEndOfFile(file);
    ::CloseHandle(file);

    EXPECT_EQ(ReadBack(), 0u);
    EXPECT_EQ(records.size(), 1u);
}

TEST_F(Tracing, ForeignFileIsRefused) {
    const HANDLE file = ::CreateFileW(kFile, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    ::WriteFile(file, "something else", 14, &written, nullptr);
    ::CloseHandle(file);
    EXPECT_EQ(ReadBack(), static_cast<ULONG>(ERROR_FILE_CORRUPT));
}

TEST_F(WineGap, EventsAreReadBackInOrder) {
    const HANDLE log = ::OpenEventLogW(nullptr, L"Application");
    ReadLog(log);  // what is there already
    WriteEvent(L"first");
    WriteEvent(L"second");
    EXPECT_EQ(ReadLog(log), (std::vector<std::wstring>{L"first", L"second"}));
    WriteEvent(L"third");
    EXPECT_EQ(ReadLog(log), (std::vector<std::wstring>{L"third"}))
        << "sequential reading goes on where it was";
    EXPECT_TRUE(::CloseEventLog(log));
}

TEST_F(WineGap, RecordNumbersCountUp) {
    const HANDLE log = ::OpenEventLogW(nullptr, L"Application");
    WriteEvent(L"one");
    DWORD before = 0;
    DWORD after = 0;
    DWORD oldest = 0;
    ::GetNumberOfEventLogRecords(log, &before);
    WriteEvent(L"two");
    ::GetNumberOfEventLogRecords(log, &after);
    ::GetOldestEventLogRecord(log, &oldest);
    EXPECT_EQ(after, before + 1);
    BYTE buffer[1024];
    DWORD read = 0;
    DWORD needed = 0;
    ASSERT_TRUE(::ReadEventLogW(log, EVENTLOG_SEEK_READ | EVENTLOG_FORWARDS_READ, oldest + after - 1, buffer,
                                sizeof buffer, &read, &needed));
    EXPECT_EQ(reinterpret_cast<const EVENTLOGRECORD*>(buffer)->RecordNumber, oldest + after - 1);
    EXPECT_EQ(reinterpret_cast<const EVENTLOGRECORD*>(buffer)->EventID, 0x100u);
    ::CloseEventLog(log);
}

TEST_F(WineGap, SmallBufferIsToldWhatItNeeds) {
    const HANDLE log = ::OpenEventLogW(nullptr, L"Application");
    WriteEvent(L"text");
    BYTE buffer[16];
    DWORD read = 0;
    DWORD needed = 0;
    EXPECT_FALSE(::ReadEventLogW(log, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ, 0, buffer,
                                 sizeof buffer, &read, &needed));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_GT(needed, sizeof(EVENTLOGRECORD));
    ::CloseEventLog(log);
}

TEST_F(WineGap, UnknownServiceHandleGetsNoDeviceNotifications) {
    struct {
        DWORD size = 32;
        DWORD type = 5;
        DWORD reserved = 0;
        GUID guid = kControlGuid;
        wchar_t name[1] = {};
    } filter;
    EXPECT_EQ(::RegisterDeviceNotificationW(reinterpret_cast<HANDLE>(0x123456), &filter,
                                            DEVICE_NOTIFY_SERVICE_HANDLE),
              nullptr);
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}
