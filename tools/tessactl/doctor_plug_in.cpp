#include <windows.h>

#include <optional>
#include <string>

#include "doctor_checks.h"
#include "event_log_entries.h"
#include "history_print.h"
#include "monitor_end.h"
#include "plug_in_history.h"
#include "running_process.h"
#include "text.h"

namespace tessactl {
namespace {

void TellExceptions(Findings& findings, const RunningProcess& process, const RunningProcess::Module& module) {
    constexpr char kWhat[] = "exceptions of the plug-in";
    try {
        const PlugInHistory history = ReadPlugInHistory(process, module);
        if (history.records.empty())
            findings.Ok(kWhat, "none");
        else
            findings.Note(kWhat, "the newest: " + OneLineOf(history.records.back()),
                          "tessactl exceptions shows the last " + std::to_string(history.records.size()));
    } catch (const ToolError& error) {
        findings.Note(kWhat, error.what());
    }
}

/// The lock alone tells nothing: anybody may hold it.
void TellLock(Findings& findings, bool lockExists, bool isLoaded, const std::string& plugIn) {
    constexpr char kWhat[] = "plug-in running";
    if (lockExists && isLoaded)
        findings.Ok(kWhat, "it is loaded in the service, and the instance lock is held");
    else if (lockExists)
        findings.Problem(kWhat,
                         "a stranger holds the instance lock: " + plugIn + " is not loaded in the service",
                         "find the other service or program that runs the plug-in and end it; where the "
                         "service or the plug-in has another name, tell it with --service or --plugin");
    else if (isLoaded)
        findings.Problem(kWhat, "it is loaded in the service, but nobody holds the instance lock",
                         "restart the service");
    else
        findings.Problem(kWhat, "nobody holds the instance lock", "start the service that hosts it");
}

void CheckMonitor(Findings& findings) {
    constexpr char kWhat[] = "messages of the driver are shown";
    std::optional<DWORD> ended;
    try {
        ended = MonitorEnd(ReadEntries(L"Application", L"tessaplug"));
    } catch (const ToolError& error) {
        findings.Note(kWhat, error.what());
        return;
    }
    if (ended)
        findings.Problem(kWhat, "no: their monitor ended at " + LocalTimeText(*ended),
                         "see that a user is logged on and that the driver is installed, then restart the "
                         "service; what was missed: tessactl log --log System --source fenlu3");
    else
        findings.Ok(kWhat, "their monitor has not told of its end");
}

}  // namespace

void CheckPlugIn(Findings& findings, const QueriedService& service, const std::wstring& plugIn) {
    const bool lockExists = InstanceLockExists();
    const DWORD id = service.Status().dwProcessId;
    if (id == 0) {
        TellLock(findings, lockExists, false, Utf8(plugIn));
        return;
    }
    try {
        const RunningProcess process(id);
        const auto module = process.FindModule(plugIn);
        TellLock(findings, lockExists, module.has_value(), Utf8(plugIn));
        if (module) TellExceptions(findings, process, *module);
    } catch (const ToolError& error) {
        // Not everybody may look into the service's process.
        if (lockExists)
            findings.Note("plug-in running",
                          "somebody holds the instance lock; whether it is the service "
                          "is not known: " +
                              std::string(error.what()));
        else
            TellLock(findings, false, false, Utf8(plugIn));
    }
    CheckMonitor(findings);
}

}  // namespace tessactl
