#include "report.h"

#include <algorithm>
#include <cstdio>

namespace kitrun {
namespace {

template <typename... Values>
std::string Format(const char* format, Values... values) {
    char text[256] = {};
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

/// The beginning and the end of an output that is too long to be read.
std::string Shortened(const std::string& output, std::size_t most) {
    if (output.length() <= most) return output;
    return output.substr(0, most / 2) + "\n[...]\n" + output.substr(output.length() - most / 2);
}

std::string Indented(const std::string& text) {
    std::string indented;
    for (std::size_t at = 0; at < text.length();) {
        const std::size_t end = std::min(text.find('\n', at), text.length());
        indented += "    " + text.substr(at, end - at) + "\n";
        at = end + 1;
    }
    return indented;
}

bool IsBad(const TestOutcome& outcome) {
    return outcome.verdict == Verdict::kFailed || outcome.verdict == Verdict::kTimedOut;
}

std::string Counts(const std::vector<TestOutcome>& outcomes) {
    std::string text = "label      run  passed  skipped  failed  timed out  seconds\n";
    for (const std::string& label : kLabels) {
        int count[4] = {};
        int all = 0;
        double seconds = 0;
        for (const TestOutcome& outcome : outcomes) {
            if (outcome.test.label != label) continue;
            ++all;
            ++count[static_cast<int>(outcome.verdict)];
            seconds += outcome.result.milliseconds / 1000.0;
        }
        text += Format("%-8s %5d  %6d  %7d  %6d  %9d  %7.1f\n", label.c_str(), all, count[0], count[1],
                       count[2], count[3], seconds);
    }
    return text;
}

}  // namespace

const char* Name(Verdict verdict) {
    constexpr const char* kNames[] = {"passed", "skipped", "FAILED", "TIMED OUT"};
    return kNames[static_cast<int>(verdict)];
}

std::string EndOf(const ProcessResult& result, DWORD limitSeconds) {
    if (result.startError != 0) return Format("could not be started, error %lu", result.startError);
    if (result.timedOut) return Format("had not ended after %lu s and was ended", limitSeconds);
    return Format("ended with 0x%08lX after %.1f s", result.exitCode, result.milliseconds / 1000.0);
}

bool Report::IsGood() const {
    return isFinished && refusal.empty() && std::ranges::none_of(outcomes, &IsBad) &&
           std::ranges::all_of(life, &LifeStep::isRight);
}

std::string Report::Text() const {
    std::string text = version + "\n" + system + "\nstarted " + started + "\n";
    if (!refusal.empty()) return text + "\nresult: NOTHING WAS RUN\n" + refusal + "\n";
    text += Format("\nresult: %s, %lu s\n\n",
                   !isFinished ? "NOT FINISHED"
                   : IsGood()  ? "passed"
                               : "FAILED",
                   seconds);
    text += Counts(outcomes);
    if (!life.empty())
        text +=
            Format("%-8s %5d  %6d  of the service's steps are right\n", kLife, static_cast<int>(life.size()),
                   static_cast<int>(std::ranges::count_if(life, &LifeStep::isRight)));
    for (const std::string& label : leftOut)
        text += "left out: " + label + "\n";
    for (const std::string& remark : remarks)
        text += "note: " + remark + "\n";
    constexpr std::size_t kMostOfATest = 20000;
    constexpr std::size_t kMostOfAStep = 8000;
    for (const TestOutcome& outcome : outcomes)
        if (IsBad(outcome))
            text += "\n==== " + std::string(Name(outcome.verdict)) + " " + outcome.test.name + " (" +
                    outcome.test.label + ", " + outcome.test.program + ") " +
                    EndOf(outcome.result, outcome.test.seconds) + "\n" +
                    Indented(Shortened(outcome.result.output, kMostOfATest));
    if (!life.empty()) text += "\n==== The life of the service\n";
    for (const LifeStep& step : life)
        text += Format("%s  ", step.isRight ? "right" : "WRONG") + step.command + "  " +
                EndOf(step.result, 0) + "\n" + Indented(Shortened(step.result.output, kMostOfAStep));
    if (!outcomes.empty()) text += "\n==== All tests\n";
    for (const TestOutcome& outcome : outcomes)
        text += Format("%-9s %8.2f s  %-8s ", Name(outcome.verdict), outcome.result.milliseconds / 1000.0,
                       outcome.test.label.c_str()) +
                outcome.test.name + "\n";
    return text;
}

}  // namespace kitrun
