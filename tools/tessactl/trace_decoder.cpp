#include "trace_decoder.h"

#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>

#include "text.h"
#include "toolbox.h"

namespace tessactl {
namespace {

/// Takes typed arguments off the bytes of a message, never beyond their end.
class ArgumentReader {
  public:
    explicit ArgumentReader(const std::vector<BYTE>& bytes) : bytes_(bytes) {}

    template <typename T>
    std::optional<T> Number() {
        if (bytes_.size() - at_ < sizeof(T)) return std::nullopt;
        T value;
        std::memcpy(&value, bytes_.data() + at_, sizeof value);
        at_ += sizeof value;
        return value;
    }

    template <typename Char>
    std::optional<std::basic_string<Char>> Text() {
        const std::size_t most = (bytes_.size() - at_) / sizeof(Char);
        const BYTE* begin = bytes_.data() + at_;
        for (std::size_t length = 0; length < most; ++length) {
            Char c;
            std::memcpy(&c, begin + length * sizeof c, sizeof c);
            if (c != 0) continue;
            std::basic_string<Char> text(length, 0);
            std::memcpy(text.data(), begin, length * sizeof c);
            at_ += (length + 1) * sizeof c;
            return text;
        }
        at_ += most * sizeof(Char);
        return std::nullopt;
    }

  private:
    const std::vector<BYTE>& bytes_;
    std::size_t at_ = 0;
};

template <typename... Args>
std::string Printed(const char* format, Args... args) {
    char text[64] = {};
    std::snprintf(text, sizeof text, format, args...);
    return text;
}

std::string NumberText(unsigned long long value, const std::string& conversion, bool is64Bit) {
    if (conversion.ends_with('x')) return Printed("%llx", value);
    if (conversion.ends_with('d'))
        return std::to_string(is64Bit ? static_cast<long long>(value) : static_cast<int>(value));
    return std::to_string(value);
}

std::string ArgumentText(ArgumentReader& reader, const std::string& item, const std::string& conversion) {
    std::optional<std::string> text;
    if (item == "ItemLong") {
        if (const auto value = reader.Number<unsigned int>()) text = NumberText(*value, conversion, false);
    } else if (item == "ItemLongLong" || item == "ItemULongLong") {
        if (const auto value = reader.Number<unsigned long long>())
            text = NumberText(*value, conversion, true);
    } else if (item == "ItemPtr") {
        if (const auto value = reader.Number<unsigned long long>()) text = Printed("0x%016llx", *value);
    } else if (item == "ItemString") {
        if (auto narrow = reader.Text<char>()) text = Utf8FromAnsi(std::move(*narrow));
    } else if (item == "ItemWString") {
        if (const auto wide = reader.Text<wchar_t>()) text = Utf8(*wide);
    }
    return std::move(text).value_or("<missing>");
}

std::string HexOf(const std::vector<BYTE>& bytes) {
    std::string hex;
    for (const BYTE byte : bytes)
        hex += Printed(" %02x", byte);
    return hex;
}

const char* LevelName(unsigned int level) {
    static constexpr const char* kNames[] = {"?", "?", "error", "warning", "info", "verbose"};
    return level < std::size(kNames) ? kNames[level] : "?";
}

RecordingHead HeadOf(const TRACE_LOGFILE_HEADER& header) {
    constexpr ULONG64 kKilobyte = 1024;
    const bool isInKilobytes = (header.LogFileMode & EVENT_TRACE_USE_KBYTES_FOR_SIZE) != 0;
    return {header.BufferSize,
            header.BuffersWritten,
            header.EventsLost,
            header.BuffersLost,
            header.MaximumFileSize * (isInKilobytes ? kKilobyte : kKilobyte * kKilobyte),
            (header.LogFileMode & EVENT_TRACE_FILE_MODE_CIRCULAR) != 0};
}

/// Who reads a recording.
struct Reading {
    const std::function<void(const RecordedMessage&)>& use;
    const ReadingProgress& progress;
    ULONG64 fileSize = 0;
    RecordedMessage message;   // its memory is used again
    std::exception_ptr error;  // that use() threw, which must not pass the system's functions
};

void WINAPI OnEvent(EVENT_RECORD* event) {
    auto& reading = *static_cast<Reading*>(event->UserContext);
    // The head of a recording, and whatever else is not a trace message.
    if ((event->EventHeader.Flags & EVENT_HEADER_FLAG_TRACE_MESSAGE) == 0 || reading.error) return;
    const auto* data = static_cast<const BYTE*>(event->UserData);
    RecordedMessage& message = reading.message;
    try {
        message.timeStamp = static_cast<ULONG64>(event->EventHeader.TimeStamp.QuadPart);
        message.processId = event->EventHeader.ProcessId;
        message.threadId = event->EventHeader.ThreadId;
        message.messageGuid = event->EventHeader.ProviderId;
        message.number = event->EventHeader.EventDescriptor.Id;
        message.arguments.assign(data, data + event->UserDataLength);
        reading.use(message);
    } catch (...) {
        reading.error = std::current_exception();
    }
}

/// A buffer of the file was read.
ULONG WINAPI OnBuffer(EVENT_TRACE_LOGFILEW* logFile) {
    constexpr ULONG64 kAll = 100;
    const auto& reading = *static_cast<const Reading*>(logFile->Context);
    const ULONG64 bytes = ULONG64{logFile->BuffersRead} * logFile->LogfileHeader.BufferSize;
    const ULONG64 percent = std::min(kAll, bytes * kAll / std::max<ULONG64>(reading.fileSize, 1));
    return !reading.error && reading.progress(static_cast<unsigned int>(percent)) ? TRUE : FALSE;
}

ULONG64 Joined(const FILETIME& time) {
    return static_cast<ULONG64>(time.dwHighDateTime) << 32 | time.dwLowDateTime;
}

/// How far local time is ahead of UTC, as a file time; modulo 2^64 if it is behind. Asking the system at each
/// message takes a while.
ULONG64 LocalAhead() {
    FILETIME utc = {};
    FILETIME local = {};
    ::GetSystemTimeAsFileTime(&utc);
    ::FileTimeToLocalFileTime(&utc, &local);
    return Joined(local) - Joined(utc);
}

ULONG64 SizeOf(const std::wstring& file) {
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    if (!::GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &data)) return 0;
    return static_cast<ULONG64>(data.nFileSizeHigh) << 32 | data.nFileSizeLow;
}

}  // namespace

