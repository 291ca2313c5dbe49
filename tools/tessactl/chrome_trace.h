#pragma once

#include <windows.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "function_calls.h"
#include "spool_file.h"
#include "trace_decoder.h"

namespace tessactl {

/// Writes messages as a Chrome trace: function entry and exit as nested slices of their thread, all others as
/// instants. The result opens in Perfetto and chrome://tracing.
///
/// Slices always nest. One that was entered before the recording begins is opened at its beginning, one that
/// is not left is closed at its end, and an exit whose entry was lost inside another function is an instant.
class ChromeTraceWriter {
  public:
    void Add(const RecordedMessage& message, const DecodedMessage& decoded);
    /// Writes the whole file.
    void Finish(std::ostream& output);

  private:
    struct Place {
        ThreadId thread;
        double microseconds = 0;
    };
    static std::string Event(const std::string& name, const std::string& category, char phase,
                             const Place& place, const std::string& more = "");
    static std::string Event(const FunctionCalls::Function& function, char phase, const Place& place,
                             const std::string& note = "");
    void Keep(const std::string& event);
    void LearnRole(const Place& place, const std::string& function);
    std::vector<std::string> Names() const;

    FunctionCalls calls_;
    std::vector<std::string> openedAtTheBeginning_;  // innermost first
    SpoolFile events_;                               // what stands before them is known at the end only
    std::map<ThreadId, std::string> roles_;          // of all threads; empty if it is not known
    ULONG64 firstTimeStamp_ = 0;
    double last_ = 0;
};

}  // namespace tessactl
