#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "trace_session.h"

/// A recorded file. Its records stand one behind the other, oldest first; where the recording is circular,
/// they begin again behind the head when the file is full, and whole records at the front make room.
namespace wine_gap {

struct TraceFileHeader {
    char magic[8];
    static constexpr char kMagic[9] = "WGTRACE3";
    /// Recordings of former versions, nothing but records behind these eight characters.
    static constexpr char kFormerMagic[9] = "WGTRACE2";

    ULONG mode;             // as in EVENT_TRACE_PROPERTIES
    ULONG maximumFileSize;  // the same
    ULONG bufferSize;       // KB
    ULONG eventsLost;       // both 0 until the session has ended
    ULONG buffersLost;
    ULONG rounds;          // how often a circular recording has begun again behind the head
    ULONG64 session;       // its handle
    ULONG64 maximumBytes;  // 0: none
    ULONG64 startTime;     // file times
    ULONG64 endTime;       // 0 until the session has ended

    // Of a circular recording, offsets in the file. Its records are those from `oldest` on to `wrap`, and
    // then those from the head on to `end`; if `wrap` is 0, those from the head on to `end`.
    ULONG64 oldest;
    ULONG64 end;
    ULONG64 wrap;
};

/// Head of one recorded message; the arguments' bytes follow, `size` bytes in all.
struct TraceFileRecord {
    DWORD size;
    DWORD messageNumber;
    ULONG64 timeStamp;  // file time, 100 ns units since 1601 UTC
    DWORD processId;
    DWORD threadId;
    GUID messageGuid;
};

/// How many buffers were written, those that were replaced in a circular recording included.
/// @param fileSize of the recording, in bytes
ULONG BuffersWritten(const TraceFileHeader& header, ULONG64 fileSize);

/// The same of a session's file; 0 if that cannot be read.
ULONG BuffersWrittenInto(const std::wstring& path);

/// Makes the file of a session, over one that is there.
ULONG CreateTraceFile(const TraceSession& session, ULONG64 startTime);

/// Puts down the end of the recording; does nothing if the file is gone or another. Called with the file's
/// lock.
void FinishTraceFile(const std::wstring& path, const TraceLosses& losses);

/// Opens it for AppendRecord; INVALID_HANDLE_VALUE if that cannot be done. Shared with everybody: a process
/// that recorded into a former session of the file may still hold it open.
HANDLE OpenTraceFile(const std::wstring& path, DWORD disposition = OPEN_EXISTING);

/// Writes one whole record, or nothing.
/// @return ERROR_SUCCESS, ERROR_LOG_FILE_FULL if a recording that is not circular has reached its maximal
/// size,
///     ERROR_INVALID_HANDLE if the session has ended, or a system error code
ULONG AppendRecord(HANDLE file, ULONG64 session, const std::vector<BYTE>& record);

/// Bytes of a file, of which a part at a time is in memory.
class FileWindow {
  public:
    struct Closer {
        void operator()(HANDLE handle) const { ::CloseHandle(handle); }
    };
    using File = std::unique_ptr<void, Closer>;

    FileWindow() = default;
    /// @param size how much is in memory
    FileWindow(File file, std::size_t size) : file_(std::move(file)), size_(size) {}

    /// The bytes from an offset on; null if the file has not so many.
    const BYTE* At(ULONG64 offset, std::size_t count);

  private:
    File file_;
    std::size_t size_ = 0;
    ULONG64 begin_ = 0;
    std::vector<BYTE> bytes_;
};

/// A recording as it is read back. However long it is, it takes little memory.
struct TraceRecording {
    struct Record {
        ULONG64 offset;
        ULONG64 timeStamp;
    };
    TraceFileHeader header = {};  // of a former version's but for its magic empty
    ULONG64 bytes = 0;
    std::vector<Record> records;  // oldest first
    bool isCutOff = false;        // behind the last of them

    /// @return false if it is not there any more
    bool Read(const Record& record, TraceFileRecord& head, std::vector<BYTE>& arguments);

    FileWindow content;
};

/// @return ERROR_SUCCESS, ERROR_FILE_CORRUPT if it is no recording, or a system error code
DWORD ReadTraceFile(const std::wstring& path, TraceRecording& recording);

}  // namespace wine_gap
