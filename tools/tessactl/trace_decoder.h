#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "tmf_catalog.h"

namespace tessactl {

/// One recorded trace message.
struct RecordedMessage {
    ULONG64 timeStamp = 0;  ///< file time: 100 ns units since 1601, UTC
    DWORD processId = 0;
    DWORD threadId = 0;
    GUID messageGuid = {};
    unsigned int number = 0;
    std::vector<BYTE> arguments;
};

/// What a recording says of itself.
struct RecordingHead {
    ULONG bufferSize = 0;  ///< bytes
    ULONG buffersWritten = 0;
    ULONG eventsLost = 0;
    ULONG buffersLost = 0;
    ULONG64 maximumBytes = 0;  ///< 0: no limit
    bool isCircular = false;

    /// How many of the buffers were written over by later ones.
    ULONG BuffersReplaced() const;
};

/// Is told, now and then, how much of the file has been read, in percent; false ends the reading.
using ReadingProgress = std::function<bool(unsigned int percent)>;

/// Calls `use` with every message of a recording, in the order of their times, wherever in the file the
/// oldest is.
/// @param head is filled in before the first message
/// @throws ToolError if the file cannot be opened or is no recording; if it is damaged, after the messages
/// before that
void ReadRecording(const std::wstring& file, RecordingHead& head,
                   const std::function<void(const RecordedMessage&)>& use,
                   const ReadingProgress& progress = {});

/// A message in words.
struct DecodedMessage {
    std::string source;  ///< empty if the message is not known
    unsigned int level = 0;
    std::string text;                    ///< of an unknown message its GUID, number and bytes
    std::vector<std::string> arguments;  ///< each in words
    std::string function;                ///< in which the trace point stands; empty if that is not known
};

/// Decodes a message as far as its arguments' bytes are sound; what is missing of them is shown as
/// "<missing>".
DecodedMessage Decode(const TmfCatalog& catalog, const RecordedMessage& message);

/// "hh:mm:ss.mmmuuu" of a file time, local.
std::string TimeText(ULONG64 timeStamp);

/// One line for a person.
/// @param withFunction whether it also tells the function in which the trace point stands
std::string TextLine(const RecordedMessage& message, const DecodedMessage& decoded,
                     bool withFunction = false);

}  // namespace tessactl
