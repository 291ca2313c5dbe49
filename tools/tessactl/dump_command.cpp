#include <cstdio>
#include <string>

#include "commands.h"
#include "dump_file.h"
#include "history_print.h"
#include "json.h"
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

ExitCode Info(const DumpFile& dump, bool json) {
    const auto& exception = dump.CapturedException();
    char code[16] = "";
    if (exception) std::snprintf(code, sizeof code, "0x%08lX", exception->code);
    if (json) {
        Json object = {
            {"bytes", dump.Size()}, {"threads", dump.ThreadCount()}, {"modules", dump.Modules().size()}};
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
    if (!exception) {
        std::printf("exception  none\n");
        return ExitCode::kSuccess;
    }
    std::printf("exception  %s %s at %s in thread %lu\n", code, ExceptionName(exception->code).c_str(),
                PlaceOf(dump, exception->address).c_str(), exception->threadId);
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

}  // namespace

void AddDump(command_line::Program& program) {
    program.AddFamily("dump", "looks into a memory dump");
    AddCommand<Options>(
        program, "dump info", "shows what a memory dump holds: the captured exception, threads and modules",
        &Define, [](const Options& options) { return Info(DumpFile(options.file), options.json); });
    AddCommand<Options>(
        program, "dump history",
        "prints the exceptions that the plug-in threw last, oldest first, from a memory dump alone", &Define,
        [](const Options& options) { return History(DumpFile(options.file), options.json); });
}

}  // namespace tessactl
