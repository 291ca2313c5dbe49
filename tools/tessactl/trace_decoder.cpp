#include "trace_decoder.h"

#include <windows.h>
#include <evntcons.h>
#include <evntrace.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <regex>

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
        std::basic_string<Char> text;
        while (const auto c = Number<Char>()) {
            if (*c == 0) return text;
            text += *c;
        }
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
        if (const auto narrow = reader.Text<char>()) text = Utf8FromAnsi(*narrow);
    } else if (item == "ItemWString") {
        if (const auto wide = reader.Text<wchar_t>()) text = Utf8(*wide);
    }
    return text.value_or("<missing>");
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

void WINAPI OnEvent(EVENT_RECORD* event) {
    const auto& use = *static_cast<const std::function<void(const RecordedMessage&)>*>(event->UserContext);
    // The head of a recording, and whatever else is not a trace message.
    if ((event->EventHeader.Flags & EVENT_HEADER_FLAG_TRACE_MESSAGE) == 0) return;
    const auto* data = static_cast<const BYTE*>(event->UserData);
    use({static_cast<ULONG64>(event->EventHeader.TimeStamp.QuadPart), event->EventHeader.ProcessId,
         event->EventHeader.ThreadId, event->EventHeader.ProviderId, event->EventHeader.EventDescriptor.Id,
         std::vector<BYTE>(data, data + event->UserDataLength)});
}

}  // namespace

ULONG RecordingHead::BuffersReplaced() const {
    if (!isCircular || bufferSize == 0) return 0;
    const ULONG64 most = (maximumBytes + bufferSize - 1) / bufferSize;
    return buffersWritten > most ? static_cast<ULONG>(buffersWritten - most) : 0;
}

void ReadRecording(const std::wstring& file, RecordingHead& head,
                   const std::function<void(const RecordedMessage&)>& use) {
    std::wstring name = file;
    EVENT_TRACE_LOGFILEW logFile = {};
    logFile.LogFileName = name.data();
    logFile.ProcessTraceMode = PROCESS_TRACE_MODE_EVENT_RECORD;
    logFile.EventRecordCallback = &OnEvent;
    logFile.Context = const_cast<std::function<void(const RecordedMessage&)>*>(&use);
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
    if (result == ERROR_FILE_CORRUPT)
        throw ToolError(Utf8(file) + " is cut off or damaged; what comes before that is shown.");
    if (result != ERROR_SUCCESS)
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
    static const std::regex kConversion(R"(%%|%(\d+)!(\w+)!)");
    DecodedMessage decoded{known->source, known->level, "", {}, known->function};
    ArgumentReader reader(message.arguments);
    std::size_t at = 0;
    for (std::sregex_iterator match(known->text.begin(), known->text.end(), kConversion), end; match != end;
         ++match) {
        decoded.text += known->text.substr(at, static_cast<std::size_t>(match->position()) - at);
        at = static_cast<std::size_t>(match->position() + match->length());
        const std::size_t index = decoded.arguments.size();
        if (match->str() == "%%") {
            decoded.text += '%';
        } else if (index < known->items.size()) {
            decoded.arguments.push_back(ArgumentText(reader, known->items[index], (*match)[2]));
            decoded.text += decoded.arguments.back();
        }
    }
    decoded.text += known->text.substr(at);
    return decoded;
}

std::string TimeText(ULONG64 timeStamp) {
    FILETIME utc = {static_cast<DWORD>(timeStamp), static_cast<DWORD>(timeStamp >> 32)};
    FILETIME local = {};
    SYSTEMTIME time = {};
    ::FileTimeToLocalFileTime(&utc, &local);
    ::FileTimeToSystemTime(&local, &time);
    return Printed("%02d:%02d:%02d.%06u", time.wHour, time.wMinute, time.wSecond,
                   static_cast<unsigned int>(timeStamp / 10 % 1000000));
}

std::string TextLine(const RecordedMessage& message, const DecodedMessage& decoded, bool withFunction) {
    // Of an entry or exit the function that is meant is in the text.
    const bool isTold = withFunction && !decoded.function.empty() && decoded.source != "function_trace";
    return TimeText(message.timeStamp) + Printed("  %5lu.%-5lu", message.processId, message.threadId) +
           Printed("  %-7s", LevelName(decoded.level)) + Printed("  %-20.40s  ", decoded.source.c_str()) +
           (isTold ? decoded.function + ": " : "") + decoded.text;
}

}  // namespace tessactl
