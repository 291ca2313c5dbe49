#include "chrome_trace.h"

#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "function_calls.h"
#include "thread_roles.h"

using tessactl::ChromeTraceWriter;
using tessactl::DecodedMessage;
using tessactl::FunctionCalls;
using tessactl::RecordedMessage;

namespace {

constexpr unsigned int kEntry = 10;
constexpr unsigned int kExit = 11;

std::string Finished(ChromeTraceWriter& writer) {
    std::ostringstream output;
    writer.Finish(output);
    return output.str();
}

/// Feeds entries, exits and other messages, one each 100 microseconds.
class Script {
  public:
    Script& Enter(const std::string& function, DWORD thread = 5) { return Add(kEntry, function, thread); }
    Script& Leave(const std::string& function, DWORD thread = 5) { return Add(kExit, function, thread); }
    Script& Say(const std::string& text, const std::string& function = "") {
        Use({Next(), 4, 5, {}, kEntry, {}}, {"name", 4, text, {}, function});
        return *this;
    }
    const FunctionCalls& Calls() const { return calls_; }
    std::string Chrome() { return Finished(chrome_); }

    /// The events of the slices, such as "B0 f" or "E100 f", and the instants.
    std::vector<std::string> Slices() {
        std::vector<std::string> slices;
        const std::string all = Chrome();
        for (std::size_t at = all.find('\n'); at + 2 < all.size(); at = all.find('\n', at + 1)) {
            const std::string line = all.substr(at + 1, all.find('\n', at + 1) - at - 1);
            const std::string phase = Between(line, "\"ph\":\"", "\"");
            if (phase == "B" || phase == "E" || phase == "i")
                slices.push_back(phase + Between(line, "\"ts\":", ".") + " " +
                                 Between(line, "{\"name\":\"", "\""));
        }
        return slices;
    }

  private:
    static std::string Between(const std::string& text, const std::string& before, const std::string& after) {
        const std::size_t from = text.find(before);
        if (from == std::string::npos) return {};
        const std::size_t start = from + before.size();
        return text.substr(start, text.find(after, start) - start);
    }
    ULONG64 Next() { return 5000 + 1000 * count_++; }
    void Use(const RecordedMessage& message, const DecodedMessage& decoded) {
        calls_.Follow(message, decoded);
        chrome_.Add(message, decoded);
    }
    Script& Add(unsigned int number, const std::string& function, DWORD thread) {
        Use({Next(), 4, thread, {}, number, {}}, {"function_trace", 5, "", {"file", function}, ""});
        return *this;
    }

    FunctionCalls calls_;
    ChromeTraceWriter chrome_;
    ULONG64 count_ = 0;
};

using Lines = std::vector<std::string>;

}  // namespace

TEST(ChromeTrace, HasSlicesAndInstantsAndTheThreadsName) {
    Script script;
    script.Enter("space::Function").Say("said", "space::Function").Leave("space::Function");
    EXPECT_EQ(
        script.Chrome(),
        "{\"traceEvents\":[\n"
        R"({"name":"thread_name","cat":"","ph":"M","ts":0.0,"pid":4,"tid":5,"args":{"name":"thread 5"}},)"
        "\n"
        R"({"name":"space::Function","cat":"file","ph":"B","ts":0.0,"pid":4,"tid":5},)"
        "\n"
        R"({"name":"said","cat":"name","ph":"i","s":"t","ts":100.0,"pid":4,"tid":5,)"
        R"("args":{"function":"space::Function"}},)"
        "\n"
        R"({"name":"space::Function","cat":"file","ph":"E","ts":200.0,"pid":4,"tid":5})"
        "\n]}\n");
}

TEST(ChromeTrace, EmptyRecordingIsAnEmptyTrace) {
    ChromeTraceWriter writer;
    EXPECT_EQ(Finished(writer), "{\"traceEvents\":[\n]}\n");
}

