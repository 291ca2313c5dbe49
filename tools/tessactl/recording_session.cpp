#include "recording_session.h"

#include <windows.h>
#include <evntrace.h>

#include <cstddef>

#include "text.h"

namespace tessactl {
namespace {

constexpr wchar_t kSessionName[] = L"tessaplug";
constexpr GUID kControlGuids[] = {
    {0xadc03568, 0x3c4e, 0x4804, {0x97, 0x10, 0x96, 0x8b, 0x39, 0x9e, 0x7f, 0x56}},
    {0xee8c6c7c, 0x3531, 0x4072, {0xa8, 0x29, 0xd7, 0x41, 0xb5, 0x89, 0xe5, 0xa2}},
};

/// The session's properties with room for its names behind them, in the documented order.
struct SessionProperties {
    EVENT_TRACE_PROPERTIES head = {};
    wchar_t name[256] = {};
    wchar_t logFile[1024] = {};

    SessionProperties() {
        head.Wnode.BufferSize = sizeof *this;
        head.Wnode.Flags = WNODE_FLAG_TRACED_GUID;
        head.LoggerNameOffset = offsetof(SessionProperties, name);
        head.LogFileNameOffset = offsetof(SessionProperties, logFile);
    }
    RecordingState State() const {
        // Nobody but this tool starts a session of this name, so its size is in megabytes.
        return {logFile,
                (head.LogFileMode & EVENT_TRACE_FILE_MODE_CIRCULAR) != 0,
                head.MaximumFileSize,
                head.BuffersWritten,
                head.EventsLost,
                head.LogBuffersLost};
    }
};

[[noreturn]] void Fail(const std::string& what, ULONG error) {
    switch (error) {
        case ERROR_ACCESS_DENIED:
            throw NoRights(what + " is not allowed; run it as administrator.");
        case ERROR_DISK_FULL:
            throw ToolError(what +
                            " failed: the drive has less room than the size limit, or, without a limit or on "
                            "the system's drive, less than 200 MB more than that.");
        default:
            throw ToolError(what + " failed: " + ErrorInWords(error));
    }
}

std::optional<RecordingState> Control(ULONG code, const std::string& what) {
    SessionProperties properties;
    const ULONG result = ::ControlTraceW(0, kSessionName, &properties.head, code);
    if (result == ERROR_WMI_INSTANCE_NOT_FOUND) return std::nullopt;
    // ERROR_MORE_DATA: the session has longer names than there is room for; done all the same.
    if (result != ERROR_SUCCESS && result != ERROR_MORE_DATA) Fail(what, result);
    return properties.State();
}

[[noreturn]] void FailAsOneRunsAlready() {
    const auto running = RunningRecording();
    // A recording belongs to nobody: it goes on when whoever started it has gone.
    throw ToolError("a recording is running already" +
                    (running ? ", into " + Utf8(running->file) : std::string()) +
                    "; look at it with \"tessactl trace status\", or end it with \"tessactl trace stop\".");
}

}  // namespace

void StartRecording(const RecordingRequest& request) {
    SessionProperties properties;
    if (request.file.length() >= ARRAYSIZE(properties.logFile))
        throw ToolError("the recording's path is too long: " + Utf8(request.file));
    request.file.copy(properties.logFile, ARRAYSIZE(properties.logFile) - 1);
    properties.head.Wnode.ClientContext = 1;  // query performance counter
    properties.head.LogFileMode =
        request.isCircular ? EVENT_TRACE_FILE_MODE_CIRCULAR : EVENT_TRACE_FILE_MODE_SEQUENTIAL;
    properties.head.MaximumFileSize = request.megabytes;
    TRACEHANDLE session = 0;
    const ULONG result = ::StartTraceW(&session, kSessionName, &properties.head);
    if (result == ERROR_ALREADY_EXISTS) FailAsOneRunsAlready();
    if (result != ERROR_SUCCESS) Fail("starting the recording", result);
    for (const GUID& guid : kControlGuids) {
        const ULONG enabled = ::EnableTrace(TRUE, request.flags, request.level, &guid, session);
        if (enabled == ERROR_SUCCESS) continue;
        StopRecording();
        Fail("enabling the plug-in's trace", enabled);
    }
}

std::optional<RecordingState> RunningRecording() {
    return Control(EVENT_TRACE_CONTROL_QUERY, "asking for the recording");
}

std::optional<RecordingState> StopRecording() {
    return Control(EVENT_TRACE_CONTROL_STOP, "ending the recording");
}

std::string LossesInWords(ULONG events, ULONG buffers) {
    const auto counted = [](ULONG number, const char* what) {
        return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
    };
    if (events == 0 && buffers == 0) return "no events were lost";
    std::string told = events > 0 ? counted(events, "event") : "";
    if (buffers > 0) told += (told.empty() ? "" : " and ") + counted(buffers, "buffer");
    return told + (events + buffers == 1 ? " was lost" : " were lost");
}

}  // namespace tessactl
