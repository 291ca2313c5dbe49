#pragma once

#include <windows.h>

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "trace_decoder.h"

namespace tessactl {

/// A thread of a recording: process and thread number.
using ThreadId = std::pair<DWORD, DWORD>;

/// Follows the functions of every thread through a recording, which need not have all of them: it begins and
/// ends in the middle of some, and messages can be lost.
class FunctionCalls {
  public:
    struct Function {
        std::string file;
        std::string name;
        bool operator==(const Function&) const = default;
    };
    enum class Kind {
        kNone,              ///< no entry or exit
        kEntry,             ///< entered
        kExit,              ///< left, and entered in the recording
        kExitFromOutside,   ///< left by a thread that is in no function: entered before the recording began
        kExitWithoutEntry,  ///< left, never entered, and inside another function: the entry was lost
    };
    struct Step {
        Kind kind = Kind::kNone;
        Function function;
        /// What must have been left before, although nothing says so; innermost first.
        std::vector<Function> leftBefore;
    };

    Step Follow(const RecordedMessage& message, const DecodedMessage& decoded);

    /// What every thread is in, outermost first.
    const std::map<ThreadId, std::vector<Function>>& Entered() const { return entered_; }
    std::size_t ExitsWithoutEntry() const { return exitsWithoutEntry_; }
    std::size_t EntriesWithoutExit() const;

  private:
    std::map<ThreadId, std::vector<Function>> entered_;
    std::size_t exitsWithoutEntry_ = 0;
    std::size_t exitsLost_ = 0;
};

}  // namespace tessactl
