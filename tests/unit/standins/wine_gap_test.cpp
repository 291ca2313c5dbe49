#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>
#include <wtsapi32.h>

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "command.h"
#include "event_log_file.h"
#include "message_window.h"
#include "wine_gap_loader.h"

// What the stand-in adds to Wine, through the functions' imports of this program, as its users have them.
namespace {

constexpr GUID kControlGuid = {0x11223344, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
constexpr GUID kMessageGuid = {0x55667788, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
constexpr wchar_t kFile[] = L"C:\\windows\\temp\\wine_gap_test.etl";

class WineGap : public testing::Test {
  protected:
    static void SetUpTestSuite() { loaded_ = LoadWineGap(); }
    void SetUp() override {
        if (!IsWine()) GTEST_SKIP() << "the stand-in is for Wine only";
        ASSERT_TRUE(loaded_);
    }
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

TEST_F(Tracing, SessionsInQuickSuccessionAreToldApart) {
    RegisterProvider();
    for (int i = 0; i < 20; ++i) {
        ASSERT_NO_FATAL_FAILURE(StartSession());
        EXPECT_TRUE(test_support::Eventually([&] { return told_.logger == session_; })) << i;
        ::Sleep(static_cast<DWORD>(i % 3));
        EXPECT_EQ(::ControlTraceW(0, L"wine_gap_test", Properties().Get(), EVENT_TRACE_CONTROL_STOP), 0u);
    }
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

    EXPECT_EQ(ReadBack(), static_cast<ULONG>(ERROR_FILE_CORRUPT));
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

namespace {

/// A log of its own for each test.
class EventLogOfTheTest : public WineGap {
  protected:
    EventLogOfTheTest() { file_.Clear(); }
    ~EventLogOfTheTest() override {
        ::CloseEventLog(log_);
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kKey);
    }
    static wine_gap::Event EventOf(const std::wstring& text) { return {L"test", 1, 0, 0x100, {text}, {}}; }
    void Append(DWORD count) { EXPECT_EQ(file_.Append(std::vector(count, EventOf(L"text"))), 0u); }
    /// Numbers of the records that one read delivers.
    std::vector<DWORD> Read(DWORD flags, DWORD offset = 0) {
        std::vector<BYTE> buffer(0x10000);
        DWORD read = 0;
        DWORD needed = 0;
        std::vector<DWORD> numbers;
        ::SetLastError(0);
        if (!::ReadEventLogW(log_, flags | EVENTLOG_FORWARDS_READ, offset, buffer.data(), 0x10000, &read,
                             &needed))
            return {};
        for (DWORD at = 0; at < read;) {
            const auto* record = reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at);
            numbers.push_back(record->RecordNumber);
            at += record->Length;
        }
        return numbers;
    }
    DWORD Count() {
        DWORD count = 0;
        ::GetNumberOfEventLogRecords(log_, &count);
        return count;
    }
    DWORD Oldest() {
        DWORD oldest = 0;
        ::GetOldestEventLogRecord(log_, &oldest);
        return oldest;
    }

    static constexpr wchar_t kKey[] = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\WineGapTest";
    const wine_gap::EventLogFile file_{L"WineGapTest"};
    HANDLE log_ = ::OpenEventLogW(nullptr, L"WineGapTest");
};

}  // namespace

TEST_F(EventLogOfTheTest, SeeksToAnyRecordAndReadsOnFromThere) {
    Append(5);
    ::CloseEventLog(log_);
    log_ = ::OpenEventLogW(nullptr, L"WineGapTest");
    EXPECT_EQ(Read(EVENTLOG_SEEK_READ, 3), (std::vector<DWORD>{3, 4, 5}));
    EXPECT_EQ(Read(EVENTLOG_SEQUENTIAL_READ), (std::vector<DWORD>{}));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_HANDLE_EOF));
    Append(1);
    EXPECT_EQ(Read(EVENTLOG_SEQUENTIAL_READ), (std::vector<DWORD>{6}));
    EXPECT_EQ(Read(EVENTLOG_SEEK_READ, 6), (std::vector<DWORD>{6}));
    for (const DWORD absent : {DWORD{0}, DWORD{7}, DWORD{0xFFFFFFFF}}) {
        EXPECT_TRUE(Read(EVENTLOG_SEEK_READ, absent).empty());
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
}

TEST_F(EventLogOfTheTest, EmptyLogHasNoOldestRecord) {
    EXPECT_EQ(Count(), 0u);
    EXPECT_EQ(Oldest(), 0u);
}

TEST_F(EventLogOfTheTest, OlderHalfIsDroppedAtTheLimitAndReadersGoOn) {
    const DWORD limit = 20000;
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, L"MaxSize", REG_DWORD, &limit, sizeof limit);
    ::CloseEventLog(log_);
    Append(1);
    log_ = ::OpenEventLogW(nullptr, L"WineGapTest");
    EXPECT_EQ(Read(EVENTLOG_SEQUENTIAL_READ), (std::vector<DWORD>{1}));
    for (int i = 0; i < 500; ++i)
        Append(1);
    EXPECT_LT(Count(), 250u);
    EXPECT_GT(Count(), 50u);
    EXPECT_EQ(Oldest() + Count() - 1, 501u) << "numbers go on";
    const std::vector<DWORD> numbers = Read(EVENTLOG_SEQUENTIAL_READ);
    EXPECT_EQ(numbers.front(), Oldest());
    EXPECT_EQ(numbers.back(), 501u);
}

TEST_F(EventLogOfTheTest, ReaderIsToldThatTheLogWasCleared) {
    ::CloseEventLog(log_);
    log_ = ::OpenEventLogW(nullptr, L"WineGapTest");
    Append(3);
    EXPECT_FALSE(::ClearEventLogW(log_, L"backup.evt"));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_TRUE(::ClearEventLogW(log_, nullptr));
    EXPECT_EQ(Count(), 0u);
    Append(1);
    EXPECT_EQ(Oldest(), 1u) << "numbers start again";
    EXPECT_TRUE(Read(EVENTLOG_SEQUENTIAL_READ).empty());
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_EVENTLOG_FILE_CHANGED));
}

