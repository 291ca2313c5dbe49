#include "service_life.h"

#include "footprint.h"
#include "machine.h"

namespace kitrun {
namespace {

constexpr DWORD kSeconds = 90;  // more than a stop may take

struct Step {
    std::wstring command;
    DWORD exitCode;
    std::string says;  ///< a part of its output
};

std::vector<Step> Steps(const std::wstring& programs, const std::wstring& recording) {
    const std::wstring file = L" \"" + recording + L"\"";
    return {
        {L"q5config register \"" + programs + L"station\"", 0, ""},
        {L"q5config init", 0, ""},
        {L"tessahost install", 0, ""},
        {L"tessactl trace start --level 4 --file" + file, 0, "Recording into "},
        {L"tessahost start", 0, "RUNNING"},
        {L"tessahost status", 0, "RUNNING"},
        {L"tessactl doctor", 0, "ok       plug-in running "},
        {L"tessactl status", 0, "NX4120(PROFIBUS) "},
        {L"tessahost stop", 0, "STOPPED"},
        {L"tessactl trace stop", 0, ""},
        {L"tessactl trace decode" + file, 0, " tessaplug_intern "},
        {L"tessactl log", 0, "0x00000100  The adapter service plug-in has started"},
        {L"tessahost uninstall", 0, ""},
        {L"tessahost status", 3, ""},
        {L"q5config wipe", 0, ""},
    };
}

/// The driver's file, in its lifetime, where the texts of its messages are looked for; the driver itself is
/// not installed.
class MessageFile {
  public:
    explicit MessageFile(const std::wstring& programs)
        : placed_(::CopyFileW((programs + kDrivers[0]).c_str(), path_.c_str(), TRUE)) {}
    ~MessageFile() {
        if (placed_) ::DeleteFileW(path_.c_str());
    }
    MessageFile(const MessageFile&) = delete;
    MessageFile& operator=(const MessageFile&) = delete;

  private:
    const std::wstring path_ = DriverPath(kDrivers[0]);
    const BOOL placed_;  // not if it is there already
};

}  // namespace

std::vector<LifeStep> LiveOnce(const std::wstring& programs, const std::wstring& recording,
                               const std::function<void(const LifeStep&)>& told) {
    std::vector<LifeStep> life;
    const MessageFile messageFile(programs);
    for (const Step& step : Steps(programs, recording)) {
        const std::size_t blank = step.command.find(L' ');
        LifeStep taken;
        taken.command = Utf8(step.command);
        taken.result = RunLimited(
            L"\"" + programs + step.command.substr(0, blank) + L".exe\"" + step.command.substr(blank),
            programs, kSeconds);
        taken.isRight = taken.result.startError == 0 && !taken.result.timedOut &&
                        taken.result.exitCode == step.exitCode &&
                        taken.result.output.find(step.says) != std::string::npos;
        told(taken);
        life.push_back(taken);
    }
    ::DeleteFileW(recording.c_str());
    return life;
}

}  // namespace kitrun
