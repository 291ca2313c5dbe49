#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "trace_file.h"
#include "wine_gap.h"

// Trace consumers: reading back what a session has recorded. What is refused, and with which code, is what
// Windows documents for OpenTrace, ProcessTrace and CloseTrace.
namespace wine_gap {
namespace {

constexpr GUID kEventTraceGuid = {
    0x68fdd900, 0x4a3e, 0x11d1, {0x84, 0xf4, 0x00, 0x00, 0xf8, 0x04, 0x64, 0xe3}};

struct Consumer {
    TraceRecording recording;
    std::wstring file;
    bool isRealTime = false;
    bool isProcessing = false;
    EVENT_TRACE_LOGFILEW logFile = {};  // as it was opened
    ULONG64 bytesRead = 0;
    std::vector<BYTE> arguments;  // of the message that is delivered, in memory of their own: aligned
};
using Consumers = std::vector<std::shared_ptr<Consumer>>;

std::mutex lock;  // guards the consumers
std::map<TRACEHANDLE, std::shared_ptr<Consumer>> consumers;
TRACEHANDLE nextConsumer = 1;

TRACEHANDLE Refuse(DWORD error) {
    ::SetLastError(error);
    return INVALID_PROCESSTRACE_HANDLE;
}

/// What is known of a session and its machine; of a recording of a former version only the latter.
TRACE_LOGFILE_HEADER HeaderOf(const TraceRecording& recording) {
    const TraceFileHeader& file = recording.header;
    SYSTEM_INFO system = {};
    ::GetSystemInfo(&system);
    TRACE_LOGFILE_HEADER header = {};
    header.BufferSize = file.bufferSize * 1024;
    header.NumberOfProcessors = system.dwNumberOfProcessors;
    header.EndTime.QuadPart = static_cast<LONGLONG>(file.endTime);
    header.MaximumFileSize = file.maximumFileSize;
    header.LogFileMode = file.mode;
    header.BuffersWritten = BuffersWritten(file, recording.bytes);
    header.PointerSize = sizeof(void*);
    header.EventsLost = file.eventsLost;
    ::GetTimeZoneInformation(&header.TimeZone);
    ::QueryPerformanceFrequency(&header.PerfFreq);
    header.StartTime.QuadPart = static_cast<LONGLONG>(file.startTime);
    header.ReservedFlags = 2;  // the time stamps are system time
    header.BuffersLost = file.buffersLost;
    return header;
}

TRACEHANDLE WINAPI Open(PEVENT_TRACE_LOGFILEW logFile) {
    if (logFile == nullptr || (logFile->LogFileName != nullptr && logFile->LoggerName != nullptr))
        return Refuse(ERROR_INVALID_PARAMETER);
    if (logFile->LoggerName == nullptr && (logFile->LogFileName == nullptr || *logFile->LogFileName == L'\0'))
        return Refuse(ERROR_BAD_PATHNAME);
    if ((logFile->ProcessTraceMode & PROCESS_TRACE_MODE_EVENT_RECORD) == 0)
        return Refuse(ERROR_NOT_SUPPORTED);
    if (logFile->EventRecordCallback == nullptr) return Refuse(ERROR_INVALID_PARAMETER);
    const auto consumer = std::make_shared<Consumer>();
    consumer->isRealTime = logFile->LoggerName != nullptr;
    if (!consumer->isRealTime) {
        consumer->file = logFile->LogFileName;
        const DWORD result = ReadTraceFile(consumer->file, consumer->recording);
        if (result != ERROR_SUCCESS) return Refuse(result);
        logFile->LogfileHeader = HeaderOf(consumer->recording);
    }
    consumer->logFile = *logFile;
    const std::lock_guard guard(lock);
    consumers[nextConsumer] = consumer;
    return nextConsumer++;
}

EVENT_RECORD EventFor(const Consumer& consumer, ULONG64 timeStamp, const GUID& provider) {
    EVENT_RECORD event = {};
    event.EventHeader.Size = sizeof event.EventHeader;
    event.EventHeader.Flags = EVENT_HEADER_FLAG_64_BIT_HEADER;
    event.EventHeader.TimeStamp.QuadPart = static_cast<LONGLONG>(timeStamp);
    event.EventHeader.ProviderId = provider;
    event.UserContext = consumer.logFile.Context;
    return event;
}

/// The first event of any log file. The names, which its texts should be, are the file's own: a recording
/// does not keep its session's.
void DeliverHeader(const Consumer& consumer) {
    const TRACE_LOGFILE_HEADER header = HeaderOf(consumer.recording);
    const std::wstring texts = L'\0' + consumer.file + L'\0';
    std::vector<BYTE> data(sizeof header + texts.size() * sizeof(wchar_t));
    std::memcpy(data.data(), &header, sizeof header);
    std::memcpy(data.data() + sizeof header, texts.data(), texts.size() * sizeof(wchar_t));
    EVENT_RECORD event = EventFor(consumer, consumer.recording.header.startTime, kEventTraceGuid);
    event.EventHeader.Flags |= EVENT_HEADER_FLAG_CLASSIC_HEADER;
    event.UserData = data.data();
    event.UserDataLength = static_cast<USHORT>(data.size());
    consumer.logFile.EventRecordCallback(&event);
}

/// Where a recorded message is.
struct Place {
    std::size_t consumer;  // its number among those that are read
    const TraceRecording::Record* record;
};

/// Tells whoever wants to know that another buffer was read. Here the records that have room in one are as
/// good as a buffer.
/// @return false if no more is wanted
bool TellOfBuffer(Consumer& consumer, ULONG64 bytes) {
    const ULONG buffer = std::max<ULONG>(consumer.recording.header.bufferSize, 1) * 1024;
    consumer.bytesRead += bytes;
    const auto buffers = static_cast<ULONG>(consumer.bytesRead / buffer);
    if (buffers == consumer.logFile.BuffersRead || consumer.logFile.BufferCallback == nullptr) return true;
    consumer.logFile.BuffersRead = buffers;
    consumer.logFile.BufferSize = consumer.logFile.Filled = buffer;
    return consumer.logFile.BufferCallback(&consumer.logFile) != FALSE;
}

/// @return ERROR_SUCCESS, or why there are no more
ULONG Deliver(Consumer& consumer, const TraceRecording::Record& record) {
    TraceFileRecord head;
    if (!consumer.recording.Read(record, head, consumer.arguments)) return ERROR_FILE_CORRUPT;
    EVENT_RECORD event = EventFor(consumer, head.timeStamp, head.messageGuid);
    event.EventHeader.Flags |= EVENT_HEADER_FLAG_TRACE_MESSAGE;
    event.EventHeader.ProcessId = head.processId;
    event.EventHeader.ThreadId = head.threadId;
    event.EventHeader.EventDescriptor.Id = static_cast<USHORT>(head.messageNumber);
    event.UserData = consumer.arguments.data();
    event.UserDataLength = static_cast<USHORT>(consumer.arguments.size());
    consumer.logFile.EventRecordCallback(&event);
    return TellOfBuffer(consumer, head.size) ? ERROR_SUCCESS : ERROR_CANCELLED;
}

ULONG64 TimeOf(const FILETIME* time, ULONG64 otherwise) {
    return time != nullptr ? static_cast<ULONG64>(time->dwHighDateTime) << 32 | time->dwLowDateTime
                           : otherwise;
}

/// The messages of a time in the order of their time stamps.
std::vector<Place> PlacesOf(const Consumers& wanted, ULONG64 start, ULONG64 end) {
    std::vector<Place> places;
    for (std::size_t i = 0; i < wanted.size(); ++i)
        for (const TraceRecording::Record& record : wanted[i]->recording.records)
            if (record.timeStamp >= start && record.timeStamp <= end) places.push_back({i, &record});
    const auto order = [](const Place& place) {
        return std::tuple(place.record->timeStamp, place.consumer, place.record);
    };
    if (!std::ranges::is_sorted(places, {}, order)) std::ranges::sort(places, {}, order);
    return places;
}

/// @return ERROR_SUCCESS, or why not all was delivered
ULONG DeliverAll(const Consumers& consumers, const std::vector<Place>& places) {
    for (const Place& place : places)
        if (const ULONG result = Deliver(*consumers[place.consumer], *place.record); result != ERROR_SUCCESS)
            return result;
    return ERROR_SUCCESS;
}

/// Takes the consumers into use. @return ERROR_SUCCESS or why not
ULONG Use(const TRACEHANDLE* handles, ULONG count, Consumers& used) {
    const std::lock_guard guard(lock);
    for (ULONG i = 0; i < count; ++i) {
        const auto found = consumers.find(handles[i]);
        if (found == consumers.end()) return ERROR_INVALID_HANDLE;
        used.push_back(found->second);
    }
    const auto realTime =
        std::ranges::count_if(used, [](const auto& consumer) { return consumer->isRealTime; });
    if (realTime > 1) return ERROR_WMI_ALREADY_ENABLED;
    if (realTime == 1) return ERROR_WMI_INSTANCE_NOT_FOUND;  // no session delivers in real time
    for (const auto& consumer : used)
        consumer->isProcessing = true;
    return ERROR_SUCCESS;
}

/// A record that is cut off, by a process that was killed, ends the reading; what is before it is delivered.
ULONG WINAPI Process(PTRACEHANDLE handles, ULONG count, LPFILETIME startTime, LPFILETIME endTime) {
    constexpr ULONG kMostHandles = 64;
    if (handles == nullptr) return ERROR_INVALID_PARAMETER;
    if (count == 0 || count > kMostHandles) return ERROR_BAD_LENGTH;
    const ULONG64 start = TimeOf(startTime, 0);
    const ULONG64 end = TimeOf(endTime, ~ULONG64{0});
    if (end < start) return ERROR_INVALID_TIME;
    Consumers used;
    if (const ULONG wrong = Use(handles, count, used); wrong != ERROR_SUCCESS) return wrong;
    for (const auto& consumer : used)
        DeliverHeader(*consumer);
    const ULONG result = DeliverAll(used, PlacesOf(used, start, end));
    const std::lock_guard guard(lock);
    for (const auto& consumer : used)
        consumer->isProcessing = false;
    if (result != ERROR_SUCCESS) return result;
    const bool isWhole =
        std::ranges::none_of(used, [](const auto& consumer) { return consumer->recording.isCutOff; });
    return isWhole ? ERROR_SUCCESS : ERROR_FILE_CORRUPT;
}

ULONG WINAPI Close(TRACEHANDLE handle) {
    const std::lock_guard guard(lock);
    const auto found = consumers.find(handle);
    if (found == consumers.end()) return ERROR_INVALID_HANDLE;
    const bool isProcessing = found->second->isProcessing;
    consumers.erase(found);
    return isProcessing ? ERROR_CTX_CLOSE_PENDING : ERROR_SUCCESS;
}

}  // namespace

std::vector<Replacement> TraceConsumerReplacements() {
    static constexpr wchar_t kLibrary[] = L"advapi32.dll";
    return {
        {kLibrary, "OpenTraceW", reinterpret_cast<void*>(&Open), nullptr},
        {kLibrary, "ProcessTrace", reinterpret_cast<void*>(&Process), nullptr},
        {kLibrary, "CloseTrace", reinterpret_cast<void*>(&Close), nullptr},
    };
}

}  // namespace wine_gap
