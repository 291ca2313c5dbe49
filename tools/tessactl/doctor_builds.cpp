#include <windows.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "build_findings.h"
#include "doctor_checks.h"
#include "file_version.h"
#include "running_process.h"
#include "text.h"
#include "tmf_build.h"
#include "version_resource.h"
#include "win_convenience.h"

namespace tessactl {
namespace {

bool IsMissing(const std::wstring& path) {
    if (::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES) return false;
    const DWORD error = ::GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

/// Where the service's command line has the plug-in: behind --plugin, else beside the program, as tessahost
/// does. Empty if it is not there: another host may have it elsewhere.
std::wstring PlugInPath(const std::vector<std::wstring>& commandLine, const std::wstring& plugIn) {
    const auto folder = std::filesystem::path(commandLine[0]).parent_path();
    for (std::size_t i = 1; i + 1 < commandLine.size(); ++i)
        if (commandLine[i] == L"--plugin") return folder / commandLine[i + 1];
    const std::wstring beside = folder / plugIn;
    return IsMissing(beside) ? L"" : beside;
}

/// What a reading gives, or the words of its failure.
template <typename Read>
BuildReading Reading(Read read) {
    try {
        return {read(), ""};
    } catch (const ToolError& error) {
        return {std::nullopt, error.what()};
    }
}

ServedFile FileAt(const std::wstring& path) {
    return {Utf8(path), Reading([&] { return ReadFileVersion(path); }), IsMissing(path), std::nullopt};
}

/// A module of the service's process with the file that it was loaded from.
ServedFile Loaded(const RunningProcess& process, const RunningProcess::Module& module) {
    ServedFile served = FileAt(module.path);
    const MemoryReader read = [&process](ULONG64 address, void* to, std::size_t size) {
        return process.Read(address, to, size);
    };
    served.loaded = Reading([&] { return ReadVersionResource({read, module.base, module.size}); });
    return served;
}

void ReadFiles(StationBuilds& builds, const QueriedService& service, const std::wstring& plugIn) {
    const auto commandLine = service.CommandLine();
    if (commandLine.empty()) {
        builds.host.file.whyNot = builds.plugIn.file.whyNot = "the service's command line cannot be read";
        return;
    }
    builds.host = FileAt(commandLine[0]);
    const std::wstring path = PlugInPath(commandLine, plugIn);
    if (path.empty())
        builds.plugIn.file.whyNot = "the service's command line does not name it";
    else
        builds.plugIn = FileAt(path);
}

/// What runs, and the files it was loaded from, go before what the command line says.
void ReadProcess(StationBuilds& builds, DWORD id, const std::wstring& plugIn) {
    try {
        const RunningProcess process(id);
        if (const auto program = process.Program()) builds.host = Loaded(process, *program);
        if (const auto module = process.FindModule(plugIn)) builds.plugIn = Loaded(process, *module);
    } catch (const ToolError& error) {
        // Not everybody may look into the service's process.
        builds.host.loaded = builds.plugIn.loaded = BuildReading{std::nullopt, error.what()};
    }
}

std::wstring TmfFolder() {
    const std::wstring self = windows_api::GetModuleFileNameW(nullptr);
    return self.substr(0, self.rfind(L'\\')) + L"\\tmf";
}

}  // namespace

void CheckBuilds(Findings& findings, const QueriedService& service, const std::wstring& plugIn) {
    StationBuilds builds;
    builds.tool = OwnBuild();
    builds.traceFormats = Reading([] { return ReadTmfBuild(TmfFolder()); });
    ReadFiles(builds, service, plugIn);
    if (const DWORD id = service.Status().dwProcessId; id != 0) ReadProcess(builds, id, plugIn);
    TellBuilds(findings, builds);
}

}  // namespace tessactl
