#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>

#include "commands.h"
#include "doctor_checks.h"
#include "partner_probe.h"
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

void CheckAll(Findings& findings, const Expectations& expectations, Models& models) {
    ReadAdapters(models);
    Inquiry library([&] { return ProbeConfigurationLibrary(models, expectations.timeOut); });
    const std::optional<std::string> server = StationManagerServer();
    Inquiry stationManager([&] { return server ? ProbeStationManager(expectations.timeOut) : ""; });
    const QueriedService service(expectations.service);
    CheckService(findings, service);
    CheckServiceSettings(findings, service);
    CheckPlugIn(findings, service, expectations.plugIn);
    CheckBuilds(findings, service, expectations.plugIn);
    const bool accessPointsAreKnown = CheckLibrary(findings, library);
    if (accessPointsAreKnown) CheckAccessPoints(findings, models);
    CheckAdapters(findings, models, accessPointsAreKnown, expectations);
    CheckPanel(findings, models, accessPointsAreKnown);
    CheckStationManager(findings, models, expectations, server, stationManager);
    CheckDriverMessages(findings);
    CheckEventSource(findings);
}

}  // namespace

Inquiry::Inquiry(std::function<std::string()> ask)
    : asking_([this, ask = std::move(ask)] {
          try {
              answer_ = ask();
          } catch (...) {
              error_ = std::current_exception();
          }
      }) {}

std::string Inquiry::Answer() {
    asking_.join();
    if (error_) std::rethrow_exception(error_);
    return answer_;
}

bool Expectations::IsExpected(const StationState::Model& model) const {
    return std::ranges::any_of(models, [&](const auto& name) { return IsSameName(model.name, name); });
}

namespace {

struct Options {
    Expectations expectations;
    unsigned long timeOut = 10;  // seconds
    bool json = false;
};

ExitCode Doctor(const Options& options) {
    Models models = SupportedModels();
    Expectations expectations = options.expectations;
    expectations.timeOut = std::chrono::seconds(options.timeOut);
    for (const std::wstring& name : expectations.models)
        if (!IsModel(models, name))
            throw command_line::UsageError(
                Utf8(L"there is no model " + name + L"; those there are: " + NamesOf(models)));
    Findings findings;
    CheckAll(findings, expectations, models);
    if (options.json)
        std::printf("%s\n", findings.Json().c_str());
    else
        findings.Print();
    return findings.HasProblems() ? ExitCode::kProblems : ExitCode::kSuccess;
}

}  // namespace

void AddDoctor(command_line::Program& program) {
    const auto define = [](command_line::Command& command, Options& options) {
        command.Text("--service", options.expectations.service, "NAME",
                     "the service, tessahost unless told otherwise");
        command.Text("--plugin", options.expectations.plugIn, "FILE",
                     "file name of its plug-in, tessaplug.dll unless told otherwise");
        command.Texts("--expect", options.expectations.models, "MODEL",
                      "an adapter that has to be there, such as NX4120");
        command.Number("--timeout", options.timeOut, 1, 3600, "SECONDS",
                       "how long a partner may take to answer");
        command.Switch("--json", options.json, "as JSON");
    };
    AddCommand<Options>(
        program, "doctor",
        "goes through what has to be true for an access point to show\n"
        "says what is wrong and what to do; a note is worth knowing and may be as it is wanted",
        define, &Doctor);
}

}  // namespace tessactl