ULONG RecordingHead::BuffersReplaced() const {
    if (!isCircular || bufferSize == 0) return 0;
    const ULONG64 most = (maximumBytes + bufferSize - 1) / bufferSize;
    return buffersWritten > most ? static_cast<ULONG>(buffersWritten - most) : 0;
}

void ReadRecording(const std::wstring& file, RecordingHead& head,
                   const std::function<void(const RecordedMessage&)>& use, const ReadingProgress& progress) {
    Reading reading{use, progress, SizeOf(file), {}, {}};
    std::wstring name = file;
    EVENT_TRACE_LOGFILEW logFile = {};
    logFile.LogFileName = name.data();
    logFile.ProcessTraceMode = PROCESS_TRACE_MODE_EVENT_RECORD;
    logFile.EventRecordCallback = &OnEvent;
    if (progress) logFile.BufferCallback = &OnBuffer;
    logFile.Context = &reading;
    TRACEHANDLE handle = ::OpenTraceW(&logFile);
    if (handle == INVALID_PROCESSTRACE_HANDLE) {
        const DWORD error = ::GetLastError();
        throw ToolError(Utf8(file) + (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND
                                          ? " does not exist; record it with \"tessactl trace start\"."
                                          : " is no trace recording: " + ErrorInWords(error)));
    }
    head = HeadOf(logFile.LogfileHeader);
    const ULONG result = ::ProcessTrace(&handle, 1, nullptr, nullptr);
    ::CloseTrace(handle);
    if (reading.error) std::rethrow_exception(reading.error);
    if (result == ERROR_FILE_CORRUPT)
        throw ToolError(Utf8(file) + " is cut off or damaged; what comes before that is shown.");
    if (result != ERROR_SUCCESS && result != ERROR_CANCELLED)
        throw ToolError("Reading " + Utf8(file) + " failed: " + ErrorInWords(result));
}

DecodedMessage Decode(const TmfCatalog& catalog, const RecordedMessage& message) {
    const TmfMessage* known = catalog.Find(message.messageGuid, message.number);
    if (known == nullptr)
        return {"",
                0,
                "unknown message " + std::to_string(message.number) + " of " +
                    toolbox::GuidToString(&message.messageGuid) + ", bytes:" + HexOf(message.arguments),
                {},
                ""};
    DecodedMessage decoded{known->source, known->level, "", {}, known->function};
    decoded.arguments.reserve(known->items.size());
    ArgumentReader reader(message.arguments);
    for (const TmfPiece& piece : known->text) {
        decoded.text += piece.words;
        const std::size_t index = decoded.arguments.size();
        if (piece.conversion.empty() || index >= known->items.size()) continue;
        decoded.arguments.push_back(ArgumentText(reader, known->items[index], piece.conversion));
        decoded.text += decoded.arguments.back();
    }
    return decoded;
}

std::string TimeText(ULONG64 timeStamp) {
    constexpr ULONG64 kSecond = 10'000'000;  // of a file time
    static const ULONG64 kAhead = LocalAhead();
    const ULONG64 seconds = (timeStamp + kAhead) / kSecond;
    return Printed("%02u:%02u:%02u.%06u", static_cast<unsigned int>(seconds / 3600 % 24),
                   static_cast<unsigned int>(seconds / 60 % 60), static_cast<unsigned int>(seconds % 60),
                   static_cast<unsigned int>(timeStamp / 10 % 1000000));
}

std::string TextLine(const RecordedMessage& message, const DecodedMessage& decoded, bool withFunction) {
    // Of an entry or exit the function that is meant is in the text.
    const bool isTold = withFunction && !decoded.function.empty() && decoded.source != "function_trace";
    char head[96] = {};
    std::snprintf(head, sizeof head, "  %5lu.%-5lu  %-7s  %-20.40s  ", message.processId, message.threadId,
                  LevelName(decoded.level), decoded.source.c_str());
    std::string line = TimeText(message.timeStamp);
    line.append(head);
    if (isTold) line.append(decoded.function).append(": ");
    return line.append(decoded.text);
}

}  // namespace tessactl
