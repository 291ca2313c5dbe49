#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <string>

#include "commands.h"
#include "doctor_checks.h"
#include "text.h"

namespace tessactl {
namespace {

/// A model as people type it: "FennlinkU3" is the Fennlink U3.
std::wstring WithoutBlanks(std::wstring name) {
    std::erase(name, L' ');
    return name;
}

bool IsSameName(const std::wstring& a, const std::wstring& b) {
    return ::CompareStringOrdinal(WithoutBlanks(a).c_str(), -1, WithoutBlanks(b).c_str(), -1, TRUE) ==
           CSTR_EQUAL;
}

bool IsModel(const Models& models, const std::wstring& name) {
    return std::ranges::any_of(models, [&](const auto& model) { return IsSameName(model.name, name); });
}

std::wstring NamesOf(const Models& models) {
    std::wstring names;
    for (const auto& model : models)
        names += (names.empty() ? L"\"" : L", \"") + model.name + L"\"";
    return names;
}

/// @return false if it is no whole number of seconds between 1 and 3600
bool ParseSeconds(const std::wstring& text, std::chrono::milliseconds& time) {
    constexpr unsigned long kMost = 3600;
    wchar_t* end = nullptr;
    const unsigned long seconds = std::wcstoul(text.c_str(), &end, 10);
    time = std::chrono::seconds(seconds);
    return end != text.c_str() && *end == L'\0' && seconds >= 1 && seconds <= kMost;
}

void CheckAll(Findings& findings, const Expectations& expectations, Models& models) {
    const QueriedService service(expectations.service);
    CheckService(findings, service);
    CheckServiceSettings(findings, service);
    CheckPlugIn(findings, service, expectations.plugIn);
    CheckBuilds(findings, service, expectations.plugIn);
    ReadAdapters(models);
    const bool accessPointsAreKnown = CheckLibrary(findings, models, expectations.timeOut);
    if (accessPointsAreKnown) CheckAccessPoints(findings, models);
    CheckAdapters(findings, models, accessPointsAreKnown, expectations);
    CheckPanel(findings, models, accessPointsAreKnown);
    CheckStationManager(findings, models, expectations);
    CheckDriverMessages(findings);
    CheckEventSource(findings);
}

}  // namespace

bool Expectations::IsExpected(const StationState::Model& model) const {
    return std::ranges::any_of(models, [&](const auto& name) { return IsSameName(model.name, name); });
}

ExitCode Doctor(const Arguments& arguments) {
    Arguments rest = arguments;
    const bool json = TakeJson(rest);
    Models models = SupportedModels();
    Expectations expectations;
    expectations.service = TakeValue(rest, L"--service").value_or(expectations.service);
    expectations.plugIn = TakeValue(rest, L"--plugin").value_or(expectations.plugIn);
    while (const auto model = TakeValue(rest, L"--expect"))
        expectations.models.push_back(*model);
    if (const auto seconds = TakeValue(rest, L"--timeout"))
        if (!ParseSeconds(*seconds, expectations.timeOut))
            return UsageError(L"the timeout is a number of seconds, 1 to 3600");
    if (!rest.empty()) return UsageError(L"not understood: " + rest[0]);
    for (const std::wstring& name : expectations.models)
        if (!IsModel(models, name))
            return UsageError(L"there is no model " + name + L"; those there are: " + NamesOf(models));
    Findings findings;
    CheckAll(findings, expectations, models);
    if (json)
        std::printf("%s\n", findings.Json().c_str());
    else
        findings.Print();
    return findings.HasProblems() ? ExitCode::kProblems : ExitCode::kSuccess;
}

}  // namespace tessactl
