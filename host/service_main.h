#pragma once

#include <windows.h>

#include "command_line.h"

namespace host {

/// What the service reports as its own exit code (beside ERROR_SERVICE_SPECIFIC_ERROR).
enum ServiceExitCode : DWORD {
    kPlugInRefused = 1,  ///< the plug-in did not start
    kStopTimedOut = 2,   ///< the plug-in's clean-up did not return within the stop's limit
};

/// Runs the service until the service manager stops it. Only the service manager can call it successfully.
ExitCode RunService(const Options& options);

}  // namespace host
