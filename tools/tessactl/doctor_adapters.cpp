#include <algorithm>
#include <string>

#include "doctor_checks.h"
#include "quelm_orvix.h"
#include "text.h"

namespace tessactl {
namespace {

using AccessPoint = StationState::AccessPoint;

/// The names of those access points for which it holds, each behind a blank.
template <typename Condition>
std::string NamesOf(const StationState::Model& model, Condition condition) {
    std::string names;
    for (const AccessPoint& point : model.accessPoints)
        if (condition(point)) names += " " + Utf8(point.name);
    return names;
}

void CheckVisibility(Findings& findings, const StationState::Model& model) {
    const std::string what = Utf8(model.name) + ": access points ";
    const auto has = [](const AccessPoint& point) { return point.installed && point.exists; };
    const std::string visible =
        NamesOf(model, [&](const AccessPoint& point) { return has(point) && !point.hidden; });
    const std::string hidden =
        NamesOf(model, [&](const AccessPoint& point) { return has(point) && point.hidden; });
    if (model.devicePaths.empty()) {
        if (!visible.empty())
            findings.Problem(what + "hidden", "visible without an adapter:" + visible,
                             "restart the service that hosts the plug-in, or tessactl hide NAME");
        return;
    }
    if (hidden.empty())
        findings.Ok(what + "visible", "yes");
    else
        findings.Problem(what + "visible", "some are hidden:" + hidden,
                         "start the service that hosts the plug-in, or tessactl show NAME");
}

}  // namespace

bool CheckLibrary(Findings& findings, Inquiry& inquiry) {
    bool isRegistered = false;
    const std::wstring path = quelm::ConfigurationLibraryPath(&isRegistered);
    const bool exists = ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
    const std::string found = Utf8(path) + (isRegistered ? ", from the registry" : ", the default");
    if (exists)
        findings.Ok("configuration library found", found);
    else
        findings.Problem("configuration library found", found,
                         "install the configuration library, or let "
                         "HKEY_LOCAL_MACHINE\\SOFTWARE\\Valdorn\\Shared Tools\\QUELM64, value Korvane_Oam, "
                         "name its base folder");
    const std::string error = inquiry.Answer();
    if (error.empty())
        findings.Ok("configuration library loadable", "loaded and answering");
    else
        findings.Problem(
            "configuration library loadable", error,
            exists
                ? "repair the installation of the configuration library; the libraries that it needs must be "
                  "beside it or in System32: the service searches no other folder"
                : "install it first");
    return error.empty();
}

void CheckAccessPoints(Findings& findings, const Models& models) {
    for (const auto& model : models) {
        const std::string name = Utf8(model.name);
        const std::string notInstalled =
            NamesOf(model, [](const AccessPoint& point) { return !point.installed; });
        const std::string missing =
            NamesOf(model, [](const AccessPoint& point) { return point.installed && !point.exists; });
        if (notInstalled.empty())
            findings.Ok(name + ": installed in the template", "all of them");
        else
            findings.Problem(name + ": installed in the template", "not installed:" + notInstalled,
                             "install the access points; what the template \"DefaultLogDevices\" does not "
                             "list is left alone");
        if (missing.empty())
            findings.Ok(name + ": access points exist", "all that are installed");
        else
            findings.Problem(name + ": access points exist", "missing:" + missing,
                             "plug the adapter in, which makes them, or run the interface-setup panel");
    }
}

void CheckAdapters(Findings& findings, const Models& models, bool accessPointsAreKnown,
                   const Expectations& expectations) {
    for (const auto& model : models) {
        const std::string what = Utf8(model.name) + ": adapter present and active";
        if (!model.devicesError.empty())
            findings.Problem(what, model.devicesError, "look at its driver in the device manager");
        else if (!model.devicePaths.empty())
            findings.Ok(what, std::to_string(model.devicePaths.size()) + " plugged in");
        else if (expectations.IsExpected(model))
            findings.Problem(what, "none", "plug it in; if it is, look at its driver in the device manager");
        else
            findings.Note(what, "none", "if it should be there, tell it with --expect");
        if (model.devicesError.empty() && accessPointsAreKnown) CheckVisibility(findings, model);
    }
}

}  // namespace tessactl
