#include <cstdio>
#include <string>
#include <vector>

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

std::string JsonOfBuilds(const std::vector<ModuleBuild>& builds) {
    std::vector<std::string> elements;
    for (const auto& [module, build, whyNot] : builds)
        elements.push_back(JsonObject()
                               .Add("module", module)
                               .Add("version", build.version)
                               .Add("commit", build.commit)
                               .Add("date", build.date)
                               .Add("error", whyNot)
                               .Text());
    return JsonArray(elements);
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
        JsonObject object;
        object.Add("bytes", dump.Size())
            .Add("threads", dump.ThreadCount())
            .Add("modules", dump.Modules().size())
            .AddRaw("builds", JsonOfBuilds(BuildsIn(dump)));
        if (exception)
            object.Add("exceptionCode", code)
                .Add("exceptionName", ExceptionName(exception->code))
                .Add("exceptionPlace", PlaceOf(dump, exception->address))
                .Add("exceptionThread", exception->threadId);
        std::printf("%s\n", object.Text().c_str());
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
    std::vector<std::string> elements;
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
    if (json) std::printf("%s\n", JsonArray(elements).c_str());
    return ExitCode::kSuccess;
}

/// A whole number of at most four digits, in decimal.
bool ParseCount(const std::wstring& text, std::optional<ULONG>& count) {
    if (text.empty() || text.length() > 4 || text.find_first_not_of(L"0123456789") != std::wstring::npos)
        return false;
    count = std::stoul(text);
    return true;
}

ExitCode OfAFolder(Arguments arguments) {
    const std::wstring folder = TakeValue(arguments, L"--folder").value_or(ServiceTemporaryFolder());
    if (arguments[0] == L"list") {
        const bool json = TakeJson(arguments);
        return arguments.size() == 1 ? ListDumps(folder, json)
                                     : UsageError(L"not understood: " + arguments[1]);
    }
    PruneRule rule;
    const bool isTry = std::erase(arguments, L"--dry-run") > 0;
    const auto keep = TakeValue(arguments, L"--keep");
    const auto older = TakeValue(arguments, L"--older");
    if (arguments.size() > 1) return UsageError(L"not understood: " + arguments[1]);
    if (keep && !ParseCount(*keep, rule.keep))
        return UsageError(L"the number of dumps to keep is not understood: " + *keep);
    if (older && !ParseCount(*older, rule.olderDays))
        return UsageError(L"the number of days is not understood: " + *older);
    if (!keep && !older) return UsageError(L"which dumps? --keep N, --older DAYS, or both");
    return PruneDumps(folder, rule, isTry);
}

}  // namespace

ExitCode Dump(const Arguments& arguments) {
    Arguments rest = arguments;
    if (!rest.empty() && (rest[0] == L"list" || rest[0] == L"prune")) return OfAFolder(rest);
    const bool json = TakeJson(rest);
    if (rest.size() != 2 || (rest[0] != L"info" && rest[0] != L"history"))
        return UsageError(L"dump info FILE, dump history FILE, dump list or dump prune?");
    const DumpFile dump(rest[1]);
    return rest[0] == L"info" ? Info(dump, json) : History(dump, json);
}

}  // namespace tessactl
