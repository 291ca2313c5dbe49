#pragma once

#include <string>
#include <vector>

#include "kit_list.h"
#include "service_life.h"
#include "test_process.h"

namespace kitrun {

struct TestOutcome {
    KitTest test;
    Verdict verdict = Verdict::kFailed;
    ProcessResult result;
};

/// What the result file tells.
struct Report {
    std::string version;
    std::string system;
    std::string started;
    DWORD seconds = 0;
    bool isFinished = false;
    std::string refusal;               ///< why nothing was run
    std::vector<std::string> remarks;  ///< what else a reader has to know
    std::vector<std::string> leftOut;  ///< labels, each with its reason
    std::vector<TestOutcome> outcomes;
    std::vector<LifeStep> life;

    bool IsGood() const;
    std::string Text() const;
};

/// "passed", "FAILED" and so on.
const char* Name(Verdict verdict);

/// How a process ended that was not to end so.
std::string EndOf(const ProcessResult& result, DWORD limitSeconds);

}  // namespace kitrun
