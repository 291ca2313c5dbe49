#include "plug_in_history.h"

#include "exception_history_reader.h"
#include "text.h"

namespace tessactl {
namespace {

std::string WhyNot(const HistoryReading& reading) {
    switch (reading.outcome) {
        case HistoryReading::Outcome::kNoImage:
            return "it cannot be read, or is just being unloaded";
        case HistoryReading::Outcome::kNoSection:
            return "it has none; it is another plug-in";
        case HistoryReading::Outcome::kOtherSize:
            return "it has " + std::to_string(reading.sectionSize) + " bytes, where this tool knows " +
                   std::to_string(sizeof reading.history) + "; use the tool that came with the plug-in";
        default:
            return "it is damaged";
    }
}

}  // namespace

PlugInHistory ReadPlugInHistory(const RunningProcess& process, const RunningProcess::Module& module) {
    bool isSettled = false;
    const HistoryReading reading = ReadSettledHistory(
        [&process](ULONG64 address, void* to, std::size_t size) { return process.Read(address, to, size); },
        module.base, module.size, isSettled);
    if (reading.outcome != HistoryReading::Outcome::kRead)
        throw ToolError("the exception history of " + Utf8(module.path) +
                        " cannot be read: " + WhyNot(reading));
    return {module.path, reading.Records(), isSettled};
}

}  // namespace tessactl
