#pragma once

#include <windows.h>

#include <optional>
#include <string>

namespace tessactl {

/// What is to be recorded, and how much of it.
struct RecordingRequest {
    std::wstring file;  ///< in full: every process that is traced writes into it
    ULONG level = 5;
    ULONG flags = 0xFFFFFFFF;
    ULONG megabytes = 0;      ///< size limit of the file; 0: none
    bool isCircular = false;  ///< at the limit the oldest messages go; otherwise the recording ends
};

/// A recording that runs, or has just been ended.
struct RecordingState {
    std::wstring file;
    bool isCircular = false;
    ULONG megabytes = 0;  ///< size limit of the file; 0: none
    ULONG buffersWritten = 0;
    ULONG eventsLost = 0;
    ULONG buffersLost = 0;
};

/// The largest size limit; larger ones are taken for a mistake.
inline constexpr ULONG kMostMegabytes = 4095;

/// @throws ToolError if one runs already, if there is no room for it or it cannot be started for another
/// reason; nothing is left of it then
/// @throws NoRights if the caller may not record
void StartRecording(const RecordingRequest& request);

/// The recording that runs; nothing if none does.
/// @throws ToolError, NoRights
std::optional<RecordingState> RunningRecording();

/// Ends it, whoever started it.
/// @return what it was; nothing if none ran
/// @throws ToolError, NoRights
std::optional<RecordingState> StopRecording();

/// "no events were lost", "3 events and 1 buffer were lost".
std::string LossesInWords(ULONG events, ULONG buffers);

}  // namespace tessactl
