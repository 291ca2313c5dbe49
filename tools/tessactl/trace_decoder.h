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

/// Calls `use` with every message of a recording, in order.
/// @throws ToolError if the file cannot be opened or is no recording; if it is damaged, after the messages
/// before that
void ReadRecording(const std::wstring& file, const std::function<void(const RecordedMessage&)>& use);

/// A message in words.
struct DecodedMessage {
    std::string source;  ///< empty if the message is not known
    unsigned int level = 0;
    std::string text;                    ///< of an unknown message its GUID, number and bytes
    std::vector<std::string> arguments;  ///< each in words
};

/// Decodes a message as far as its arguments' bytes are sound; what is missing of them is shown as
/// "<missing>".
DecodedMessage Decode(const TmfCatalog& catalog, const RecordedMessage& message);

/// "hh:mm:ss.mmmuuu" of a file time, local.
std::string TimeText(ULONG64 timeStamp);

/// One line for a person.
std::string TextLine(const RecordedMessage& message, const DecodedMessage& decoded);

/// Writes messages as a Chrome trace: function entry and exit as nested slices of their thread, all others as
/// instants. The result opens in Perfetto and chrome://tracing.
class ChromeTraceWriter {
  public:
    void Add(const RecordedMessage& message, const DecodedMessage& decoded);
    /// The whole file.
    std::string Finish() const;

  private:
    std::string events_;
    ULONG64 firstTimeStamp_ = 0;
};

}  // namespace tessactl
