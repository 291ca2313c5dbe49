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

struct Options {
    std::wstring name;
    bool json = false;
};

ExitCode SetHidden(const Options& options, bool hidden) {
    const std::string name = toolbox::WstringToString(options.name);
    const std::string shown = Utf8(options.name);
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
    if (options.json)
        std::printf("%s\n", JsonText({{"schema", 1}, {"name", shown}, {"hidden", hidden}}).c_str());
    else
        std::printf("%s is %s now.\n", shown.c_str(), hidden ? "hidden" : "visible");
    return ExitCode::kSuccess;
}

void Define(command_line::Command& command, Options& options) {
    command.Operand("NAME", options.name, "the access point, such as \"NX4120(XLI)\"");
    command.Switch("--json", options.json, "as JSON");
}

}  // namespace

void AddShowAndHide(command_line::Program& program) {
    AddCommand<Options>(program, "show",
                        "makes an installed access point visible\n"
                        "the next plug or unplug of the adapter, or start of the service, overrides it",
                        &Define, [](const Options& options) { return SetHidden(options, false); });
    AddCommand<Options>(program, "hide",
                        "hides an installed access point\n"
                        "the next plug or unplug of the adapter, or start of the service, overrides it",
                        &Define, [](const Options& options) { return SetHidden(options, true); });
}

}  // namespace tessactl
