#include "partner_probe.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "commands.h"
#include "limited_process.h"
#include "statmgr_wrapper.h"
#include "text.h"

namespace tessactl {
namespace {

using AccessPoint = StationState::AccessPoint;

// What the probe writes: for each access point of each model, in their order, one line of three digits for
// installed, exists and hidden; or why there are none, and ends with kFailed.

std::string LineOf(const AccessPoint& point) {
    std::string line;
    for (const bool flag : {point.installed, point.exists, point.hidden})
        line += flag ? '1' : '0';
    return line;
}

ExitCode AskConfigurationLibrary() {
    auto models = SupportedModels();
    const std::string error = ReadAccessPoints(models);
    if (!error.empty()) {
        std::printf("%s\n", error.c_str());
        return ExitCode::kFailed;
    }
    for (const auto& model : models)
        for (const AccessPoint& point : model.accessPoints)
            std::printf("%s\n", LineOf(point).c_str());
    return ExitCode::kSuccess;
}

ExitCode AskStationManager() {
    try {
        korvane::StationManager manager;
        manager.Initialize();
        manager.HasPluggedComponentes();
        return ExitCode::kSuccess;
    } catch (const std::exception& error) {
        std::printf("%s\n", InWords(error).c_str());
        return ExitCode::kFailed;
    }
}

/// Runs a probe.
/// @param output what it said if all is well
/// @return what is wrong
std::string Ask(const wchar_t* partner, std::chrono::milliseconds limit, std::string& output) {
    const LimitedResult result = RunThisProgram(std::wstring(L"probe ") + partner, limit);
    output = result.output;
    std::erase(output, '\r');
    if (!result.ended)
        return "no answer within " +
               std::to_string(std::chrono::duration_cast<std::chrono::seconds>(limit).count()) + " seconds";
    if (result.exitCode == static_cast<DWORD>(ExitCode::kSuccess)) return {};
    const bool isToldWhy = result.exitCode == static_cast<DWORD>(ExitCode::kFailed) && !output.empty();
    if (isToldWhy) return output.substr(0, output.find('\n'));
    char code[16] = {};
    std::snprintf(code, sizeof code, "0x%08lX", result.exitCode);
    return std::string("the process that asked it ended with ") + code;
}

}  // namespace

std::string ProbeConfigurationLibrary(std::vector<StationState::Model>& models,
                                      std::chrono::milliseconds limit) {
    std::string output;
    std::string error = Ask(L"configuration-library", limit, output);
    std::istringstream lines(error.empty() ? output : "");
    for (auto& model : models)
        for (AccessPoint& point : model.accessPoints) {
            std::string line;
            std::getline(lines, line);
            if (line.length() != 3 && error.empty())
                error = "the process that asked it did not tell everything";
            line.resize(3, '0');
            point.installed = line[0] == '1';
            point.exists = line[1] == '1';
            point.hidden = line[2] == '1';
        }
    return error;
}

std::string ProbeStationManager(std::chrono::milliseconds limit) {
    std::string output;
    return Ask(L"station-manager", limit, output);
}

void AddProbe(command_line::Program& program) {
    struct Options {
        std::wstring partner;
    };
    const auto define = [](command_line::Command& command, Options& options) {
        command.Operand("PARTNER", options.partner, "configuration-library or station-manager");
        command.Hide();
    };
    AddCommand<Options>(
        program, "probe", "asks one partner; for doctor only", define, [](const Options& options) {
            if (options.partner == L"configuration-library") return AskConfigurationLibrary();
            if (options.partner == L"station-manager") return AskStationManager();
            throw command_line::UsageError("probe configuration-library or probe station-manager?");
        });
}

}  // namespace tessactl
