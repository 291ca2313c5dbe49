#pragma once

#include "program.h"

namespace tessactl {

/// Exit codes of the tool.
enum class ExitCode {
    kSuccess = 0,
    kFailed = 1,
    kUsage = command_line::kUsageExitCode,
    kProblems = 3,  ///< doctor found some
    kNoRights = 5,
};

// Each adds a command, or a family of them, to the tool's command line.

/// What the station is like at this moment.
void AddStatus(command_line::Program& program);

/// What has to be true for an access point to show, and what to do where it is not.
void AddDoctor(command_line::Program& program);

/// Showing and hiding one access point.
void AddShowAndHide(command_line::Program& program);

/// What happens, as it happens.
void AddWatch(command_line::Program& program);

/// Entries of the event log as sentences.
void AddLog(command_line::Program& program);

/// The exceptions that the plug-in of a running service threw last.
void AddExceptions(command_line::Program& program);

/// What a memory dump holds.
void AddDump(command_line::Program& program);

/// Recordings of the plug-in's trace.
void AddTrace(command_line::Program& program);

/// The station's numbers, for a monitoring system.
void AddMetrics(command_line::Program& program);

/// One page with everything that support asks for.
void AddReport(command_line::Program& program);
/// One part of it: run in a process of its own by report.
void AddReportPart(command_line::Program& program);

/// Asks one partner, which may never answer: run in a process of its own by doctor.
void AddProbe(command_line::Program& program);

/// Adds a command that is run with its options.
/// @param define adds the options to the command; they live as long as the command
template <typename Options, typename Define, typename Run>
void AddCommand(command_line::Program& program, const char* name, const char* about, Define define, Run run) {
    const auto options = std::make_shared<Options>();
    command_line::Command command = program.Add(name, about);
    define(command, *options);
    command.Runs([options, run] { return static_cast<int>(run(*options)); });
}

}  // namespace tessactl
