#include "trace_file.h"

#include <evntrace.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "machine_lock.h"

namespace wine_gap {
namespace {

constexpr ULONG64 kFirstRecord = sizeof(TraceFileHeader);

bool ReadAt(HANDLE file, ULONG64 offset, void* data, DWORD size) {
    LARGE_INTEGER to;
    to.QuadPart = static_cast<LONGLONG>(offset);
    DWORD read = 0;
    return ::SetFilePointerEx(file, to, nullptr, FILE_BEGIN) &&
           ::ReadFile(file, data, size, &read, nullptr) && read == size;
}

ULONG WriteAt(HANDLE file, ULONG64 offset, const void* data, std::size_t size) {
    LARGE_INTEGER to;
    to.QuadPart = static_cast<LONGLONG>(offset);
    DWORD written = 0;
    if (!::SetFilePointerEx(file, to, nullptr, FILE_BEGIN) ||
        !::WriteFile(file, data, static_cast<DWORD>(size), &written, nullptr))
        return ::GetLastError();
    return written == size ? ERROR_SUCCESS : ERROR_DISK_FULL;
}

bool IsOfThisVersion(const TraceFileHeader& header) {
    return std::memcmp(header.magic, TraceFileHeader::kMagic, sizeof header.magic) == 0;
}

bool IsCircular(const TraceFileHeader& header) {
    return (header.mode & EVENT_TRACE_FILE_MODE_CIRCULAR) != 0;
}

ULONG AppendAtTheEnd(HANDLE file, const TraceFileHeader& header, const std::vector<BYTE>& record) {
    LARGE_INTEGER end = {};
    if (!::GetFileSizeEx(file, &end)) return ::GetLastError();
    const ULONG64 size = static_cast<ULONG64>(end.QuadPart);
    if (header.maximumBytes != 0 && size + record.size() > header.maximumBytes) return ERROR_LOG_FILE_FULL;
    const ULONG result = WriteAt(file, size, record.data(), record.size());
    if (result == ERROR_SUCCESS) return result;
    ::SetFilePointerEx(file, end, nullptr, FILE_BEGIN);  // no half record stays
    ::SetEndOfFile(file);
    return result;
}

/// Takes the oldest record of the former round out.
bool DropOldest(HANDLE file, TraceFileHeader& header) {
    DWORD size = 0;
    if (!ReadAt(file, header.oldest, &size, sizeof size) || size < sizeof(TraceFileRecord)) return false;
    header.oldest += size;
    if (header.oldest < header.wrap) return true;
    header.oldest = kFirstRecord;  // those from the head on are all that there are
    header.wrap = 0;
    return true;
}

/// Finds room for a record in a circular recording, at `header.end`.
bool MakeRoom(HANDLE file, TraceFileHeader& header, ULONG64 size) {
    if (header.wrap == 0 && header.end + size > header.maximumBytes) {
        header.wrap = header.end;
        header.oldest = header.end = kFirstRecord;
        ++header.rounds;
    }
    while (header.wrap != 0 && header.end + size > header.oldest)
        if (!DropOldest(file, header)) return false;
    return header.end + size <= header.maximumBytes || MakeRoom(file, header, size);
}

/// The head says first what is dropped, then the record is written, then the head says that it is there:
/// whenever a process is ended in between, whole records are left.
ULONG AppendCircular(HANDLE file, TraceFileHeader header, const std::vector<BYTE>& record) {
    if (kFirstRecord + record.size() > header.maximumBytes) return ERROR_LOG_FILE_FULL;
    if (!MakeRoom(file, header, record.size())) return ERROR_FILE_CORRUPT;
    ULONG result = WriteAt(file, 0, &header, sizeof header);
    if (result == ERROR_SUCCESS) result = WriteAt(file, header.end, record.data(), record.size());
    if (result != ERROR_SUCCESS) return result;
    header.end += record.size();
    return WriteAt(file, 0, &header, sizeof header);
}

/// Lists the whole records in a part of the file. @return false if one is cut off
bool ListRecords(TraceRecording& recording, ULONG64 from, ULONG64 to) {
    std::size_t at = static_cast<std::size_t>(from);
    const std::size_t end = static_cast<std::size_t>(std::min<ULONG64>(to, recording.bytes.size()));
    while (at < end) {
        DWORD size = 0;
        if (end - at < sizeof(TraceFileRecord)) return false;
        std::memcpy(&size, recording.bytes.data() + at, sizeof size);
        if (size < sizeof(TraceFileRecord) || size > end - at) return false;
        recording.records.push_back(at);
        at += size;
    }
    return end == to;
}

bool ReadWhole(HANDLE file, std::vector<BYTE>& bytes) {
    const MachineLock fileLock(kTraceFileLock);
    bytes.resize(::GetFileSize(file, nullptr));
    DWORD read = 0;
    return ::ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr) &&
           read == bytes.size();
}

}  // namespace

