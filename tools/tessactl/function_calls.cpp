#include "function_calls.h"

#include <algorithm>

namespace tessactl {
namespace {

constexpr char kFunctionTraceSource[] = "function_trace";
constexpr unsigned int kFunctionEntry = 10;
constexpr unsigned int kFunctionExit = 11;

}  // namespace

FunctionCalls::Step FunctionCalls::Follow(const RecordedMessage& message, const DecodedMessage& decoded) {
    if (decoded.source != kFunctionTraceSource || decoded.arguments.size() != 2) return {};
    Function function{decoded.arguments[0], decoded.arguments[1]};
    std::vector<Function>& entered = entered_[{message.processId, message.threadId}];
    if (message.number == kFunctionEntry) {
        entered.push_back(function);
        return {Kind::kEntry, std::move(function), {}};
    }
    if (message.number != kFunctionExit) return {};
    const auto found = std::find(entered.rbegin(), entered.rend(), function);
    if (found == entered.rend()) {
        ++exitsWithoutEntry_;
        return {entered.empty() ? Kind::kExitFromOutside : Kind::kExitWithoutEntry, std::move(function), {}};
    }
    Step step{Kind::kExit, std::move(function), {entered.rbegin(), found}};
    exitsLost_ += step.leftBefore.size();
    entered.resize(entered.size() - step.leftBefore.size() - 1);
    return step;
}

std::size_t FunctionCalls::EntriesWithoutExit() const {
    std::size_t count = exitsLost_;
    for (const auto& [thread, functions] : entered_)
        count += functions.size();
    return count;
}

}  // namespace tessactl