TEST_F(EventLogOfTheTest, EveryChangeIsNotified) {
    const HANDLE changed = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    const auto notified = [changed] { return ::WaitForSingleObject(changed, 10000) == WAIT_OBJECT_0; };
    ASSERT_TRUE(::NotifyChangeEventLog(log_, changed));
    EXPECT_EQ(::WaitForSingleObject(changed, 200), static_cast<DWORD>(WAIT_TIMEOUT));
    Append(1);
    EXPECT_TRUE(notified());
    Append(1);
    EXPECT_TRUE(notified());
    ::ClearEventLogW(log_, nullptr);
    EXPECT_TRUE(notified());
    WriteEvent(L"in another log");
    EXPECT_EQ(::WaitForSingleObject(changed, 200), static_cast<DWORD>(WAIT_TIMEOUT));
    ::CloseEventLog(log_);
    Append(1);
    EXPECT_EQ(::WaitForSingleObject(changed, 200), static_cast<DWORD>(WAIT_TIMEOUT)) << "not after closing";
    log_ = ::OpenEventLogW(nullptr, L"WineGapTest");
    ::CloseHandle(changed);
}

TEST_F(EventLogOfTheTest, WritersOfSeveralThreadsLoseNothing) {
    std::vector<std::thread> writers;
    for (int i = 0; i < 4; ++i)
        writers.emplace_back([this] {
            for (int n = 0; n < 50; ++n)
                Append(1);
        });
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_EQ(Count(), 200u);
}

class OwnMemory : public WineGap {
  protected:
    OwnMemory() : page_(::VirtualAlloc(nullptr, kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE)) {
        std::memset(page_, 0x5A, kPage);
    }
    ~OwnMemory() override { ::VirtualFree(page_, 0, MEM_RELEASE); }

    void Protect(DWORD protection) {
        DWORD before = 0;
        ASSERT_TRUE(::VirtualProtect(page_, kPage, protection, &before));
    }
    BOOL Read(SIZE_T offset, SIZE_T size) {
        read_ = 0;
        return ::ReadProcessMemory(::GetCurrentProcess(), static_cast<BYTE*>(page_) + offset, copy_, size,
                                   &read_);
    }

    static constexpr SIZE_T kPage = 0x1000;
    void* page_;
    BYTE copy_[2 * kPage] = {};
    SIZE_T read_ = 0;
};

