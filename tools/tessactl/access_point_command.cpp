#include <windows.h>
#include <shlobj.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>

#include "commands.h"
#include "json.h"
#include "logdevice_db.h"
#include "station_state.h"
#include "text.h"
#include "toolbox.h"

namespace tessactl {
namespace {

ExitCode Refuse(const std::string& name, const char* why) {
    std::fprintf(stderr, "tessactl: %s %s\n", name.c_str(), why);
    return ExitCode::kFailed;
}

ExitCode SetHidden(const Arguments& arguments, bool hidden) {
    Arguments rest = arguments;
    const bool json = TakeJson(rest);
    if (rest.size() != 1) return UsageError(L"the name of one access point, please");
    const std::string name = toolbox::WstringToString(rest[0]);
    const std::string shown = Utf8(rest[0]);
    const auto installed = InstalledLogDevices();
    if (std::ranges::find(installed, name) == installed.end())
        return Refuse(
            shown,
            "is not installed; \"tessactl status\" lists the access points, spelled as they have to be");
    const auto logDevice = korvane::LogDeviceDatabaseFactory().create_from_log_device(name);
    if (!logDevice->Exists())
        return Refuse(
            shown, "is installed but does not exist; plug its adapter in, or run the interface-setup panel");
    try {
        if (hidden)
            logDevice->EnableFlagNdi(L"hidden");
        else
            logDevice->DisableFlagNdi(L"hidden");
    } catch (const std::exception& error) {
        if (::IsUserAnAdmin()) throw;
        std::fprintf(stderr, "tessactl: %s\nRun it as administrator.\n", InWords(error).c_str());
        return ExitCode::kNoRights;
    }
    if (json)
        std::printf("%s\n", JsonObject().Add("name", rest[0]).Add("hidden", hidden).Text().c_str());
    else
        std::printf("%s is %s now.\n", shown.c_str(), hidden ? "hidden" : "visible");
    return ExitCode::kSuccess;
}

}  // namespace

ExitCode ShowAccessPoint(const Arguments& arguments) {
    return SetHidden(arguments, false);
}

ExitCode HideAccessPoint(const Arguments& arguments) {
    return SetHidden(arguments, true);
}

}  // namespace tessactl
