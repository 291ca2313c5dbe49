#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tessactl {

/// Exit codes of the tool.
enum class ExitCode {
    kSuccess = 0,
    kFailed = 1,
    kUsage = 2,
    kProblems = 3,  ///< doctor found some
    kNoRights = 5,
};

/// The arguments behind a command.
using Arguments = std::vector<std::wstring>;

/// Tells what was wrong with the arguments.
ExitCode UsageError(const std::wstring& what);

/// Takes "--json" out of the arguments.
/// @return whether it was there
bool TakeJson(Arguments& arguments);

/// Takes an option and the value behind it out of the arguments, once.
/// @return nothing if it is not there; without a value it stays, to be told as not understood
std::optional<std::wstring> TakeValue(Arguments& arguments, const std::wstring& option);

/// trace start, stop and decode.
ExitCode Trace(const Arguments& arguments);

/// Entries of the event log as sentences.
ExitCode Log(const Arguments& arguments);

/// The exceptions that the plug-in of a running service threw last.
ExitCode Exceptions(const Arguments& arguments);

/// dump info, history, list and prune.
ExitCode Dump(const Arguments& arguments);

/// What the station is like at this moment.
ExitCode Status(const Arguments& arguments);

/// What has to be true for an access point to show, and what to do where it is not.
ExitCode Doctor(const Arguments& arguments);

/// Asks one partner, which may never answer: run in a process of its own by doctor.
ExitCode Probe(const Arguments& arguments);

/// Shows or hides one access point.
ExitCode ShowAccessPoint(const Arguments& arguments);
ExitCode HideAccessPoint(const Arguments& arguments);

/// What happens, as it happens.
ExitCode Watch(const Arguments& arguments);

}  // namespace tessactl
