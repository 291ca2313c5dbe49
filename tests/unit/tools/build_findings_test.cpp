#include "build_findings.h"

#include <gtest/gtest.h>
#include <string>

#include "module_hooks.h"

using tessactl::BuildReading;
using tessactl::BuildVersion;
using tessactl::Findings;
using tessactl::StationBuilds;

namespace {

const BuildVersion kBuild = {"product", "V1", "c1", "d1"};
const BuildVersion kLaterCommit = {"product", "V1", "c2", "d2"};
const BuildVersion kLaterVersion = {"product", "V2", "c3", "d3"};
const BuildVersion kForeign = {"another", "7.0.0.0", "", ""};
const BuildReading kUnknown = {std::nullopt, "REASON"};

BuildReading Known(const BuildVersion& build) {
    return {build, ""};
}

/// A service that runs, everything of one build.
StationBuilds Sound() {
    const BuildReading build = Known(kBuild);
    return {kBuild, {"host.exe", build, false, build}, {"plug_in.dll", build, false, build}, build};
}

/// What is told of one of them: "state: found", in the entry's JSON.
std::string Told(const StationBuilds& builds, const std::string& what) {
    Findings findings;
    TellBuilds(findings, builds);
    const std::string json = findings.Json();
    const std::size_t at = json.find("\"what\":\"build of " + what + "\"");
    if (at == std::string::npos) return "";
    const auto member = [&](const std::string& name) {
        const std::string head = "\"" + name + "\":\"";
        const std::size_t start = json.find(head, at) + head.length();
        return json.substr(start, json.find('"', start) - start);
    };
    return member("state") + ": " + member("found");
}

}  // namespace

TEST(BuildFindings, OneBuildIsWell) {
    for (const auto* what : {"the host", "the plug-in", "this tool", "the trace formats"})
        EXPECT_EQ(Told(Sound(), what), "ok: V1, commit c1 of d1");
}

TEST(BuildFindings, ServiceThatDoesNotRunIsToldByItsFiles) {
    StationBuilds builds = Sound();
    builds.host.loaded.reset();
    builds.plugIn.loaded.reset();
    EXPECT_EQ(Told(builds, "the plug-in"), "ok: V1, commit c1 of d1");
    builds.plugIn.file = Known(kLaterVersion);
    EXPECT_EQ(Told(builds, "the plug-in"), "problem: V2, commit c3 of d3; the host is V1, commit c1 of d1");
}

TEST(BuildFindings, FileThatWasReplacedWithoutARestartIsAProblem) {
    for (const BuildVersion& later : {kLaterCommit, kLaterVersion}) {
        StationBuilds builds = Sound();
        builds.plugIn.file = Known(later);
        EXPECT_EQ(Told(builds, "the plug-in"),
                  "problem: V1, commit c1 of d1 runs; its file is " + InWords(later));
        EXPECT_EQ(Told(builds, "this tool"), "ok: V1, commit c1 of d1") << "what runs counts";
        builds = Sound();
        builds.host.file = Known(later);
        EXPECT_EQ(Told(builds, "the host"),
                  "problem: V1, commit c1 of d1 runs; its file is " + InWords(later));
        EXPECT_EQ(Told(builds, "the plug-in"), "ok: V1, commit c1 of d1");
    }
}

TEST(BuildFindings, FileThatIsGoneOrAnotherIsAProblem) {
    StationBuilds builds = Sound();
    builds.plugIn.file = kUnknown;
    EXPECT_EQ(Told(builds, "the plug-in"), "problem: V1, commit c1 of d1 runs; its file: REASON");
    builds.plugIn.isMissing = true;
    EXPECT_EQ(Told(builds, "the plug-in"),
              "problem: plug_in.dll: there is no such file any more; V1, commit c1 of d1 runs");
    builds.plugIn.loaded.reset();
    EXPECT_EQ(Told(builds, "the plug-in"), "problem: plug_in.dll: there is no such file");
    EXPECT_EQ(Told(builds, "this tool"), "ok: V1, commit c1 of d1");
}

TEST(BuildFindings, WhatIsNotKnownIsANoteAndComparedWithNothing) {
    StationBuilds builds = Sound();
    builds.plugIn.loaded = kUnknown;
    builds.tool = kLaterVersion;
    EXPECT_EQ(Told(builds, "the plug-in"),
              "note: its file is V1, commit c1 of d1; what runs is not known: REASON");
    EXPECT_EQ(Told(builds, "this tool"), "ok: V2, commit c3 of d3");
    builds.plugIn.file = kUnknown;
    EXPECT_EQ(Told(builds, "the plug-in"), "note: not known: REASON");
    builds = Sound();
    builds.host = {"host.exe", kUnknown, false, kUnknown};
    builds.plugIn.file = builds.plugIn.loaded.emplace(Known(kLaterVersion));
    EXPECT_EQ(Told(builds, "the host"), "note: not known: REASON");
    EXPECT_EQ(Told(builds, "the plug-in"), "ok: V2, commit c3 of d3");
    builds.traceFormats = kUnknown;
    EXPECT_EQ(Told(builds, "the trace formats"), "note: not known: REASON");
}

TEST(BuildFindings, HostOfAnotherVersionIsAProblemOfAnotherCommitANote) {
    StationBuilds builds = Sound();
    builds.host.file = builds.host.loaded.emplace(Known(kLaterCommit));
    EXPECT_EQ(Told(builds, "the plug-in"), "note: V1, commit c1 of d1; the host is V1, commit c2 of d2");
    builds.host.file = builds.host.loaded.emplace(Known(kLaterVersion));
    EXPECT_EQ(Told(builds, "the plug-in"), "problem: V1, commit c1 of d1; the host is V2, commit c3 of d3");
}

TEST(BuildFindings, HostOfSomebodyElseHasVersionsOfItsOwn) {
    StationBuilds builds = Sound();
    builds.host.file = builds.host.loaded.emplace(Known(kForeign));
    EXPECT_EQ(Told(builds, "the host"), "ok: 7.0.0.0, commit not told");
    EXPECT_EQ(Told(builds, "the plug-in"), "ok: V1, commit c1 of d1");
}

TEST(BuildFindings, ToolAndTraceFormatsOfAnotherBuildAreNotes) {
    for (const BuildVersion& other : {kLaterCommit, kLaterVersion}) {
        StationBuilds builds = Sound();
        builds.tool = other;
        EXPECT_EQ(Told(builds, "this tool"),
                  "note: " + InWords(other) + "; the plug-in is V1, commit c1 of d1");
        builds.traceFormats = Known(other);
        EXPECT_EQ(Told(builds, "the trace formats"),
                  "note: " + InWords(other) + "; the plug-in is V1, commit c1 of d1");
    }
}
