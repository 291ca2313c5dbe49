#include "chrome_trace.h"

#include <cstdio>
#include <set>
#include <utility>

#include "json.h"
#include "thread_roles.h"

namespace tessactl {
namespace {

std::string Joined(const std::vector<std::string>& events, bool reversed = false) {
    std::string all;
    for (std::size_t i = 0; i < events.size(); ++i)
        all += (all.empty() ? "" : ",\n") + events[reversed ? events.size() - 1 - i : i];
    return all;
}

}  // namespace

std::string ChromeTraceWriter::Event(const std::string& name, const std::string& category, char phase,
                                     const Place& place, const std::string& more) {
    char numbers[96] = {};
    std::snprintf(numbers, sizeof numbers, ",\"ts\":%.1f,\"pid\":%lu,\"tid\":%lu", place.microseconds,
                  place.thread.first, place.thread.second);
    return "{\"name\":" + JsonText(name) + ",\"cat\":" + JsonText(category) + ",\"ph\":\"" + phase + "\"" +
           (phase == 'i' ? ",\"s\":\"t\"" : "") + numbers + more + "}";
}

std::string ChromeTraceWriter::Event(const FunctionCalls::Function& function, char phase, const Place& place,
                                     const std::string& note) {
    return Event(function.name, function.file, phase, place,
                 note.empty() ? "" : ",\"args\":{\"note\":" + JsonText(note) + "}");
}

void ChromeTraceWriter::Keep(const std::string& event) {
    events_.Write((events_.IsEmpty() ? "" : ",\n") + event);
}

void ChromeTraceWriter::LearnRole(const Place& place, const std::string& function) {
    // The first one stays: a host may call all exports on one thread.
    std::string& role = roles_[place.thread];
    if (role.empty()) role = ThreadRole(function);
}

void ChromeTraceWriter::Add(const RecordedMessage& message, const DecodedMessage& decoded) {
    using Kind = FunctionCalls::Kind;
    if (roles_.empty()) firstTimeStamp_ = message.timeStamp;
    last_ = static_cast<double>(message.timeStamp - firstTimeStamp_) / 10;
    const Place place{{message.processId, message.threadId}, last_};
    roles_.try_emplace(place.thread);
    const FunctionCalls::Step step = calls_.Follow(message, decoded);
    LearnRole(place, step.function.name);
    for (const auto& function : step.leftBefore)
        Keep(Event(function, 'E', place, "its exit is not in the recording"));
    switch (step.kind) {
        case Kind::kNone:
            Keep(Event(decoded.text, decoded.source, 'i', place,
                       decoded.function.empty()
                           ? ""
                           : ",\"args\":{\"function\":" + JsonText(decoded.function) + "}"));
            break;
        case Kind::kEntry:
            Keep(Event(step.function, 'B', place));
            break;
        case Kind::kExitFromOutside:
            openedAtTheBeginning_.push_back(
                Event(step.function, 'B', {place.thread, 0}, "entered before the recording began"));
            [[fallthrough]];
        case Kind::kExit:
            Keep(Event(step.function, 'E', place));
            break;
        case Kind::kExitWithoutEntry:
            Keep(Event(step.function, 'i', place, "its exit; the entry is not in the recording"));
            break;
    }
}

std::vector<std::string> ChromeTraceWriter::Names() const {
    const auto name = [](const char* what, const ThreadId& thread, const std::string& text) {
        return Event(what, "", 'M', {thread, 0}, ",\"args\":{\"name\":" + JsonText(text) + "}");
    };
    std::vector<std::string> names;
    std::set<DWORD> plugIns;
    for (const auto& [thread, role] : roles_)
        if (!role.empty()) plugIns.insert(thread.first);
    for (const DWORD process : plugIns)
        names.push_back(name("process_name", {process, 0}, "service with tessaplug"));
    for (const auto& [thread, role] : roles_)
        names.push_back(
            name("thread_name", thread, role.empty() ? "thread " + std::to_string(thread.second) : role));
    return names;
}

void ChromeTraceWriter::Finish(std::ostream& output) {
    std::vector<std::string> closed;
    for (const auto& [thread, functions] : calls_.Entered())
        for (auto function = functions.rbegin(); function != functions.rend(); ++function)
            closed.push_back(Event(*function, 'E', {thread, last_}, "not left when the recording ended"));
    const char* separator = "\n";
    const auto begin = [&] { output << std::exchange(separator, ",\n"); };
    const auto write = [&](const std::string& part) {
        if (part.empty()) return;
        begin();
        output << part;
    };
    output << "{\"traceEvents\":[";
    write(Joined(Names()));
    write(Joined(openedAtTheBeginning_, true));
    if (!events_.IsEmpty()) {
        begin();
        events_.CopyTo(output);
    }
    write(Joined(closed));
    output << "\n]}\n";
}

}  // namespace tessactl