TEST_F(OwnMemory, IsReadByTheProcessItself) {
    MEMORY_BASIC_INFORMATION function = {};
    ASSERT_NE(::VirtualQuery(reinterpret_cast<void*>(&::ReadProcessMemory), &function, sizeof function), 0u);
    EXPECT_EQ(function.AllocationBase, ::GetModuleHandleW(L"winegap.dll"));

    EXPECT_TRUE(Read(8, kPage - 8));
    EXPECT_EQ(read_, kPage - 8);
    EXPECT_EQ(std::memcmp(copy_, static_cast<BYTE*>(page_) + 8, kPage - 8), 0);
}

TEST_F(OwnMemory, ThatIsNotThereCannotBeRead) {
    EXPECT_FALSE(::ReadProcessMemory(::GetCurrentProcess(), nullptr, copy_, 1, &read_));
}

TEST_F(OwnMemory, GuardPageStaysOne) {
    Protect(PAGE_READWRITE | PAGE_GUARD);
    Read(0, 1);
    MEMORY_BASIC_INFORMATION region = {};
    ASSERT_NE(::VirtualQuery(page_, &region, sizeof region), 0u);
    EXPECT_EQ(region.Protect, DWORD{PAGE_READWRITE | PAGE_GUARD});
}

TEST_F(WineGap, SessionsAreThoseOfTheRegistry) {
    WTS_SESSION_INFOW* sessions = nullptr;
    DWORD count = 0;
    ASSERT_TRUE(::WTSEnumerateSessionsW(nullptr, 0, 1, &sessions, &count));
    ASSERT_EQ(count, 1u);
    EXPECT_EQ(sessions[0].State, WTSActive);
    ::WTSFreeMemory(sessions);

    constexpr wchar_t kSessions[] =
        L"4 disconnected\0"
        L"9 active\0";
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\winegap", L"Sessions", REG_MULTI_SZ, kSessions,
                      sizeof kSessions);
    ASSERT_TRUE(::WTSEnumerateSessionsW(nullptr, 0, 1, &sessions, &count));
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(sessions[0].SessionId, 4u);
    EXPECT_EQ(sessions[0].State, WTSDisconnected);
    EXPECT_EQ(sessions[1].SessionId, 9u);
    EXPECT_EQ(sessions[1].State, WTSActive);
    ::WTSFreeMemory(sessions);
    ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\winegap", L"Sessions");
}

TEST_F(WineGap, MessageBoxOfASessionIsAWindowAndReturnsTheAnswer) {
    wchar_t title[] = L"wine_gap_test";
    wchar_t message[] = L"Is this seen?";
    DWORD response = 0;
    std::thread user([&] {
        const HWND box = test_support::WaitForMessageBox(title);
        EXPECT_EQ(test_support::MessageOf(box), message);
        EXPECT_TRUE(test_support::Answer(box, IDNO));
    });
    EXPECT_TRUE(::WTSSendMessageW(nullptr, 1, title, sizeof title - 2, message, sizeof message - 2, MB_YESNO,
                                  0, &response, TRUE));
    user.join();
    EXPECT_EQ(response, static_cast<DWORD>(IDNO));
}

TEST_F(WineGap, MessageBoxThatCrashesIsNoAnswer) {
    wchar_t text[] = L"wine_gap_test";
    DWORD response = 0;
    std::thread crash([&] {
        DWORD processId = 0;
        ::GetWindowThreadProcessId(test_support::WaitForMessageBox(text), &processId);
        const HANDLE process = ::OpenProcess(PROCESS_TERMINATE, FALSE, processId);
        EXPECT_TRUE(::TerminateProcess(process, 0xC0000005));
        ::CloseHandle(process);
    });
    EXPECT_FALSE(::WTSSendMessageW(nullptr, 1, text, sizeof text - 2, text, sizeof text - 2, MB_OK, 0,
                                   &response, TRUE));
    crash.join();
}

TEST_F(WineGap, MessageBoxWithATimeOutEndsByItself) {
    wchar_t text[] = L"wine_gap_test";
    DWORD response = 0;
    EXPECT_TRUE(::WTSSendMessageW(nullptr, 1, text, sizeof text - 2, text, sizeof text - 2, MB_OK, 1,
                                  &response, TRUE));
    EXPECT_EQ(response, 32000u);
    EXPECT_FALSE(::WTSSendMessageW(nullptr, 77, text, 2, text, 2, MB_OK, 0, &response, TRUE));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_CTX_WINSTATION_NOT_FOUND));
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
