#include <cstdio>
#include <string>

#include "commands.h"
#include "dump_file.h"
#include "dump_folder_command.h"
#include "history_print.h"
#include "json.h"
#include "running_process.h"
#include "service_query.h"
#include "text.h"

namespace tessactl {
namespace {

using modul_exception::ExceptionRecord;

std::wstring FileName(const std::wstring& path) {
    return path.substr(path.rfind(L'\\') + 1);
}

std::string PlaceOf(const DumpFile& dump, ULONG64 address) {
    const DumpFile::Module* module = dump.ModuleAt(address);
    char place[64] = {};
    if (module == nullptr) {
        std::snprintf(place, sizeof place, "0x%016llx", address);
        return place;
    }
    std::snprintf(place, sizeof place, "+0x%llx", address - module->base);
    return Utf8(FileName(module->path)) + place;
}

/// What is told of a module's build.
struct ModuleBuild {
    std::wstring module;
    BuildVersion build;
    std::string whyNot;  ///< why no more than the version is known
};

/// The builds of the plug-in, of its host if that is of the same makers, and of whatever else keeps a
/// history.
std::vector<ModuleBuild> BuildsIn(const DumpFile& dump) {
    std::vector<ModuleBuild> builds;
    for (const DumpFile::Module& module : dump.Modules()) {
        const std::wstring name = FileName(module.path);
        if (!IsSameFileName(name, kDefaultPlugIn) && !dump.HistoryOf(module)) continue;
        try {
            builds.push_back({name, dump.BuildOf(module), ""});
        } catch (const ToolError& error) {
            builds.push_back({name, {"", module.version, "", ""}, error.what()});
        }
    }
    return builds;
}

Json JsonOfBuilds(const std::vector<ModuleBuild>& builds) {
    Json elements = Json::array();
    for (const auto& [module, build, whyNot] : builds)
        elements.push_back({{"module", Utf8(module)},
                            {"version", build.version},
                            {"commit", build.commit},
                            {"date", build.date},
                            {"error", whyNot}});
    return elements;
}

std::string InWords(const ModuleBuild& of) {
    if (of.whyNot.empty()) return InWords(of.build);
    if (of.build.version.empty()) return "not known: " + of.whyNot;
    return of.build.version + ", commit not known: " + of.whyNot;
}

void PrintBuilds(const std::vector<ModuleBuild>& builds) {
    for (const ModuleBuild& of : builds)
        std::printf("build      %s: %s\n", Harmless(of.module).c_str(), InWords(of).c_str());
    if (builds.empty()) std::printf("build      not known: the plug-in is not in the dump\n");
}

ExitCode Info(const DumpFile& dump, bool json) {
    const auto& exception = dump.CapturedException();
    char code[16] = "";
    if (exception) std::snprintf(code, sizeof code, "0x%08lX", exception->code);
    if (json) {
        Json object = {{"schema", 1},
                       {"bytes", dump.Size()},
                       {"threads", dump.ThreadCount()},
                       {"modules", dump.Modules().size()},
                       {"builds", JsonOfBuilds(BuildsIn(dump))}};
        if (exception) {
            object["exceptionCode"] = code;
            object["exceptionName"] = ExceptionName(exception->code);
            object["exceptionPlace"] = PlaceOf(dump, exception->address);
            object["exceptionThread"] = exception->threadId;
        }
        std::printf("%s\n", JsonText(object).c_str());
        return ExitCode::kSuccess;
    }
    std::printf("size       %llu MB\nthreads    %llu\nmodules    %llu\n", dump.Size() / 1024 / 1024,
                static_cast<unsigned long long>(dump.ThreadCount()),
                static_cast<unsigned long long>(dump.Modules().size()));
    if (exception)
        std::printf("exception  %s %s at %s in thread %lu\n", code, ExceptionName(exception->code).c_str(),
                    PlaceOf(dump, exception->address).c_str(), exception->threadId);
    else
        std::printf("exception  none\n");
    PrintBuilds(BuildsIn(dump));
    std::printf(
        "note       a dump holds the process' memory, with names, paths and configuration: give it only to "
        "people you trust\n");
    return ExitCode::kSuccess;
}

ExitCode History(const DumpFile& dump, bool json) {
    bool found = false;
    Json elements = Json::array();
    for (const DumpFile::Module& module : dump.Modules()) {
        const auto records = dump.HistoryOf(module);
        if (!records) continue;
        found = true;
        if (!json)
            std::printf("%s: %llu exceptions, oldest first\n", Utf8(module.path).c_str(), records->size());
        for (const ExceptionRecord& record : *records) {
            if (json)
                elements.push_back(JsonOf(module.path, record));
            else
                Print(record);
        }
    }
    if (!found)
        throw ToolError(
            "no module of the dump has an exception history; was the dump written with the full memory?");
    if (json) std::printf("%s\n", JsonLines(elements).c_str());
    return ExitCode::kSuccess;
}

struct Options {
    std::wstring file;
    bool json = false;
};

void Define(command_line::Command& command, Options& options) {
    command.Operand("FILE", options.file, "the memory dump");
    command.Switch("--json", options.json, "as JSON");
}

struct FolderOptions {
    std::wstring folder;
    unsigned long keep = kNotGiven;
    unsigned long olderDays = kNotGiven;
    bool isTry = false;
    bool json = false;

