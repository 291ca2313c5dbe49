#include "build_findings.h"

namespace tessactl {
namespace {

/// Null if it is not known.
const BuildVersion* BuildOf(const BuildReading& reading) {
    return reading.build ? &*reading.build : nullptr;
}

/// What is in use: the file itself may have been replaced since.
const BuildVersion* InUse(const ServedFile& served) {
    return BuildOf(served.loaded ? *served.loaded : served.file);
}

/// A host or a plug-in of somebody else has versions of its own, with which nothing can be compared.
/// @param other may be null: not known
bool DiffersFrom(const BuildVersion& build, const BuildVersion* other) {
    return other != nullptr && other->product == build.product && *other != build;
}

/// Tells where a file and what runs of it do not belong together, or are not known.
/// @return the build, if it is still to be told
const BuildVersion* TellFile(Findings& findings, const std::string& what, const ServedFile& served) {
    const BuildVersion* onDisk = BuildOf(served.file);
    const BuildVersion* inUse = InUse(served);
    if (served.isMissing)
        findings.Problem(what,
                         served.path + ": there is no such file" +
                             (inUse != nullptr ? " any more; " + InWords(*inUse) + " runs" : ""),
                         "install it again");
    else if (inUse != nullptr && onDisk != nullptr && *inUse == *onDisk)
        return inUse;
    else if (inUse != nullptr && onDisk != nullptr)
        findings.Problem(what, InWords(*inUse) + " runs; its file is " + InWords(*onDisk),
                         "restart the service: it has not been since the file was replaced");
    else if (inUse != nullptr)
        findings.Problem(what, InWords(*inUse) + " runs; its file: " + served.file.whyNot,
                         "install it again, then restart the service");
    else if (onDisk != nullptr && served.loaded)
        findings.Note(
            what, "its file is " + InWords(*onDisk) + "; what runs is not known: " + served.loaded->whyNot);
    else
        findings.Note(what, "not known: " + served.file.whyNot);
    return nullptr;
}

void TellHost(Findings& findings, const ServedFile& host) {
    constexpr char kWhat[] = "build of the host";
    if (const BuildVersion* build = TellFile(findings, kWhat, host)) findings.Ok(kWhat, InWords(*build));
}

void TellPlugIn(Findings& findings, const ServedFile& plugIn, const BuildVersion* host) {
    constexpr char kWhat[] = "build of the plug-in";
    const BuildVersion* build = TellFile(findings, kWhat, plugIn);
    if (build == nullptr) return;
    if (!DiffersFrom(*build, host)) {
        findings.Ok(kWhat, InWords(*build));
        return;
    }
    // They are tried out together only, and what changed for each other makes another version.
    findings.ProblemOrNote(host->version != build->version, kWhat,
                           InWords(*build) + "; the host is " + InWords(*host),
                           "install host and plug-in of one build");
}

/// What looks at the plug-in is told beside it: of another build it may tell wrong things, but harms nothing.
void TellCompanion(Findings& findings, const std::string& what, const BuildVersion& build,
                   const BuildVersion* plugIn, const std::string& advice) {
    if (DiffersFrom(build, plugIn))
        findings.Note(what, InWords(build) + "; the plug-in is " + InWords(*plugIn), advice);
    else
        findings.Ok(what, InWords(build));
}

}  // namespace

void TellBuilds(Findings& findings, const StationBuilds& builds) {
    constexpr char kFormats[] = "build of the trace formats";
    const BuildVersion* plugIn = InUse(builds.plugIn);
    TellHost(findings, builds.host);
    TellPlugIn(findings, builds.plugIn, InUse(builds.host));
    TellCompanion(findings, "build of this tool", builds.tool, plugIn,
                  "use the tool that came with the plug-in");
    if (const BuildVersion* formats = BuildOf(builds.traceFormats))
        TellCompanion(findings, kFormats, *formats, plugIn,
                      "decode recordings with the formats that came with the plug-in: tessactl trace decode "
                      "--tmf FOLDER");
    else
        findings.Note(kFormats, "not known: " + builds.traceFormats.whyNot,
                      "without them recordings cannot be read; they are the folder tmf beside the tool");
}

}  // namespace tessactl
