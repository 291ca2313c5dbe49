#include "event_log_stand_in.h"

#include <windows.h>
#include <sddl.h>

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

// The stand-in's event log answers as Windows is documented to.
namespace {

using namespace event_log_stand_in;

/// A file that does not exist before and after.
class BackupFile {
  public:
    BackupFile() { ::DeleteFileW(path); }
    ~BackupFile() { ::DeleteFileW(path); }
    BackupFile(const BackupFile&) = delete;
    BackupFile& operator=(const BackupFile&) = delete;
    void Write(const std::string& bytes) const {
        const HANDLE file = ::CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        DWORD written = 0;
        ::WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
        ::CloseHandle(file);
    }
    static bool Exists() { return ::GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES; }

    static constexpr wchar_t path[] = L"C:\\windows\\temp\\stand_in_test.evt";
};

/// The one record of a buffer, and what its offsets point at.
struct RecordView {
    explicit RecordView(const std::vector<BYTE>& bytes) : base(bytes.data()) {
        std::memcpy(&fields, base, sizeof fields);
    }
    std::wstring TextAt(DWORD offset) const { return reinterpret_cast<const wchar_t*>(base + offset); }
    const BYTE* base;
    EVENTLOGRECORD fields = {};
};

/// The bytes of a SID in text form.
std::vector<BYTE> SidOf(const wchar_t* text) {
    PSID sid = nullptr;
    EXPECT_TRUE(::ConvertStringSidToSidW(text, &sid));
    const auto* bytes = static_cast<const BYTE*>(sid);
    std::vector<BYTE> copy(bytes, bytes + ::GetLengthSid(sid));
    ::LocalFree(sid);
    return copy;
}

class ReportOfAnEvent : public EventLogOfTheTest {
  protected:
    DWORD Report(WORD type, const std::vector<std::wstring>& strings, DWORD dataSize = 0,
                 PSID sid = nullptr) const {
        std::vector<const wchar_t*> pointers;
        for (const std::wstring& text : strings)
            pointers.push_back(text.c_str());
        std::vector<BYTE> data(dataSize, 0x5A);
        return ErrorOf(::ReportEventW(log_, type, 3, 0x100, sid, static_cast<WORD>(strings.size()), dataSize,
                                      pointers.data(), data.data()));
    }
};

std::wstring ComputerName() {
    wchar_t name[256] = {};
    DWORD length = ARRAYSIZE(name);
    ::GetComputerNameW(name, &length);
    return name;
}

}  // namespace