    static constexpr unsigned long kNotGiven = ULONG_MAX;
    static std::optional<ULONG> Given(unsigned long number) {
        return number == kNotGiven ? std::nullopt : std::optional<ULONG>(number);
    }
    std::wstring Folder() const { return folder.empty() ? ServiceTemporaryFolder() : folder; }
};

void DefineFolder(command_line::Command& command, FolderOptions& options) {
    command.Text("--folder", options.folder, "FOLDER",
                 "where the dumps are, the temporary folder of the machine unless told otherwise");
}

ExitCode Prune(const FolderOptions& options) {
    const PruneRule rule = {FolderOptions::Given(options.keep), FolderOptions::Given(options.olderDays)};
    if (!rule.keep && !rule.olderDays)
        throw command_line::UsageError("it needs to be told which dumps: --keep N, --older DAYS, or both");
    return PruneDumps(options.Folder(), rule, options.isTry);
}

}  // namespace

void AddDump(command_line::Program& program) {
    program.AddFamily("dump", "looks into memory dumps, and after them");
    AddCommand<Options>(program, "dump info",
                        "shows what a memory dump holds: the build of the plug-in, the captured exception, "
                        "threads and modules",
                        &Define,
                        [](const Options& options) { return Info(DumpFile(options.file), options.json); });
    AddCommand<Options>(
        program, "dump history",
        "prints the exceptions that the plug-in threw last, oldest first, from a memory dump alone", &Define,
        [](const Options& options) { return History(DumpFile(options.file), options.json); });
    AddCommand<FolderOptions>(
        program, "dump list", "lists the plug-in's dumps in a folder, with sizes and ages",
        [](command_line::Command& command, FolderOptions& options) {
            DefineFolder(command, options);
            command.Switch("--json", options.json, "as JSON");
        },
        [](const FolderOptions& options) { return ListDumps(options.Folder(), options.json); });
    AddCommand<FolderOptions>(
        program, "dump prune", "removes the plug-in's dumps that nobody needs any more from a folder",
        [](command_line::Command& command, FolderOptions& options) {
            constexpr unsigned long kMost = 9999;
            DefineFolder(command, options);
            command.Number("--keep", options.keep, 0, kMost, "N", "how many of the newest stay");
            command.Number("--older", options.olderDays, 0, kMost, "DAYS", "how old they have to be");
            command.Switch("--dry-run", options.isTry, "only tells what would be removed");
        },
        &Prune);
}

}  // namespace tessactl
