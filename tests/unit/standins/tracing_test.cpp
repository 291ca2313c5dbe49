#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "tracing_fixture.h"

// Sessions, providers and recordings as they work.
using namespace tracing_test;  // NOLINT: all of it

namespace {

/// What the operator's tool says of the recording.
test_support::CommandResult Decoded() {
    return test_support::RunCommand(std::wstring(L"tessactl.exe trace decode ") + kFile);
}

/// How many messages it finds, apart from what it says of the whole; -1 if it does not read it whole.
int DecodedLines() {
    const auto decoded = Decoded();
    if (decoded.exitCode != 0) return -1;
    int count = 0;
    std::istringstream lines(decoded.output);
    for (std::string line; std::getline(lines, line);)
        count += line.starts_with("tessactl: ") ? 0 : 1;
    return count;
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

    const auto [result, records, texts, headers, header] = ReadBack();
    ASSERT_EQ(result, 0u);

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
    Properties anotherFile;
    std::wcscpy(anotherFile.file, L"C:\\windows\\temp\\another.etl");
    EXPECT_EQ(::StartTraceW(&other, L"another", anotherFile.Get()),
              static_cast<ULONG>(ERROR_NO_SYSTEM_RESOURCES));
    EXPECT_EQ(other, 0u);
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

    const Recording recording = ReadBack();
    EXPECT_EQ(recording.result, static_cast<ULONG>(ERROR_FILE_CORRUPT));
    EXPECT_EQ(recording.records.size(), 1u);
}

TEST_F(Tracing, ForeignFileIsRefused) {
    const HANDLE file = ::CreateFileW(kFile, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      CREATE_ALWAYS, 0, nullptr);
    DWORD written = 0;
    ::WriteFile(file, "something else", 14, &written, nullptr);
    ::CloseHandle(file);
    EXPECT_EQ(ReadBack().result, static_cast<ULONG>(ERROR_FILE_CORRUPT));
}

TEST_F(Tracing, LevelAndFlagsOfZeroEnableTheProviderToo) {
    RegisterProvider();
    ASSERT_EQ(::StartTraceW(&session_, L"wine_gap_test", Properties().Get()), 0u);
    ASSERT_EQ(::EnableTrace(TRUE, 0, 0, &kControlGuid, session_), 0u);
    EXPECT_TRUE(IsTold(WMI_ENABLE_EVENTS)) << "the provider decides what it sends then";
    EXPECT_EQ(told_.level, 0);
}

TEST_F(Tracing, MessageHasWhatItsFlagsAskFor) {
    StartSession();
    RegisterProvider();
    EXPECT_EQ(::TraceMessage(told_.logger, TRACE_MESSAGE_GUID, &kMessageGuid, 17, nullptr), 0u);
    EXPECT_EQ(::TraceMessage(told_.logger, TRACE_MESSAGE_SYSTEMINFO, &kMessageGuid, 18, nullptr), 0u);
    const Recording recording = ReadBack();
    ASSERT_EQ(recording.records.size(), 2u);
    EXPECT_TRUE(IsEqualGUID(recording.records[0].EventHeader.ProviderId, kMessageGuid));
    EXPECT_EQ(recording.records[0].EventHeader.ThreadId, 0u);
    EXPECT_TRUE(IsEqualGUID(recording.records[1].EventHeader.ProviderId, GUID{}));
    EXPECT_EQ(recording.records[1].EventHeader.ThreadId, ::GetCurrentThreadId());
}

TEST_F(Tracing, MessageWithoutASessionOrWithWrongFlagsIsRefused) {
    EXPECT_EQ(::TraceMessage(0, 0x2B, &kMessageGuid, 17, nullptr), static_cast<ULONG>(ERROR_INVALID_HANDLE));
    StartSession();
    for (const ULONG flags : {ULONG{TRACE_MESSAGE_GUID | TRACE_MESSAGE_COMPONENTID}, ULONG{0x4000}})
        EXPECT_EQ(::TraceMessage(session_, flags, &kMessageGuid, 17, nullptr),
                  static_cast<ULONG>(ERROR_INVALID_PARAMETER));
}

TEST_F(Tracing, MessageOfAnEndedSessionIsNotRecorded) {
    StartSession();
    RegisterProvider();
    const TRACEHANDLE ended = told_.logger;
    EXPECT_TRUE(Send(ended, "in time"));
    ASSERT_EQ(Stop(), 0u);
    EXPECT_FALSE(Send(ended, "late"));
    EXPECT_EQ(ReadBack().records.size(), 1u);
    StartSession();
    EXPECT_FALSE(Send(ended, "late"));
    EXPECT_EQ(ReadBack().records.size(), 0u);
}

TEST_F(Tracing, RecordingBeginsWithItsHead) {
    Properties properties;
    properties.head.MaximumFileSize = 3;
    properties.head.LogFileMode = EVENT_TRACE_FILE_MODE_SEQUENTIAL;
    StartSession(properties);
    ASSERT_EQ(ReadBack().headers.size(), 1u);
    EXPECT_EQ(ReadBack().header.EndTime.QuadPart, 0) << "it goes on";
    ASSERT_EQ(Stop(), 0u);
    const Recording recording = ReadBack();
    ASSERT_EQ(recording.headers.size(), 1u);
    for (const TRACE_LOGFILE_HEADER& header : {recording.header, recording.headers[0]}) {
        EXPECT_EQ(header.MaximumFileSize, 3u);
        EXPECT_EQ(header.LogFileMode, static_cast<ULONG>(EVENT_TRACE_FILE_MODE_SEQUENTIAL));
        EXPECT_EQ(header.PointerSize, 8u);
        EXPECT_GT(header.StartTime.QuadPart, 0);
        EXPECT_GE(header.EndTime.QuadPart, header.StartTime.QuadPart);
        EXPECT_EQ(header.EventsLost, 0u);
    }
}

TEST_F(Tracing, MessagesOfSeveralThreadsAreAllRecorded) {
    StartSession();
    RegisterProvider();
    std::vector<std::thread> senders;
    for (int i = 0; i < 4; ++i)
        senders.emplace_back([this] {
            for (int n = 0; n < 200; ++n)
                Send(told_.logger, "x");
        });
    for (std::thread& sender : senders)
        sender.join();
    EXPECT_EQ(ReadBack().records.size(), 800u);
}

TEST_F(Tracing, OnlyMessagesOfTheTimeThatIsAskedForAreDelivered) {
    StartSession();
    RegisterProvider();
    for (const char* text : {"first", "second", "third"}) {
        Send(told_.logger, text);
        ::Sleep(20);
    }
    const LARGE_INTEGER at = ReadBack().records.at(1).EventHeader.TimeStamp;
    const FILETIME second = {at.LowPart, static_cast<DWORD>(at.HighPart)};
    EXPECT_EQ(ReadBack(&second, nullptr).texts, Texts({"second", "third"}));
    EXPECT_EQ(ReadBack(nullptr, &second).texts, Texts({"first", "second"}));
    EXPECT_EQ(ReadBack(&second, &second).texts, Texts({"second"}));
}

// Recordings of former versions: a magic, and records behind it.
TEST_F(Tracing, RecordingOfAFormerVersionIsReadInTheOrderOfItsTimes) {
    struct Record {
        DWORD size = sizeof(Record);
        DWORD number = 17;
        ULONG64 time;
        DWORD process = 4;
        DWORD thread;
        GUID guid = kMessageGuid;
        char text[8];
    };
    const Record records[] = {{.time = 200, .thread = 5, .text = "  later"},
                              {.time = 100, .thread = 6, .text = "earlier"}};
    std::ofstream file(std::filesystem::path(kFile), std::ios::binary);
    file.write("WGTRACE2", 8);
    file.write(reinterpret_cast<const char*>(records), sizeof records);
    file.close();
    const Recording recording = ReadBack();
    EXPECT_EQ(recording.result, 0u);
    ASSERT_EQ(recording.records.size(), 2u);
    EXPECT_EQ(recording.texts[0].substr(0, 7), "earlier");
    EXPECT_EQ(recording.texts[1].substr(0, 7), "  later");
    EXPECT_EQ(recording.records[0].EventHeader.ThreadId, 6u);
    EXPECT_EQ(DecodedLines(), 2);
}

namespace {

/// Recordings with a maximal size, of messages that are numbered.
class LimitedRecording : public Tracing {
  protected:
    static constexpr ULONG kKilobytes = 16;
    void Start(ULONG mode) {
        Properties properties;
        properties.SetMaximum(mode, kKilobytes);
        StartSession(properties);
        RegisterProvider();
    }
    /// Sends messages of different lengths, numbers 1 to `count`.
    void SendNumbered(int count) {
        for (int i = 1; i <= count; ++i)
            Send(told_.logger, std::to_string(i) + std::string(static_cast<std::size_t>(i * 37 % 300), '.'));
    }
    static std::vector<int> Numbers(const Recording& recording) {
        std::vector<int> numbers;
        for (const std::string& text : recording.texts)
            numbers.push_back(std::stoi(text));
        return numbers;
    }
    static std::uintmax_t FileSize() { return std::filesystem::file_size(kFile); }
};

}  // namespace

TEST_F(LimitedRecording, ThatIsSequentialStopsWhenItIsFull) {
    Start(EVENT_TRACE_FILE_MODE_SEQUENTIAL);
    SendNumbered(1000);
    EXPECT_LE(FileSize(), kKilobytes * 1024u);
    EXPECT_GT(FileSize(), kKilobytes * 1024u - 400);
    EXPECT_EQ(Query().result, static_cast<ULONG>(ERROR_WMI_INSTANCE_NOT_FOUND)) << "the session has ended";
    EXPECT_TRUE(IsTold(WMI_DISABLE_EVENTS));
    const Recording recording = ReadBack();
    EXPECT_EQ(recording.result, 0u);
    const std::vector<int> numbers = Numbers(recording);
    ASSERT_GT(numbers.size(), 50u);
    for (std::size_t i = 0; i < numbers.size(); ++i)
        EXPECT_EQ(numbers[i], static_cast<int>(i) + 1) << "the oldest are kept";
    EXPECT_EQ(recording.header.EventsLost, 1u) << "the one that had no room";
    EXPECT_NE(recording.header.EndTime.QuadPart, 0);
}

TEST_F(LimitedRecording, ThatIsCircularKeepsTheNewest) {
    Start(EVENT_TRACE_FILE_MODE_CIRCULAR);
    for (const int count : {10, 90, 97, 150, 1000, 1001}) {
        SendNumbered(count);
        EXPECT_LE(FileSize(), kKilobytes * 1024u);
        const Recording recording = ReadBack();
        EXPECT_EQ(recording.result, 0u);
        const std::vector<int> numbers = Numbers(recording);
        ASSERT_GE(numbers.size(), std::min(static_cast<std::size_t>(count), std::size_t{50}));
        for (std::size_t i = 0; i < std::min(numbers.size(), static_cast<std::size_t>(count)); ++i)
            ASSERT_EQ(numbers[numbers.size() - 1 - i], count - static_cast<int>(i)) << count;
        EXPECT_EQ(DecodedLines(), static_cast<int>(numbers.size()));
    }
    const Statistics statistics = Query();
    EXPECT_EQ(statistics.result, 0u) << "the session goes on";
    EXPECT_EQ(statistics.properties.head.EventsLost, 0u) << "what was replaced is not lost";
    EXPECT_EQ(statistics.properties.head.LogFileMode & EVENT_TRACE_FILE_MODE_CIRCULAR,
              static_cast<ULONG>(EVENT_TRACE_FILE_MODE_CIRCULAR));
    const ULONG buffers = statistics.properties.head.BuffersWritten;
    EXPECT_GT(buffers, 5u) << "every round counts";
    EXPECT_EQ(ReadBack().header.BuffersWritten, buffers);
    const std::string told = "circular and was full: of " + std::to_string(buffers) + " buffers the oldest " +
                             std::to_string(buffers - 1) + " were written over.\n";
    EXPECT_NE(Decoded().output.find(told), std::string::npos) << Decoded().output;
}

TEST_F(LimitedRecording, ThatIsCircularIsReadAsFarAsItIsWhole) {
    Start(EVENT_TRACE_FILE_MODE_CIRCULAR);
    SendNumbered(200);
    ASSERT_EQ(Stop(), 0u);
    std::filesystem::resize_file(kFile, FileSize() / 2);
    const Recording recording = ReadBack();
    EXPECT_EQ(recording.result, static_cast<ULONG>(ERROR_FILE_CORRUPT));
}

TEST_F(Tracing, MessageThatIsLargerThanABufferIsLost) {
    StartSession();
    RegisterProvider();
    EXPECT_TRUE(Send(told_.logger, std::string(65536 - 72, 'x')));
    const std::string large(65536 - 71, 'x');
    EXPECT_EQ(::TraceMessage(told_.logger, 0x2B, &kMessageGuid, 17, large.data(), large.size(), nullptr),
              static_cast<ULONG>(ERROR_MORE_DATA));
    EXPECT_EQ(Query().properties.head.EventsLost, 1u);
    EXPECT_EQ(Query().properties.head.LogBuffersLost, 0u);
    EXPECT_EQ(ReadBack().records.size(), 1u);
}

TEST_F(Tracing, MessagesThatCannotBeWrittenAreCountedAsLost) {
    StartSession();
    RegisterProvider();
    const std::wstring elsewhere = std::wstring(kFile) + L".elsewhere";
    ASSERT_TRUE(::MoveFileExW(kFile, elsewhere.c_str(), MOVEFILE_REPLACE_EXISTING));
    EXPECT_FALSE(Send(told_.logger, "lost"));
    EXPECT_FALSE(Send(told_.logger, "lost"));
    ASSERT_TRUE(::MoveFileExW(elsewhere.c_str(), kFile, 0));
    EXPECT_TRUE(Send(told_.logger, "recorded"));
    EXPECT_EQ(Query().properties.head.EventsLost, 2u);
    EXPECT_EQ(Query().properties.head.LogBuffersLost, 2u);

    Properties properties;
    ASSERT_EQ(::ControlTraceW(session_, nullptr, properties.Get(), EVENT_TRACE_CONTROL_STOP), 0u);
    EXPECT_EQ(properties.head.EventsLost, 2u) << "the stop tells it too";
    const Recording recording = ReadBack();
    EXPECT_EQ(recording.texts, Texts({"recorded"}));
    EXPECT_EQ(recording.header.EventsLost, 2u) << "and the recording";
    EXPECT_EQ(recording.header.BuffersLost, 2u);
    EXPECT_NE(Decoded().output.find(
                  "tessactl: 2 events and 2 buffers were lost while this was recorded; they are "),
              std::string::npos)
        << "and the tool";
    StartSession();
    EXPECT_EQ(Query().properties.head.EventsLost, 0u) << "of another session";
}
