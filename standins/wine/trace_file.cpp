#include "trace_file.h"

#include <evntrace.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

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
    ULONG64 at = from;
    const ULONG64 end = std::min(to, recording.bytes);
    while (at < end) {
        TraceFileRecord head;
        if (end - at < sizeof head) return false;
        const BYTE* bytes = recording.content.At(at, sizeof head);
        if (bytes == nullptr) return false;
        std::memcpy(&head, bytes, sizeof head);
        if (head.size < sizeof head || head.size > end - at) return false;
        recording.records.push_back({at, head.timeStamp});
        at += head.size;
    }
    return end == to;
}

/// Takes the file into use as it is at this moment: what is appended later does not count. One that is
/// written over as it is read is read at once.
DWORD Open(HANDLE opened, TraceRecording& recording) {
    constexpr std::size_t kWindow = 1 << 20;
    FileWindow::File file(opened);
    const MachineLock fileLock(kTraceFileLock);
    LARGE_INTEGER size = {};
    if (!::GetFileSizeEx(file.get(), &size)) return ::GetLastError();
    recording.bytes = static_cast<ULONG64>(size.QuadPart);
    const auto headSize = static_cast<DWORD>(std::min<ULONG64>(recording.bytes, sizeof recording.header));
    if (!ReadAt(file.get(), 0, &recording.header, headSize)) return ::GetLastError();
    const bool isWrittenOver =
        IsOfThisVersion(recording.header) && IsCircular(recording.header) && recording.header.endTime == 0;
    recording.content = FileWindow(std::move(file), isWrittenOver ? recording.bytes : kWindow);
    recording.content.At(0, isWrittenOver ? recording.bytes : headSize);
    return ERROR_SUCCESS;
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

const BYTE* FileWindow::At(ULONG64 offset, std::size_t count) {
    if (offset >= begin_ && offset - begin_ + count <= bytes_.size())
        return bytes_.data() + (offset - begin_);
    LARGE_INTEGER to;
    to.QuadPart = static_cast<LONGLONG>(offset);
    DWORD read = 0;
    bytes_.resize(std::max(size_, count));
    begin_ = offset;
    const bool isRead =
        ::SetFilePointerEx(file_.get(), to, nullptr, FILE_BEGIN) &&
        ::ReadFile(file_.get(), bytes_.data(), static_cast<DWORD>(bytes_.size()), &read, nullptr);
    bytes_.resize(isRead ? read : 0);
    return bytes_.size() >= count ? bytes_.data() : nullptr;
}

bool TraceRecording::Read(const Record& record, TraceFileRecord& head, std::vector<BYTE>& arguments) {
    const BYTE* bytes = content.At(record.offset, sizeof head);
    if (bytes == nullptr) return false;
    std::memcpy(&head, bytes, sizeof head);
    if (head.size < sizeof head || head.timeStamp != record.timeStamp) return false;
    bytes = content.At(record.offset, head.size);
    if (bytes == nullptr) return false;
    arguments.assign(bytes + sizeof head, bytes + head.size);
    return true;
}

DWORD ReadTraceFile(const std::wstring& path, TraceRecording& recording) {
    const HANDLE file =
        ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                      nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return ::GetLastError();
    if (const DWORD error = Open(file, recording); error != ERROR_SUCCESS) return error;
    constexpr std::size_t kMagicSize = sizeof TraceFileHeader::magic;
    TraceFileHeader& header = recording.header;
    const ULONG64 size = recording.bytes;
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
