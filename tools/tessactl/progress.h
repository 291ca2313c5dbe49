#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace tessactl {

/// Tells a person who waits how far something is: one line, which is rewritten in its place and wiped at the
/// end. What takes no longer than a second tells nothing.
class Progress {
  public:
    using Clock = std::chrono::steady_clock;
    using Write = std::function<void(const std::string&)>;
    using Now = std::function<Clock::time_point()>;

    /// @param write puts text onto the terminal; null where there is none
    explicit Progress(Write write, Now now = &Clock::now);
    ~Progress() { Wipe(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// @param line is written if it is another than before and that one was to be read for a moment
    void Tell(const std::string& line);
    /// Takes the line away, so that others may write.
    void Wipe();

  private:
    Write write_;
    Now now_;
    Clock::time_point next_;
    std::string shown_;
};

/// Where progress is shown: on standard error, if that is a terminal. Null if it is not, or if the terminal
/// is full of the output as it comes.
/// @param printsMeanwhile whether standard output is written to as the progress is told
Progress::Write ProgressTerminal(bool printsMeanwhile);

}  // namespace tessactl
