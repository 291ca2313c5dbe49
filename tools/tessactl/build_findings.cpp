#include "build_findings.h"

namespace tessactl {
namespace {

/// What is in use: the file itself may have been replaced since.
const std::optional<BuildVersion>& InUse(const ServedFile& served) {
    return served.loaded ? served.loaded->build : served.file.build;
}

/// A host or a plug-in of somebody else has versions of its own, with which nothing can be compared.
bool DiffersFrom(const BuildVersion& build, const std::optional<BuildVersion>& other) {
    return other && other->product == build.product && *other != build;
}

/// Tells where a file stands to what runs of it.
/// @return whether that leaves something to say about the build itself
bool TellFile(Findings& findings, const std::string& what, const ServedFile& served) {
    const std::optional<BuildVersion>& onDisk = served.file.build;
    const std::optional<BuildVersion>& inUse = InUse(served);
    if (served.isMissing) {
        findings.Problem(what,
                         served.path + ": there is no such file" +
                             (inUse ? " any more; " + InWords(*inUse) + " runs" : ""),
                         "install it again");
    } else if (served.loaded && inUse && onDisk && *inUse != *onDisk) {
        findings.Problem(what, InWords(*inUse) + " runs; its file is " + InWords(*onDisk),
                         "restart the service: it has not been since the file was replaced");
    } else if (served.loaded && !inUse && onDisk) {
        findings.Note(
            what, "its file is " + InWords(*onDisk) + "; what runs is not known: " + served.loaded->whyNot);
    } else if (served.loaded && inUse && !onDisk) {
        findings.Problem(what, InWords(*inUse) + " runs; its file: " + served.file.whyNot,
                         "install it again, then restart the service");
    } else if (!onDisk) {
        findings.Note(what, "not known: " + served.file.whyNot);
    } else {
        return true;
    }
    return false;
}

void TellHost(Findings& findings, const ServedFile& host) {
    constexpr char kWhat[] = "build of the host";
    if (TellFile(findings, kWhat, host)) findings.Ok(kWhat, InWords(*InUse(host)));
}

void TellPlugIn(Findings& findings, const ServedFile& plugIn, const std::optional<BuildVersion>& host) {
    constexpr char kWhat[] = "build of the plug-in";
    if (!TellFile(findings, kWhat, plugIn)) return;
    const BuildVersion& build = *InUse(plugIn);
    if (!DiffersFrom(build, host)) {
        findings.Ok(kWhat, InWords(build));
        return;
    }
    // They are tried out together only, and versions say what changed for each other.
    findings.ProblemOrNote(host->version != build.version, kWhat,
                           InWords(build) + "; the host is " + InWords(*host),
                           "install host and plug-in of one build");
}

/// What looks at the plug-in is told beside it: of another build it may tell wrong things, but harms nothing.
void TellCompanion(Findings& findings, const std::string& what, const BuildVersion& build,
                   const std::optional<BuildVersion>& plugIn, const std::string& advice) {
    if (DiffersFrom(build, plugIn))
        findings.Note(what, InWords(build) + "; the plug-in is " + InWords(*plugIn), advice);
    else
        findings.Ok(what, InWords(build));
}

}  // namespace

void TellBuilds(Findings& findings, const StationBuilds& builds) {
    constexpr char kFormats[] = "build of the trace formats";
    const std::optional<BuildVersion>& plugIn = InUse(builds.plugIn);
    TellHost(findings, builds.host);
    TellPlugIn(findings, builds.plugIn, InUse(builds.host));
    TellCompanion(findings, "build of this tool", builds.tool, plugIn,
                  "use the tool that came with the plug-in");
    if (builds.traceFormats.build)
        TellCompanion(findings, kFormats, *builds.traceFormats.build, plugIn,
                      "decode recordings with the formats that came with the plug-in: tessactl trace decode "
                      "--tmf FOLDER");
    else
        findings.Note(kFormats, "not known: " + builds.traceFormats.whyNot,
                      "without them recordings cannot be read; they are the folder tmf beside the tool");
}

}  // namespace tessactl
