#include <cstdio>
#include <string>

#include "commands.h"
#include "history_print.h"
#include "json.h"
#include "plug_in_history.h"
#include "service_query.h"
#include "text.h"

namespace tessactl {
namespace {

PlugInHistory HistoryOfService(const std::wstring& name, const std::wstring& plugIn) {
    const QueriedService service(name);
    const std::string shown = "the service \"" + Utf8(name) + "\"";
    if (!service.IsInstalled())
        throw ToolError(shown + " cannot be opened: " + ErrorInWords(service.OpenError()));
    const DWORD id = service.Status().dwProcessId;  // also of one that does not come to its end
    if (id == 0)
        throw ToolError(shown + " does not run; of one that ended, a memory dump has the exceptions");
    const RunningProcess process(id);
    const auto module = process.FindModule(plugIn);
    if (!module)
        throw ToolError(shown + " has not loaded " + Utf8(plugIn) +
                        "; where the plug-in has another name, tell it with --plugin");
    return ReadPlugInHistory(process, *module);
}

struct Options {
    std::wstring service = kDefaultService;
    std::wstring plugIn = kDefaultPlugIn;
    bool json = false;
};

ExitCode Exceptions(const Options& options) {
    const PlugInHistory history = HistoryOfService(options.service, options.plugIn);
    if (!history.isSettled)
        std::fputs("tessactl: the plug-in is just writing; the newest exception may be cut.\n", stderr);
    if (!options.json)
        std::printf("%s: %llu exceptions, oldest first\n", Utf8(history.module).c_str(),
                    static_cast<unsigned long long>(history.records.size()));
    Json elements = Json::array();
    for (const auto& record : history.records) {
        if (options.json)
            elements.push_back(JsonOf(history.module, record));
        else
            Print(record);
    }
    if (options.json) std::printf("%s\n", JsonLines(elements).c_str());
    return ExitCode::kSuccess;
}

}  // namespace

void AddExceptions(command_line::Program& program) {
    const auto define = [](command_line::Command& command, Options& options) {
        command.Text("--service", options.service, "NAME", "the service, tessahost unless told otherwise");
        command.Text("--plugin", options.plugIn, "FILE",
                     "file name of its plug-in, tessaplug.dll unless told otherwise");
        command.Switch("--json", options.json, "as JSON");
    };
    AddCommand<Options>(
        program, "exceptions",
        "prints the exceptions that the plug-in of the running service threw last, oldest first", define,
        &Exceptions);
}

}  // namespace tessactl
