#pragma once

#include "command_line.h"

namespace host {

/// Runs the service until the service manager stops it. Only the service manager can call it successfully.
ExitCode RunService(const Options& options);

}  // namespace host
