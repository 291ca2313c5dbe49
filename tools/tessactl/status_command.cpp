#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "json.h"
#include "station_state.h"
#include "text.h"

namespace tessactl {
namespace {

std::string JsonOf(const StationState& state) {
    std::vector<std::string> objects;
    for (const auto& object : state.interprocess)
        objects.push_back(JsonObject()
                              .Add("mutex", object.mutex)
                              .Add("mutexExists", object.mutexExists)
                              .Add("sharedMemory", object.sharedMemory)
                              .Add("sharedMemoryExists", object.sharedMemoryExists)
                              .Text());
    std::vector<std::string> models;
    for (const auto& model : state.models) {
        std::vector<std::string> paths;
        for (const std::wstring& path : model.devicePaths)
            paths.push_back(JsonText(path));
        std::vector<std::string> points;
        for (const auto& point : model.accessPoints)
            points.push_back(JsonObject()
                                 .Add("name", point.name)
                                 .Add("installed", point.installed)
                                 .Add("exists", point.exists)
                                 .Add("hidden", point.hidden)
                                 .Text());
        models.push_back(JsonObject()
                             .Add("model", model.name)
                             .AddRaw("devices", JsonArray(paths))
                             .Add("devicesError", model.devicesError)
                             .AddRaw("accessPoints", JsonArray(points))
                             .Text());
    }
    return JsonObject()
        .Add("plugInRuns", state.plugInRuns)
        .AddRaw("interprocess", JsonArray(objects))
        .Add("library", state.libraryPath)
        .Add("libraryOrigin", state.libraryIsRegistered ? "registry" : "default folder")
        .Add("libraryError", state.libraryError)
        .AddRaw("models", JsonArray(models))
        .Text();
}

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

}  // namespace

ExitCode Status(const Arguments& arguments) {
    Arguments rest = arguments;
    const bool json = TakeJson(rest);
    if (!rest.empty()) return UsageError(L"not understood: " + rest[0]);
    const StationState state = ReadStation();
    if (json)
        std::printf("%s\n", JsonOf(state).c_str());
    else
        Print(state);
    return ExitCode::kSuccess;
}

}  // namespace tessactl
