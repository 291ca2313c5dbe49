#include "progress.h"

#include <windows.h>

#include <utility>

namespace tessactl {
namespace {

constexpr std::chrono::milliseconds kQuiet{1000};
constexpr std::chrono::milliseconds kStep{200};

bool IsTerminal(DWORD output) {
    DWORD mode = 0;
    return ::GetConsoleMode(::GetStdHandle(output), &mode) != FALSE;
}

}  // namespace

Progress::Progress(Write write, Now now)
    : write_(std::move(write)), now_(std::move(now)), next_(now_() + kQuiet) {}

void Progress::Tell(const std::string& line) {
    if (!write_ || line == shown_) return;
    const auto now = now_();
    if (now < next_) return;
    next_ = now + kStep;
    // Blanks over the rest of a longer one.
    const std::size_t rest = shown_.length() > line.length() ? shown_.length() - line.length() : 0;
    write_("\r" + line + std::string(rest, ' '));
    shown_ = line;
}

void Progress::Wipe() {
    if (shown_.empty()) return;
    write_("\r" + std::string(shown_.length(), ' ') + "\r");
    shown_.clear();
}

Progress::Write ProgressTerminal(bool printsMeanwhile) {
    if (!IsTerminal(STD_ERROR_HANDLE) || (printsMeanwhile && IsTerminal(STD_OUTPUT_HANDLE))) return {};
    // At once: standard error has no buffer and would come letter by letter.
    return [terminal = ::GetStdHandle(STD_ERROR_HANDLE)](const std::string& text) {
        DWORD written = 0;
        ::WriteFile(terminal, text.data(), static_cast<DWORD>(text.length()), &written, nullptr);
    };
}

}  // namespace tessactl