TEST_F(EventLogOfTheTest, ParametersAreCheckedBeforeTheHandle) {
    DWORD number = 0;
    BYTE buffer[16];
    EXPECT_EQ(ErrorOf(::GetNumberOfEventLogRecords(nullptr, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ErrorOf(::GetOldestEventLogRecord(nullptr, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ErrorOf(::BackupEventLogW(nullptr, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ErrorOf(::ReadEventLogW(nullptr, 0, 0, buffer, sizeof buffer, &number, &number)),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ErrorOf(::ReportEventW(nullptr, 1, 0, 0, nullptr, 1, 0, nullptr, nullptr)),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ErrorOf(::GetNumberOfEventLogRecords(nullptr, &number)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ErrorOf(::GetOldestEventLogRecord(nullptr, &number)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ErrorOf(::BackupEventLogW(nullptr, BackupFile::path)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ErrorOf(::ClearEventLogW(nullptr, nullptr)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ErrorOf(::ReadEventLogW(nullptr, kForwards, 0, buffer, sizeof buffer, &number, &number)),
              DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ErrorOf(::ReportEventW(nullptr, 1, 0, 0, nullptr, 0, 0, nullptr, nullptr)),
              DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(number, 0u) << "left alone";
}

TEST_F(EventLogOfTheTest, NullPointersAreInvalidParameters) {
    Append(1);
    DWORD read = 7;
    DWORD needed = 7;
    BYTE buffer[1024];
    EXPECT_EQ(ErrorOf(::GetNumberOfEventLogRecords(log_, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ErrorOf(::GetOldestEventLogRecord(log_, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ErrorOf(::ReadEventLogW(log_, kForwards, 0, nullptr, 0, &read, &needed)),
              DWORD{ERROR_INVALID_PARAMETER})
        << "also for a buffer of no size";
    EXPECT_EQ(ErrorOf(::ReadEventLogW(log_, kForwards, 0, buffer, sizeof buffer, nullptr, &needed)),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ErrorOf(::ReadEventLogW(log_, kForwards, 0, buffer, sizeof buffer, &read, nullptr)),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(read, 7u);
    EXPECT_EQ(needed, 7u);
    EXPECT_EQ(::OpenEventLogW(L"IDontExist", nullptr), nullptr);
    EXPECT_EQ(::GetLastError(), DWORD{ERROR_INVALID_PARAMETER}) << "looked at before the server's name";
    EXPECT_EQ(::RegisterEventSourceW(nullptr, nullptr), nullptr);
    EXPECT_EQ(::GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(::OpenBackupEventLogW(L"IDontExist", nullptr), nullptr);
    EXPECT_EQ(::GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
}

TEST_F(EventLogOfTheTest, HandleThatWasClosedIsInvalid) {
    const HANDLE log = ::OpenEventLogW(nullptr, kLog);
    EXPECT_TRUE(::CloseEventLog(log));
    EXPECT_EQ(ErrorOf(::CloseEventLog(log)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ErrorOf(::DeregisterEventSource(log)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ErrorOf(::CloseEventLog(nullptr)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ReadFrom(log, kForwards, 0).error, DWORD{ERROR_INVALID_HANDLE});
}

TEST_F(EventLogOfTheTest, ReadNeedsOneWayOfPositioningAndOneDirection) {
    Append(1);
    for (const DWORD positioning : {0u, 1u, 2u, 3u})
        for (const DWORD direction : {0u, 4u, 8u, 12u}) {
            SCOPED_TRACE(positioning | direction);
            const bool isOne = (positioning == 1 || positioning == 2) && (direction == 4 || direction == 8);
            OpenAgain();
            EXPECT_EQ(ReadFrom(log_, positioning | direction, 1).error,
                      isOne ? DWORD{ERROR_SUCCESS} : DWORD{ERROR_INVALID_PARAMETER});
        }
}

TEST_F(EventLogOfTheTest, LargestBufferHas0x7FFFFBytes) {
    Append(2);
    EXPECT_EQ(ReadFrom(log_, kForwards, 0, 0x80000).error, DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Read(kForwards, 0, 0x7FFFF), (Numbers{1, 2}));
}

TEST_F(EventLogOfTheTest, SeeksToAnyRecordAndReadsOnFromThere) {
    Append(5);
    EXPECT_EQ(Read(kSeekForwards, 3), (Numbers{3, 4, 5}));
    EXPECT_EQ(ReadFrom(log_, kForwards, 0).error, DWORD{ERROR_HANDLE_EOF});
    Append(1);
    EXPECT_EQ(Read(kForwards), (Numbers{6}));
    EXPECT_EQ(Read(kSeekForwards, 6), (Numbers{6}));
    for (const DWORD absent : {DWORD{0}, DWORD{7}, DWORD{0xFFFFFFFF}}) {
        EXPECT_EQ(ReadFrom(log_, kSeekForwards, absent).error, DWORD{ERROR_INVALID_PARAMETER});
        EXPECT_EQ(ReadFrom(log_, kSeekBackwards, absent).error, DWORD{ERROR_INVALID_PARAMETER});
    }
}

TEST_F(EventLogOfTheTest, FirstReadBackwardsBeginsWithTheNewestRecord) {
    Append(4);
    EXPECT_EQ(Read(kBackwards), (Numbers{4, 3, 2, 1}));
    EXPECT_EQ(ReadFrom(log_, kBackwards, 0).error, DWORD{ERROR_HANDLE_EOF});
    OpenAgain();
    Append(1);
    EXPECT_EQ(Read(kBackwards), (Numbers{5, 4, 3, 2, 1})) << "newest when it is read, not when it is opened";
}

TEST_F(EventLogOfTheTest, ReadsBackwardsInPiecesThatFitTheBuffer) {
    Append(5);
    const DWORD length = ReadFrom(log_, kSeekForwards, 5).read;
    EXPECT_EQ(Read(kSeekBackwards, 5, 2 * length + 1), (Numbers{5, 4}));
    EXPECT_EQ(Read(kBackwards, 0, length), (Numbers{3}));
    const Result small = ReadFrom(log_, kBackwards, 0, length - 1);
    EXPECT_EQ(small.error, DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(small.needed, length);
    EXPECT_EQ(Read(kBackwards), (Numbers{2, 1})) << "the failed read has not moved";
}

TEST_F(EventLogOfTheTest, SeeksBackwardsToAnyRecordAndTurnsRoundThere) {
    Append(5);
    EXPECT_EQ(Read(kSeekBackwards, 3), (Numbers{3, 2, 1}));
    EXPECT_EQ(Read(kForwards), (Numbers{1, 2, 3, 4, 5}));
    EXPECT_EQ(Read(kBackwards), (Numbers{5, 4, 3, 2, 1}));
}

TEST_F(EventLogOfTheTest, SizesAreToldOnlyOfASuccessAndOfASmallBuffer) {
    Append(1);
    const Result small = ReadFrom(log_, kForwards, 0, 16);
    EXPECT_EQ(small.error, DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(small.read, 0u);
    EXPECT_GT(small.needed, sizeof(EVENTLOGRECORD));
    const Result fits = ReadFrom(log_, kForwards, 0, small.needed);
    EXPECT_EQ(fits.error, 0u);
    EXPECT_EQ(fits.read, small.needed);
    EXPECT_EQ(fits.needed, 0u);
    const Result end = ReadFrom(log_, kForwards, 0);
    EXPECT_EQ(end.error, DWORD{ERROR_HANDLE_EOF});
    EXPECT_EQ(end.read, 0xDEADBEEF);
    EXPECT_EQ(end.needed, 0xDEADBEEF);
}

TEST_F(EventLogOfTheTest, ServerIsThisComputerOrUnavailable) {
    const std::wstring computer = ComputerName();
    for (const std::wstring& server : {std::wstring(), computer, L"\\\\" + computer}) {
        const HANDLE log = ::OpenEventLogW(server.c_str(), kLog);
        EXPECT_TRUE(::CloseEventLog(log)) << server;
        const HANDLE source = ::RegisterEventSourceW(server.c_str(), kLog);
        EXPECT_TRUE(::DeregisterEventSource(source)) << server;
    }
    for (const wchar_t* server : {L"IDontExist", L"\\\\IDontExist"}) {
        EXPECT_EQ(::OpenEventLogW(server, kLog), nullptr);
        EXPECT_EQ(::GetLastError(), DWORD{RPC_S_SERVER_UNAVAILABLE});
        EXPECT_EQ(::RegisterEventSourceW(server, kLog), nullptr);
        EXPECT_EQ(::GetLastError(), DWORD{RPC_S_SERVER_UNAVAILABLE});
        EXPECT_EQ(::OpenBackupEventLogW(server, BackupFile::path), nullptr);
        EXPECT_EQ(::GetLastError(), DWORD{RPC_S_SERVER_UNAVAILABLE});
    }
}

TEST_F(EventLogOfTheTest, NameOfASourceOpensItsLogWhicheverThatIs) {
    testLog_.AddSource(kSource);
    Append(3);
    const HANDLE bySource = ::OpenEventLogW(nullptr, kSource);
    DWORD count = 0;
    EXPECT_TRUE(::GetNumberOfEventLogRecords(bySource, &count));
    EXPECT_EQ(count, 3u);
    ::CloseEventLog(bySource);
}

TEST_F(EventLogOfTheTest, EventsOfASourceGoIntoItsLogWhicheverThatIs) {
    testLog_.AddSource(kSource);
    const HANDLE source = ::RegisterEventSourceW(nullptr, kSource);
    EXPECT_TRUE(::ReportEventW(source, EVENTLOG_WARNING_TYPE, 0, 1, nullptr, 0, 0, nullptr, nullptr));
    DWORD count = 0;
    EXPECT_TRUE(::GetNumberOfEventLogRecords(source, &count)) << "the handle reads, too";
    EXPECT_EQ(count, 1u);
    EXPECT_TRUE(::DeregisterEventSource(source));
    const Result result = ReadFrom(log_, kForwards, 0);
    ASSERT_EQ(result.error, 0u);
    EXPECT_EQ(RecordView(result.buffer).TextAt(sizeof(EVENTLOGRECORD)), kSource);
}

TEST_F(EventLogOfTheTest, UnknownNameOpensTheApplicationLog) {
    const wine_gap::EventLogFile application(L"Application");
    for (const wchar_t* name : {L"of nobody", L"Application", L"Application\\below"}) {
        const HANDLE log = ::OpenEventLogW(nullptr, name);
        DWORD before = 0;
        DWORD after = 0;
        EXPECT_TRUE(::GetNumberOfEventLogRecords(log, &before));
        EXPECT_TRUE(::ReportEventW(log, EVENTLOG_WARNING_TYPE, 0, 1, nullptr, 0, 0, nullptr, nullptr));
        EXPECT_TRUE(::GetNumberOfEventLogRecords(log, &after));
        EXPECT_EQ(after, application.State().Count());
        EXPECT_NE(before, after);
        ::CloseEventLog(log);
    }
}

TEST_F(EventLogOfTheTest, SecurityLogIsReadButNotWritten) {
    EXPECT_EQ(::RegisterEventSourceW(nullptr, L"Security"), nullptr);
    EXPECT_EQ(::GetLastError(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_TRUE(::CloseEventLog(::OpenEventLogW(nullptr, L"Security")));
}

TEST_F(ReportOfAnEvent, IsReadBackWithItsPartsWhereTheyAreDocumentedToBe) {
    std::vector<BYTE> sid = SidOf(L"S-1-5-21-1-2-3-1001");
    ASSERT_EQ(Report(EVENTLOG_AUDIT_FAILURE, {L"odd", L"second"}, 5, sid.data()), 0u);
    const Result result = ReadFrom(log_, kForwards, 0);
    ASSERT_EQ(result.error, 0u);
    const RecordView record(result.buffer);
    EXPECT_EQ(record.fields.Length, result.read);
    EXPECT_EQ(record.fields.Length % sizeof(DWORD), 0u);
    EXPECT_EQ(*reinterpret_cast<const DWORD*>(record.base + result.read - sizeof(DWORD)), result.read);
    EXPECT_EQ(record.fields.Reserved, 0x654c664cu);
    EXPECT_EQ(record.fields.EventType, EVENTLOG_AUDIT_FAILURE);
    EXPECT_EQ(record.fields.EventCategory, 3);
    EXPECT_EQ(record.fields.EventID, 0x100u);
    const std::wstring source = record.TextAt(sizeof(EVENTLOGRECORD));
    EXPECT_EQ(source, kLog);
    const auto afterSource =
        static_cast<DWORD>(sizeof(EVENTLOGRECORD) + (source.length() + 1) * sizeof(wchar_t));
    EXPECT_FALSE(record.TextAt(afterSource).empty()) << "the computer's name";
    EXPECT_EQ(record.fields.UserSidOffset % sizeof(DWORD), 0u);
    EXPECT_EQ(std::vector<BYTE>(record.base + record.fields.UserSidOffset,
                                record.base + record.fields.UserSidOffset + record.fields.UserSidLength),
              sid);
    EXPECT_EQ(record.fields.StringOffset, record.fields.UserSidOffset + record.fields.UserSidLength);
    EXPECT_EQ(record.TextAt(record.fields.StringOffset), L"odd");
    EXPECT_EQ(record.TextAt(record.fields.StringOffset + 8), L"second");
    EXPECT_EQ(record.fields.DataOffset % sizeof(ULONGLONG), 0u);
    EXPECT_EQ(record.fields.DataLength, 5u);
    EXPECT_EQ(record.base[record.fields.DataOffset + 4], 0x5A);
}

TEST_F(ReportOfAnEvent, WithoutAUserHasNoSidAndItsStringsInItsPlace) {
    ASSERT_EQ(Report(EVENTLOG_SUCCESS, {L"text"}), 0u);
    const Result result = ReadFrom(log_, kForwards, 0);
    const RecordView record(result.buffer);
    EXPECT_EQ(record.fields.EventType, EVENTLOG_SUCCESS);
    EXPECT_EQ(record.fields.UserSidLength, 0u);
    EXPECT_EQ(record.fields.StringOffset, record.fields.UserSidOffset);
}

TEST_F(ReportOfAnEvent, OfNonsenseIsRefused) {
    BYTE noSid[68] = {0xFF};
    EXPECT_EQ(Report(0x20, {}), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Report(1, {}, 0, noSid), DWORD{ERROR_INVALID_SID});
    EXPECT_EQ(ErrorOf(::ReportEventW(log_, 1, 0, 0, nullptr, 0, 1, nullptr, nullptr)),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(Count(), 0u);
}

TEST_F(ReportOfAnEvent, HasAtMost256Strings) {
    EXPECT_EQ(Report(1, std::vector<std::wstring>(257)), DWORD{RPC_S_INVALID_BOUND});
    EXPECT_EQ(Report(1, std::vector<std::wstring>(256)), 0u);
    EXPECT_EQ(Count(), 1u);
}

TEST_F(ReportOfAnEvent, HasStringsOfAtMost31839Characters) {
    EXPECT_EQ(Report(1, {L"text", std::wstring(31840, L'x')}), DWORD{RPC_S_INVALID_BOUND});
    EXPECT_EQ(Report(1, {L"text", std::wstring(31839, L'x')}), 0u);
}

TEST_F(ReportOfAnEvent, HasAtMost61440BytesOfData) {
    EXPECT_EQ(Report(1, {}, 61441), DWORD{RPC_S_INVALID_BOUND});
    EXPECT_EQ(Report(1, {}, 61440), 0u);
}

TEST_F(EventLogOfTheTest, EmptyLogHasTheOldestRecord0) {
    EXPECT_EQ(Count(), 0u);
    EXPECT_EQ(Oldest(), 0u);
    Append(2);
    EXPECT_EQ(Count(), 2u);
    EXPECT_EQ(Oldest(), 1u);
}

TEST_F(EventLogOfTheTest, OlderHalfIsDroppedAtTheLimitAndReadersGoOn) {
    testLog_.Limit(20000);
    Append(1);
    EXPECT_EQ(Read(kForwards), (Numbers{1}));
    for (int i = 0; i < 500; ++i)
        Append(1);
    EXPECT_LT(Count(), 250u);
    EXPECT_GT(Count(), 50u);
    EXPECT_EQ(Oldest() + Count() - 1, 501u) << "numbers go on";
    const Numbers numbers = Read(kForwards);
    EXPECT_EQ(numbers.front(), Oldest());
    EXPECT_EQ(numbers.back(), 501u);
    EXPECT_EQ(Read(kBackwards).back(), Oldest());
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

TEST_F(EventLogOfTheTest, ClearedLogCannotBeReadByHandlesFromBeforeAndNumbersGoOn) {
    Append(3);
    EXPECT_EQ(Read(kForwards), (Numbers{1, 2, 3}));
    EXPECT_TRUE(::ClearEventLogW(log_, nullptr));
    EXPECT_EQ(Count(), 0u);
    EXPECT_EQ(Oldest(), 0u);
    Append(2);
    EXPECT_EQ(Oldest(), 4u);
    EXPECT_EQ(ReadFrom(log_, kForwards, 0).error, DWORD{ERROR_EVENTLOG_FILE_CHANGED});
    OpenAgain();
    EXPECT_EQ(Read(kForwards), (Numbers{4, 5}));
}

TEST_F(EventLogOfTheTest, ClearingWithABackupKeepsTheRecordsThere) {
    const BackupFile backup;
    Append(3);
    EXPECT_TRUE(::ClearEventLogW(log_, BackupFile::path));
    EXPECT_EQ(Count(), 0u);
    const HANDLE saved = ::OpenBackupEventLogW(nullptr, BackupFile::path);
    DWORD count = 0;
    EXPECT_TRUE(::GetNumberOfEventLogRecords(saved, &count));
    EXPECT_EQ(count, 3u);
    ::CloseEventLog(saved);
}

TEST_F(EventLogOfTheTest, ClearingWithABackupThatExistsLeavesTheLogAlone) {
    const BackupFile backup;
    backup.Write("something else");
    Append(3);
    EXPECT_EQ(ErrorOf(::ClearEventLogW(log_, BackupFile::path)), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_EQ(Count(), 3u);
    EXPECT_EQ(ErrorOf(::ClearEventLogW(log_, L"C:\\no such folder\\backup.evt")),
              DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(Count(), 3u);
    EXPECT_EQ(Read(kForwards), (Numbers{1, 2, 3}));
}

TEST_F(EventLogOfTheTest, BackupIsReadLikeALogAndOverwritesNothing) {
    const BackupFile backup;
    Append(3);
    EXPECT_TRUE(::BackupEventLogW(log_, BackupFile::path));
    EXPECT_EQ(ErrorOf(::BackupEventLogW(log_, BackupFile::path)), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_EQ(Count(), 3u) << "not cleared";
    Append(1);
    ::CloseEventLog(log_);
    log_ = ::OpenBackupEventLogW(L"", BackupFile::path);
    EXPECT_EQ(Count(), 3u);
    EXPECT_EQ(Oldest(), 1u);
    EXPECT_EQ(Read(kForwards), (Numbers{1, 2, 3}));
    EXPECT_EQ(Read(kSeekBackwards, 2), (Numbers{2, 1}));
}

TEST_F(EventLogOfTheTest, BackupIsNeitherWrittenNorClearedNorWatchedButBackedUpAgain) {
    const BackupFile backup;
    Append(1);
    EXPECT_TRUE(::BackupEventLogW(log_, BackupFile::path));
    ::CloseEventLog(log_);
    log_ = ::OpenBackupEventLogW(nullptr, BackupFile::path);
    EXPECT_EQ(ErrorOf(::ReportEventW(log_, 1, 0, 1, nullptr, 0, 0, nullptr, nullptr)),
              DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ErrorOf(::ClearEventLogW(log_, nullptr)), DWORD{ERROR_INVALID_HANDLE});
    const HANDLE event = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_EQ(ErrorOf(::NotifyChangeEventLog(log_, event)), DWORD{ERROR_INVALID_HANDLE});
    ::CloseHandle(event);
    constexpr wchar_t kSecond[] = L"C:\\windows\\temp\\stand_in_test_2.evt";
    ::DeleteFileW(kSecond);
    EXPECT_TRUE(::BackupEventLogW(log_, kSecond));
    EXPECT_TRUE(::DeleteFileW(kSecond));
}

TEST_F(EventLogOfTheTest, BackupThatIsNoneIsNotOpened) {
    const BackupFile backup;
    EXPECT_EQ(::OpenBackupEventLogW(nullptr, BackupFile::path), nullptr);
    EXPECT_EQ(::GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_FALSE(BackupFile::Exists());
    for (const char* bytes : {"", "Just some text"}) {
        backup.Write(bytes);
        EXPECT_EQ(::OpenBackupEventLogW(nullptr, BackupFile::path), nullptr);
        EXPECT_EQ(::GetLastError(), DWORD{ERROR_EVENTLOG_FILE_CORRUPT});
    }
}

TEST_F(EventLogOfTheTest, HandlesFromBeforeARestartOfTheServiceAreInvalid) {
    Append(1);
    const EventLogSetting restarts(wine_gap::kServiceRestarts, 1);
    DWORD count = 0;
    EXPECT_EQ(ErrorOf(::GetNumberOfEventLogRecords(log_, &count)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ReadFrom(log_, kForwards, 0).error, DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ErrorOf(::ReportEventW(log_, 1, 0, 1, nullptr, 0, 0, nullptr, nullptr)),
              DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ErrorOf(::CloseEventLog(log_)), DWORD{ERROR_INVALID_HANDLE});
    log_ = nullptr;
    OpenAgain();
    EXPECT_EQ(Read(kForwards), (Numbers{1}));
    ::CloseEventLog(log_);
    log_ = nullptr;
}

TEST_F(EventLogOfTheTest, ServiceThatDoesNotRunHasNoInterface) {
    Append(1);
    {
        const EventLogSetting stopped(wine_gap::kServiceIsStopped, 1);
        EXPECT_EQ(::OpenEventLogW(nullptr, kLog), nullptr);
        EXPECT_EQ(::GetLastError(), DWORD{RPC_S_UNKNOWN_IF});
        EXPECT_EQ(::RegisterEventSourceW(nullptr, kLog), nullptr);
        EXPECT_EQ(::GetLastError(), DWORD{RPC_S_UNKNOWN_IF});
        EXPECT_EQ(ReadFrom(log_, kForwards, 0).error, DWORD{RPC_S_UNKNOWN_IF});
    }
    EXPECT_EQ(Read(kForwards), (Numbers{1}));
}

TEST_F(EventLogOfTheTest, AccessThatIsDeniedIsDeniedToThoseWhoOpenTheLog) {
    Append(1);
    testLog_.AddSource(kSource);
    const EventLogSetting denied(wine_gap::kAccessDeniedTo, kLog);
    for (const wchar_t* name : {kLog, kSource}) {
        EXPECT_EQ(::OpenEventLogW(nullptr, name), nullptr);
        EXPECT_EQ(::GetLastError(), DWORD{ERROR_ACCESS_DENIED});
        EXPECT_EQ(::RegisterEventSourceW(nullptr, name), nullptr);
        EXPECT_EQ(::GetLastError(), DWORD{ERROR_ACCESS_DENIED});
    }
    EXPECT_EQ(Read(kForwards), (Numbers{1})) << "a handle from before is good";
    EXPECT_TRUE(::CloseEventLog(::OpenEventLogW(nullptr, L"Application")));
}
