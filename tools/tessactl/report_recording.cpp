#include "report_recording.h"

#include <algorithm>

#include "thread_roles.h"

namespace tessactl {
namespace {

constexpr unsigned int kWarningLevel = 3;  // errors have 2

/// The functions that do all there is to do for an adapter that comes or goes.
constexpr struct {
    const char* function;
    const char* road;
} kRoads[] = {
    {"tessaplug::DeviceNotifier::OnDeviceArrival", "arrival"},
    {"tessaplug::DeviceNotifier::OnDeviceRemoval", "removal"},
};

std::string RoadOf(const std::string& function) {
    for (const auto& known : kRoads)
        if (function == known.function) return known.road;
    return {};
}

}  // namespace

RecordedCalls::RecordedCalls(std::size_t mostCalls, std::size_t mostWarnings)
    : mostCalls_(mostCalls), mostWarnings_(mostWarnings) {}

std::size_t RecordedCalls::ThreadNumber(const ThreadId& id) {
    const auto [found, isNew] = threadNumbers_.try_emplace(id, threads_.size());
    if (isNew) threads_.push_back({id, {}, 0, {}});
    return found->second;
}

std::size_t RecordedCalls::FunctionNumber(const std::string& name) {
    const auto [found, isNew] = functionNumbers_.try_emplace(name, functions_.size());
    if (isNew) functions_.push_back(name);
    return found->second;
}

void RecordedCalls::Keep(const Call& call) {
    ++callsInAll_;
    kept_.push_back(call);
    if (kept_.size() > mostCalls_) kept_.pop_front();
}

void RecordedCalls::Close(Thread& thread) {
    if (thread.open.empty()) return;
    Call call = thread.open.back();
    thread.open.pop_back();
    call.duration = last_ - call.begin;
    Keep(call);
}

void RecordedCalls::Add(const RecordedMessage& message, const DecodedMessage& decoded) {
    using Kind = FunctionCalls::Kind;
    if (messages_++ == 0) firstTimeStamp_ = message.timeStamp;
    if (decoded.source.empty()) ++unknown_;
    last_ = static_cast<double>(message.timeStamp - firstTimeStamp_) / 10;
    const std::size_t number = ThreadNumber({message.processId, message.threadId});
    Thread& thread = threads_[number];
    const FunctionCalls::Step step = calls_.Follow(message, decoded);
    if (thread.role.empty()) thread.role = ThreadRole(step.function.name);
    for (std::size_t i = 0; i < step.leftBefore.size(); ++i)
        Close(thread);
    switch (step.kind) {
        case Kind::kNone:
            if (decoded.source.empty() || decoded.level > kWarningLevel) break;
            warnings_.push_back({number, last_, decoded.level, decoded.text});
            if (warnings_.size() > mostWarnings_) warnings_.pop_front();
            break;
        case Kind::kEntry:
            thread.open.push_back({number, FunctionNumber(step.function.name),
                                   static_cast<int>(thread.open.size()) - thread.outside, last_, 0});
            break;
        case Kind::kExit:
            Close(thread);
            break;
        case Kind::kExitFromOutside:
            ++thread.outside;
            Keep({number, FunctionNumber(step.function.name), -thread.outside, 0, last_});
            break;
        case Kind::kExitWithoutEntry:
            break;
    }
}

Json RecordedCalls::Finish() const {
    std::deque<Call> calls = kept_;
    for (const Thread& thread : threads_)
        for (Call call : thread.open) {
            call.duration = last_ - call.begin;
            calls.push_back(call);
        }
    Json threads = Json::array();
    for (const Thread& thread : threads_)
        threads.push_back(
            {{"process", thread.id.first}, {"thread", thread.id.second}, {"role", thread.role}});
    Json flat = Json::array();
    Json roads = Json::array();
    for (const Call& call : calls) {
        flat.push_back({call.thread, call.function, call.depth + threads_[call.thread].outside, call.begin,
                        call.duration});
        const std::string road = RoadOf(functions_[call.function]);
        if (!road.empty())
            roads.push_back({{"road", road},
                             {"thread", call.thread},
                             {"begin", call.begin},
                             {"duration", call.duration}});
    }
    Json warnings = Json::array();
    for (const Warning& warning : warnings_)
        warnings.push_back({{"thread", warning.thread},
                            {"at", warning.at},
                            {"type", warning.level == kWarningLevel ? "warning" : "error"},
                            {"text", warning.text}});
    return {{"messages", messages_},
            {"unknownMessages", unknown_},
            {"callsInAll", callsInAll_},
            {"begins", messages_ == 0 ? "" : TimeText(firstTimeStamp_)},
            {"duration", last_},
            {"threads", threads},
            {"functions", functions_},
            {"calls", flat},
            {"roads", roads},
            {"warnings", warnings}};
}

}  // namespace tessactl
