#include "findings.h"

#include <algorithm>
#include <cstdio>

#include "json.h"

namespace tessactl {
namespace {

const char* NameOf(Finding::State state) {
    switch (state) {
        case Finding::State::kOk:
            return "ok";
        case Finding::State::kNote:
            return "note";
        default:
            return "problem";
    }
}

const char* HeadOf(Finding::State state) {
    return state == Finding::State::kProblem ? "PROBLEM" : NameOf(state);
}

}  // namespace

void Findings::Ok(const std::string& what, const std::string& found) {
    all_.push_back({what, Finding::State::kOk, found, ""});
}

void Findings::Note(const std::string& what, const std::string& found, const std::string& advice) {
    all_.push_back({what, Finding::State::kNote, found, advice});
}

void Findings::Problem(const std::string& what, const std::string& found, const std::string& advice) {
    all_.push_back({what, Finding::State::kProblem, found, advice});
}

void Findings::ProblemOrNote(bool isProblem, const std::string& what, const std::string& found,
                             const std::string& advice) {
    isProblem ? Problem(what, found, advice) : Note(what, found, advice);
}

bool Findings::HasProblems() const {
    return std::ranges::any_of(
        all_, [](const Finding& finding) { return finding.state == Finding::State::kProblem; });
}

void Findings::Print() const {
    for (const Finding& finding : all_) {
        std::printf("%-7s  %-42s  %s\n", HeadOf(finding.state), finding.what.c_str(), finding.found.c_str());
        if (!finding.advice.empty()) std::printf("         -> %s\n", finding.advice.c_str());
    }
}

std::string Findings::Json() const {
    auto elements = tessactl::Json::array();
    for (const Finding& finding : all_)
        elements.push_back({{"schema", 1},
                            {"what", finding.what},
                            {"ok", finding.state != Finding::State::kProblem},
                            {"state", NameOf(finding.state)},
                            {"found", finding.found},
                            {"advice", finding.advice}});
    return JsonLines(elements);
}

}  // namespace tessactl
