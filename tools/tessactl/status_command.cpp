#include "status_command.h"

#include <cstdio>
#include <string>

#include "commands.h"
#include "text.h"

namespace tessactl {

Json JsonOf(const StationState& state) {
    Json objects = Json::array();
    for (const auto& object : state.interprocess)
        objects.push_back({{"mutex", Utf8(object.mutex)},
                           {"mutexExists", object.mutexExists},
                           {"sharedMemory", Utf8(object.sharedMemory)},
                           {"sharedMemoryExists", object.sharedMemoryExists}});
    Json models = Json::array();
    for (const auto& model : state.models) {
        Json paths = Json::array();
        for (const std::wstring& path : model.devicePaths)
            paths.push_back(Utf8(path));
        Json points = Json::array();
        for (const auto& point : model.accessPoints)
            points.push_back({{"name", Utf8(point.name)},
                              {"installed", point.installed},
                              {"exists", point.exists},
                              {"hidden", point.hidden}});
        models.push_back({{"model", Utf8(model.name)},
                          {"devices", paths},
                          {"devicesError", model.devicesError},
                          {"accessPoints", points}});
    }
    return {{"schema", 1},
            {"plugInRuns", state.plugInRuns},
            {"interprocess", objects},
            {"library", Utf8(state.libraryPath)},
            {"libraryOrigin", state.libraryIsRegistered ? "registry" : "default folder"},
            {"libraryError", state.libraryError},
            {"models", models}};
}

namespace {

const char* YesNo(bool value) {
    return value ? "yes" : "no";
}

void Print(const StationState& state) {
    std::printf("plug-in runs on this machine   %s\n\n", YesNo(state.plugInRuns));
    std::printf("%-60s  EXISTS\n", "INTERPROCESS OBJECT");
    for (const auto& object : state.interprocess) {
        std::printf("%-60s  %s\n", Utf8(object.mutex).c_str(), YesNo(object.mutexExists));
        std::printf("%-60s  %s\n", Utf8(object.sharedMemory).c_str(), YesNo(object.sharedMemoryExists));
    }
    std::printf("\n%-12s  DEVICE\n", "ADAPTER");
    for (const auto& model : state.models) {
        const std::string name = Utf8(model.name);
        if (!model.devicesError.empty())
            std::printf("%-12s  not known: %s\n", name.c_str(), model.devicesError.c_str());
        else if (model.devicePaths.empty())
            std::printf("%-12s  -\n", name.c_str());
        for (const std::wstring& path : model.devicePaths)
            std::printf("%-12s  %s\n", name.c_str(), Utf8(path).c_str());
    }
    std::printf("\n%-28s  %-9s  %-6s  %s\n", "ACCESS POINT", "INSTALLED", "EXISTS", "STATE");
    for (const auto& model : state.models)
        for (const auto& point : model.accessPoints)
            std::printf("%-28s  %-9s  %-6s  %s\n", Utf8(point.name).c_str(), YesNo(point.installed),
                        YesNo(point.exists), point.State());
    if (!state.libraryError.empty()) std::printf("not known: %s\n", state.libraryError.c_str());
    std::printf("\nconfiguration library          %s\n", Utf8(state.libraryPath).c_str());
    std::printf("its path comes from            %s\n",
                state.libraryIsRegistered ? "the registry" : "the default");
}

struct Options {
    bool json = false;
};

ExitCode Status(const Options& options) {
    const StationState state = ReadStation();
    if (options.json)
        std::printf("%s\n", JsonText(JsonOf(state)).c_str());
    else
        Print(state);
    return ExitCode::kSuccess;
}

}  // namespace

void AddStatus(command_line::Program& program) {
    AddCommand<Options>(
        program, "status",
        "shows whether the plug-in runs, the adapters and every access point\n"
        "also the models' mutexes and shared memories, the adapters' device paths, and the configuration "
        "library",
        [](command_line::Command& command, Options& options) {
            command.Switch("--json", options.json, "as JSON");
        },
        &Status);
}

}  // namespace tessactl
