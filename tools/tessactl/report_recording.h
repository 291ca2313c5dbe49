#pragma once

#include <windows.h>

#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "function_calls.h"
#include "json.h"
#include "trace_decoder.h"

namespace tessactl {

/// The calls of a recording for a flame chart: the newest of them, and the newest warnings and errors. Times
/// are microseconds since the recording's first message.
class RecordedCalls {
  public:
    RecordedCalls(std::size_t mostCalls, std::size_t mostWarnings);

    void Add(const RecordedMessage& message, const DecodedMessage& decoded);
    /// Threads, functions by number, calls, the roads that an arrival and a removal take, and warnings.
    Json Finish() const;

  private:
    struct Call {
        std::size_t thread = 0;
        std::size_t function = 0;
        /// How deep in the calls of its thread. Below zero for what was entered before the recording began:
        /// only its exit tells that it was there.
        int depth = 0;
        double begin = 0;
        double duration = 0;
    };
    struct Thread {
        ThreadId id;
        std::string role;
        int outside = 0;  // functions that were entered before the recording began
        std::vector<Call> open;
    };
    struct Warning {
        std::size_t thread = 0;
        double at = 0;
        unsigned int level = 0;
        std::string text;
    };

    std::size_t ThreadNumber(const ThreadId& id);
    std::size_t FunctionNumber(const std::string& name);
    void Close(Thread& thread);
    void Keep(const Call& call);

    std::size_t mostCalls_;
    std::size_t mostWarnings_;
    FunctionCalls calls_;
    std::vector<Thread> threads_;
    std::map<ThreadId, std::size_t> threadNumbers_;
    std::vector<std::string> functions_;
    std::map<std::string, std::size_t> functionNumbers_;
    std::deque<Call> kept_;
    std::deque<Warning> warnings_;
    std::size_t messages_ = 0;
    std::size_t unknown_ = 0;
    std::size_t callsInAll_ = 0;
    ULONG64 firstTimeStamp_ = 0;
    double last_ = 0;
};

}  // namespace tessactl
