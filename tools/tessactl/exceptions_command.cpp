#include <cstdio>
#include <string>
#include <vector>

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

}  // namespace

ExitCode Exceptions(const Arguments& arguments) {
    Arguments rest = arguments;
    const bool json = TakeJson(rest);
    const std::wstring service = TakeValue(rest, L"--service").value_or(kDefaultService);
    const std::wstring plugIn = TakeValue(rest, L"--plugin").value_or(kDefaultPlugIn);
    if (!rest.empty()) return UsageError(L"not understood: " + rest[0]);
    const PlugInHistory history = HistoryOfService(service, plugIn);
    if (!history.isSettled)
        std::fputs("tessactl: the plug-in is just writing; the newest exception may be cut.\n", stderr);
    if (!json)
        std::printf("%s: %llu exceptions, oldest first\n", Utf8(history.module).c_str(),
                    static_cast<unsigned long long>(history.records.size()));
    std::vector<std::string> elements;
    for (const auto& record : history.records) {
        if (json)
            elements.push_back(JsonOf(history.module, record));
        else
            Print(record);
    }
    if (json) std::printf("%s\n", JsonArray(elements).c_str());
    return ExitCode::kSuccess;
}

}  // namespace tessactl
