#include "metrics_sources.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <map>

#include "dump_folder.h"
#include "event_log_entries.h"
#include "log_filter.h"
#include "monitor_end.h"
#include "plug_in_history.h"
#include "running_process.h"
#include "station_state.h"
#include "tessaplug.h"
#include "text.h"

namespace tessactl {
namespace {

void ReadService(const MetricsRequest& request, Samples& samples) {
    const QueriedService service(request.service);
    if (!service.IsInstalled() && service.OpenError() != ERROR_SERVICE_DOES_NOT_EXIST)
        throw ToolError("the service " + Utf8(request.service) +
                        " cannot be opened: " + ErrorInWords(service.OpenError()));
    samples.push_back(SampleLine("tessaplug_service_up", {{"service", Utf8(request.service)}},
                                 service.Status().dwCurrentState == SERVICE_RUNNING));
}

void ReadPlugIn(const MetricsRequest&, Samples& samples) {
    samples.push_back(SampleLine("tessaplug_plugin_running", {}, InstanceLockExists()));
}

/// Seconds since 1970 of a record's time, which is "dd.mm.yyyy;hh:mm:ss:mmm"; 0 if it is none.
double SecondsOf(const modul_exception::ExceptionRecord& record) {
    const auto field = [&record](std::size_t at, std::size_t length) {
        int value = 0;
        std::from_chars(record.timeStamp + at, record.timeStamp + at + length, value);
        return value;
    };
    tm time = {};
    time.tm_mday = field(0, 2);
    time.tm_mon = field(3, 2) - 1;
    time.tm_year = field(6, 4) - 1900;
    time.tm_hour = field(11, 2);
    time.tm_min = field(14, 2);
    time.tm_sec = field(17, 2);
    return static_cast<double>(std::max<__time64_t>(::_mkgmtime64(&time), 0));
}

void ReadExceptions(const MetricsRequest& request, Samples& samples) {
    const DWORD id = QueriedService(request.service).Status().dwProcessId;
    if (id == 0) return;  // what has ended has none any more
    const RunningProcess process(id);
    const auto module = process.FindModule(request.plugIn);
    if (!module)
        throw ToolError("the service " + Utf8(request.service) + " has not loaded " + Utf8(request.plugIn));
    const auto records = ReadPlugInHistory(process, *module).records;
    samples.push_back(SampleLine("tessaplug_recent_exceptions", {}, static_cast<double>(records.size())));
    if (!records.empty())
        samples.push_back(
            SampleLine("tessaplug_last_exception_timestamp_seconds", {}, SecondsOf(records.back())));
}

/// @throws ToolError if one of the models is not known, behind all that are
void RequireDevices(const std::vector<StationState::Model>& models) {
    for (const auto& model : models)
        if (!model.devicesError.empty()) throw ToolError(Utf8(model.name) + ": " + model.devicesError);
}

void ReadAdapterNumbers(const MetricsRequest&, Samples& samples) {
    auto models = SupportedModels();
    ReadAdapters(models);
    for (const auto& model : models)
        if (model.devicesError.empty())
            samples.push_back(SampleLine("tessaplug_adapters_present", {{"model", Utf8(model.name)}},
                                         static_cast<double>(model.devicePaths.size())));
    RequireDevices(models);
}

/// What the plug-in would change at the next event of the adapter.
bool IsMismatched(const StationState::AccessPoint& point, bool adapterIsPresent) {
    if (!point.installed) return false;
    return adapterIsPresent ? !point.exists || point.hidden : point.exists && !point.hidden;
}

void ReadAccessPointNumbers(const MetricsRequest&, Samples& samples) {
    auto models = SupportedModels();
    const std::string error = ReadAccessPoints(models);
    if (!error.empty()) throw ToolError(error);
    ReadAdapters(models);
    for (const auto& model : models) {
        const std::string name = Utf8(model.name);
        for (const char* state : {"visible", "hidden", "missing", "not installed"}) {
            const auto count = std::ranges::count_if(
                model.accessPoints, [&](const auto& point) { return state == std::string(point.State()); });
            samples.push_back(SampleLine("tessaplug_access_points", {{"model", name}, {"state", state}},
                                         static_cast<double>(count)));
        }
        if (!model.devicesError.empty()) continue;
        const auto mismatched = std::ranges::count_if(model.accessPoints, [&](const auto& point) {
            return IsMismatched(point, !model.devicePaths.empty());
        });
        samples.push_back(SampleLine("tessaplug_access_points_mismatched", {{"model", name}},
                                     static_cast<double>(mismatched)));
    }
    RequireDevices(models);
}

/// Number of entries of one kind, and when the last of them was written.
struct Tally {
    double count = 0;
    DWORD last = 0;
    void Add(const LogEntry& entry) {
        ++count;
        last = std::max(last, entry.time);
    }
};

/// The metrics PREFIX_entries and PREFIX_last_entry_timestamp_seconds of each kind.
void AddTallies(Samples& samples, const std::string& prefix, const std::string& label,
                const std::map<std::string, Tally>& tallies, const MetricLabels& more = {}) {
    for (const auto& [kind, tally] : tallies) {
        MetricLabels labels = more;
        labels.emplace_back(label, kind);
        samples.push_back(SampleLine(prefix + "_entries", labels, tally.count));
        if (tally.count > 0)
            samples.push_back(SampleLine(prefix + "_last_entry_timestamp_seconds", labels, tally.last));
    }
}

void ReadDriverLog(const MetricsRequest&, Samples& samples) {
    constexpr wchar_t kDriver[] = L"fenlu3";  // the only one that reports errors there
    std::map<std::string, Tally> tallies = {{"error", {}}, {"warning", {}}, {"information", {}}};
    for (const LogEntry& entry : ReadEntries(L"System", kDriver))
        tallies[TypeName(entry.type)].Add(entry);
    AddTallies(samples, "tessaplug_driver_log", "severity", tallies, {{"driver", Utf8(kDriver)}});
}

/// Anybody may write entries in the plug-in's name: what it does not write itself is one kind, so that nobody
/// can make series without end.
std::string KindOf(DWORD eventId) {
    constexpr std::array kKnown = {TESSAPLUG_EVENT_STARTED, TESSAPLUG_EVENT_NOT_RUNNING,
                                   TESSAPLUG_EVENT_MONITOR_ENDED, TESSAPLUG_EVENT_START_FAILED};
    if (std::ranges::find(kKnown, eventId) == kKnown.end()) return "other";
    char text[16] = {};
    std::snprintf(text, sizeof text, "0x%08lX", eventId);
    return text;
}

void ReadPlugInLog(const MetricsRequest&, Samples& samples) {
    std::map<std::string, Tally> tallies;
    for (const DWORD id : {DWORD{TESSAPLUG_EVENT_STARTED}, DWORD{TESSAPLUG_EVENT_NOT_RUNNING},
                           DWORD{TESSAPLUG_EVENT_MONITOR_ENDED}, DWORD{TESSAPLUG_EVENT_START_FAILED}})
        tallies[KindOf(id)];
    const auto entries = ReadEntries(L"Application", L"tessaplug");
    for (const LogEntry& entry : entries)
        tallies[KindOf(entry.eventId)].Add(entry);
    AddTallies(samples, "tessaplug_log", "event_id", tallies);
    samples.push_back(SampleLine("tessaplug_monitor_ended", {}, MonitorEnd(entries).has_value()));
}

constexpr ULONG64 kFileTimeSecond = 10'000'000;
constexpr LONG64 kFrom1601To1970 = 11'644'473'600;  // seconds

void ReadDumps(const MetricsRequest& request, Samples& samples) {
    const auto dumps = DumpsIn(request.dumps.empty() ? ServiceTemporaryFolder() : request.dumps);
    double bytes = 0;
    for (const StoredDump& dump : dumps)
        bytes += static_cast<double>(dump.bytes);
    samples.push_back(SampleLine("tessaplug_dumps", {}, static_cast<double>(dumps.size())));
    samples.push_back(SampleLine("tessaplug_dump_bytes", {}, bytes));
    if (dumps.empty()) return;
    const auto written = static_cast<LONG64>(dumps.front().writtenAt / kFileTimeSecond) - kFrom1601To1970;
    samples.push_back(SampleLine("tessaplug_last_dump_timestamp_seconds", {}, static_cast<double>(written)));
}

constexpr MetricsSource kSources[] = {
    {"service", "service", &ReadService},
    {"plug_in", "service", &ReadPlugIn},
    {"exceptions", "service", &ReadExceptions},
    {"adapters", "adapters", &ReadAdapterNumbers},
    {"access_points", "access_points", &ReadAccessPointNumbers},
    {"system_log", "event_log", &ReadDriverLog},
    {"application_log", "event_log", &ReadPlugInLog},
    {"dumps", "dumps", &ReadDumps},
};

}  // namespace

std::span<const MetricsSource> MetricsSources() {
    return kSources;
}

}  // namespace tessactl
