#pragma once

#include <optional>
#include <string>

#include "build_version.h"
#include "findings.h"

namespace tessactl {

/// A build, or why it is not known.
struct BuildReading {
    std::optional<BuildVersion> build;
    std::string whyNot;
};

/// A program or library of the service.
struct ServedFile {
    std::string path;
    BuildReading file;
    bool isMissing = false;              ///< there is no such file
    std::optional<BuildReading> loaded;  ///< what runs; nothing if nothing runs
};

/// What has to be of one build.
struct StationBuilds {
    BuildVersion tool;
    ServedFile host;
    ServedFile plugIn;
    BuildReading traceFormats;
};

/// Tells each build, and where they do not belong together.
void TellBuilds(Findings& findings, const StationBuilds& builds);

}  // namespace tessactl