ULONG BuffersWritten(const TraceFileHeader& header, ULONG64 fileSize) {
    if (header.bufferSize == 0) return 0;  // of a former version
    const ULONG64 buffer = header.bufferSize * ULONG64{1024};
    const ULONG64 bytes = header.rounds == 0 ? fileSize : header.rounds * header.maximumBytes + header.end;
    return static_cast<ULONG>((bytes + buffer - 1) / buffer);
}

ULONG BuffersWrittenInto(const std::wstring& path) {
    const MachineLock fileLock(kTraceFileLock);
    const HANDLE file = OpenTraceFile(path);
    if (file == INVALID_HANDLE_VALUE) return 0;
    TraceFileHeader header;
    LARGE_INTEGER size = {};
    const bool isKnown =
        ReadAt(file, 0, &header, sizeof header) && IsOfThisVersion(header) && ::GetFileSizeEx(file, &size);
    ::CloseHandle(file);
    return isKnown ? BuffersWritten(header, static_cast<ULONG64>(size.QuadPart)) : 0;
}

HANDLE OpenTraceFile(const std::wstring& path, DWORD disposition) {
    return ::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, disposition,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
}

ULONG CreateTraceFile(const TraceSession& session, ULONG64 startTime) {
    const MachineLock fileLock(kTraceFileLock);
    const HANDLE file = OpenTraceFile(session.file, CREATE_ALWAYS);
    if (file == INVALID_HANDLE_VALUE) return ::GetLastError();
    TraceFileHeader header = {};
    std::memcpy(header.magic, TraceFileHeader::kMagic, sizeof header.magic);
    header.mode = session.mode;
    header.maximumFileSize = session.maximumFileSize;
    header.bufferSize = session.bufferSize;
    header.session = session.handle;
    header.maximumBytes = session.MaximumFileBytes();
    header.startTime = startTime;
    header.oldest = header.end = kFirstRecord;
    const ULONG result = WriteAt(file, 0, &header, sizeof header);
    ::CloseHandle(file);
    return result;
}

void FinishTraceFile(const std::wstring& path, const TraceLosses& losses) {
    const HANDLE file = OpenTraceFile(path);
    if (file == INVALID_HANDLE_VALUE) return;
    TraceFileHeader header;
    if (ReadAt(file, 0, &header, sizeof header) && IsOfThisVersion(header)) {
        header.eventsLost = losses.events;
        header.buffersLost = losses.buffers;
        ::GetSystemTimeAsFileTime(reinterpret_cast<FILETIME*>(&header.endTime));
        WriteAt(file, 0, &header, sizeof header);
    }
    ::CloseHandle(file);
}

ULONG AppendRecord(HANDLE file, ULONG64 session, const std::vector<BYTE>& record) {
    const MachineLock fileLock(kTraceFileLock);
    TraceFileHeader header;
    if (!ReadAt(file, 0, &header, sizeof header) || !IsOfThisVersion(header)) return ERROR_FILE_CORRUPT;
    if (header.session != session || header.endTime != 0) return ERROR_INVALID_HANDLE;
    return IsCircular(header) ? AppendCircular(file, header, record) : AppendAtTheEnd(file, header, record);
}

DWORD ReadTraceFile(const std::wstring& path, TraceRecording& recording) {
    const HANDLE file =
        ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                      nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return ::GetLastError();
    const bool isRead = ReadWhole(file, recording.bytes);
    const DWORD error = ::GetLastError();
    ::CloseHandle(file);
    if (!isRead) return error;
    constexpr std::size_t kMagicSize = sizeof TraceFileHeader::magic;
    TraceFileHeader& header = recording.header;
    const std::size_t size = recording.bytes.size();
    std::memcpy(&header, recording.bytes.data(), std::min(size, sizeof header));
    if (size >= kMagicSize && std::memcmp(header.magic, TraceFileHeader::kFormerMagic, kMagicSize) == 0) {
        header = {};
        recording.isCutOff = !ListRecords(recording, kMagicSize, size);
        return ERROR_SUCCESS;
    }
    if (size < sizeof header || !IsOfThisVersion(header)) return ERROR_FILE_CORRUPT;
    if (!IsCircular(header))
        recording.isCutOff = !ListRecords(recording, kFirstRecord, size);
    else if (header.wrap == 0)
        recording.isCutOff = !ListRecords(recording, kFirstRecord, header.end);
    else
        recording.isCutOff = header.oldest < kFirstRecord ||
                             !ListRecords(recording, header.oldest, header.wrap) ||
                             !ListRecords(recording, kFirstRecord, header.end);
    return ERROR_SUCCESS;
}

}  // namespace wine_gap