TEST(ChromeTrace, ThreadsAreNamedByTheFunctionsThatRunOnThem) {
    Script script;
    script.Enter("tessaplug_init", 1).Leave("tessaplug_init", 1).Enter("tessaplug_service_ctrl_handler", 1);
    script.Leave("tessaplug::DeviceMonitor::WaitForRequests", 2);
    script.Enter("tessaplug::EventLogMonitor::Run", 3).Enter("toolbox::GuidToString", 4);
    const std::string chrome = script.Chrome();
    for (
        const std::string named :
        {R"("name":"process_name","cat":"","ph":"M","ts":0.0,"pid":4,"tid":0,"args":{"name":"service with tessaplug"})",
         R"("tid":1,"args":{"name":"main"})", R"("tid":2,"args":{"name":"worker"})",
         R"("tid":3,"args":{"name":"monitor"})", R"("tid":4,"args":{"name":"thread 4"})"})
        EXPECT_NE(chrome.find(named), std::string::npos) << named << chrome;
}

TEST(ThreadRole, IsToldByEachFunctionThatRunsOnNoOtherThread) {
    const std::vector<std::pair<std::string, std::string>> roles = {
        {"tessaplug_init", "main"},
        {"tessaplug_cleanup", "main"},
        {"tessaplug_service_ctrl_handler", "service controls"},
        {"tessaplug::DeviceMonitor::RequestHandler", "worker"},
        {"tessaplug::DeviceMonitor::WaitForRequests", "worker"},
        {"tessaplug::DeviceMonitor::ServeRequests", "worker"},
        {"tessaplug::EventLogMonitor::Run", "monitor"},
        {"tessaplug::EventLogMonitor::Watch", "monitor"},
        {"operating_system::EventLog::WaitForChangesInEventLog", "monitor"},
        {"toolbox::GuidToString", ""}};
    for (const auto& [function, role] : roles)
        EXPECT_EQ(tessactl::ThreadRole(function), role) << function;
}

TEST(ChromeTrace, ProcessWithoutKnownFunctionsHasNoName) {
    Script script;
    script.Enter("toolbox::GuidToString");
    EXPECT_EQ(script.Chrome().find("process_name"), std::string::npos);
}

TEST(ChromeTrace, WhatWasEnteredBeforeIsOpenedAtTheBeginning) {
    Script script;
    script.Say("first").Leave("inner").Enter("other").Leave("other").Leave("outer");
    EXPECT_EQ(script.Slices(), (Lines{"B0 outer", "B0 inner", "i0 first", "E100 inner", "B200 other",
                                      "E300 other", "E400 outer"}));
    EXPECT_EQ(script.Calls().ExitsWithoutEntry(), 2u);
}

TEST(ChromeTrace, WhatIsNotLeftIsClosedAtTheEnd) {
    Script script;
    script.Enter("outer").Enter("inner").Enter("elsewhere", 6).Say("last");
    EXPECT_EQ(script.Slices(), (Lines{"B0 outer", "B100 inner", "B200 elsewhere", "i300 last", "E300 inner",
                                      "E300 outer", "E300 elsewhere"}));
    EXPECT_EQ(script.Calls().EntriesWithoutExit(), 3u);
}

TEST(ChromeTrace, LostExitIsClosedBeforeThatOfItsCaller) {
    Script script;
    script.Enter("outer").Enter("inner").Enter("innermost").Leave("outer");
    EXPECT_EQ(script.Slices(), (Lines{"B0 outer", "B100 inner", "B200 innermost", "E300 innermost",
                                      "E300 inner", "E300 outer"}));
    EXPECT_EQ(script.Calls().EntriesWithoutExit(), 2u);
    EXPECT_EQ(script.Calls().ExitsWithoutEntry(), 0u);
}

TEST(ChromeTrace, ExitWhoseEntryWasLostInsideAnotherFunctionIsAnInstant) {
    Script script;
    script.Enter("outer").Leave("lost").Leave("outer");
    EXPECT_EQ(script.Slices(), (Lines{"B0 outer", "i100 lost", "E200 outer"}));
    EXPECT_EQ(script.Calls().ExitsWithoutEntry(), 1u);
}

TEST(ChromeTrace, RecursionIsLeftFromTheInside) {
    Script script;
    script.Enter("f").Enter("f").Leave("f").Leave("f");
    EXPECT_EQ(script.Slices(), (Lines{"B0 f", "B100 f", "E200 f", "E300 f"}));
    EXPECT_EQ(script.Calls().EntriesWithoutExit(), 0u);
}

TEST(ChromeTrace, ThreadsDoNotMix) {
    Script script;
    script.Enter("f", 1).Leave("f", 2);
    EXPECT_EQ(script.Calls().EntriesWithoutExit(), 1u);
    EXPECT_EQ(script.Calls().ExitsWithoutEntry(), 1u);
}
