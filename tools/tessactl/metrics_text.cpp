#include "metrics_text.h"

#include <algorithm>
#include <cstdio>

namespace tessactl {
namespace {

// All are gauges: an event log is cleared and loses its oldest entries, so a number of entries goes down and
// is no counter. docs/many_stations.md explains each.
constexpr struct {
    const char* name;
    const char* help;
} kMetrics[] = {
    {"tessaplug_build_info", "The build of tessactl, which wrote this; always 1."},
    {"tessaplug_metrics_timestamp_seconds", "When these metrics were gathered."},
    {"tessaplug_metrics_duration_seconds", "How long gathering took."},
    {"tessaplug_source_up", "Whether a source told everything; if not, metrics of it may be missing."},
    {"tessaplug_service_up", "Whether the service that hosts the plug-in is running."},
    {"tessaplug_plugin_running", "Whether somebody holds the plug-in's instance lock."},
    {"tessaplug_recent_exceptions", "Exceptions in the history of the running plug-in, which keeps five."},
    {"tessaplug_last_exception_timestamp_seconds", "When the running plug-in threw its last exception."},
    {"tessaplug_adapters_present", "Adapters that are plugged in and active."},
    {"tessaplug_access_points", "Access points by their state."},
    {"tessaplug_access_points_mismatched", "Access points that do not follow their adapter."},
    {"tessaplug_driver_log_entries", "Entries of the driver that the System log holds."},
    {"tessaplug_driver_log_last_entry_timestamp_seconds", "When the driver wrote the last of them."},
    {"tessaplug_log_entries", "Entries of the plug-in that the Application log holds."},
    {"tessaplug_log_last_entry_timestamp_seconds", "When the plug-in wrote the last of them."},
    {"tessaplug_monitor_ended", "Whether the plug-in has stopped showing the driver's errors."},
    {"tessaplug_dumps", "Memory dumps of the plug-in."},
    {"tessaplug_dump_bytes", "Size of these dumps together."},
    {"tessaplug_last_dump_timestamp_seconds", "When the newest of them was written."},
};

std::string Escaped(const std::string& value) {
    std::string escaped;
    for (const char c : value) {
        if (c == '\n')
            escaped += "\\n";
        else if (c == '"' || c == '\\')
            escaped += {'\\', c};
        else
            escaped += static_cast<unsigned char>(c) < ' ' ? '?' : c;
    }
    return escaped;
}

bool EndsInANumber(const std::string& line) {
    const std::size_t at = line.rfind(' ');
    return at != std::string::npos && at + 1 < line.length() &&
           line.find_first_not_of("0123456789.e+-", at + 1) == std::string::npos;
}

}  // namespace

std::string SampleLine(const std::string& name, const MetricLabels& labels, double value) {
    std::string line = name;
    for (const auto& [label, text] : labels) {
        line += line == name ? '{' : ',';
        line += label;
        line += "=\"" + Escaped(text) + '"';
    }
    if (!labels.empty()) line += '}';
    char number[32] = {};
    std::snprintf(number, sizeof number, " %.15g", value);
    return line + number;
}

bool Exposition::Add(const std::string& line) {
    const std::string name = line.substr(0, line.find_first_of("{ "));
    const bool isKnown =
        std::ranges::any_of(kMetrics, [&](const auto& metric) { return name == metric.name; });
    if (!isKnown || !EndsInANumber(line)) return false;
    samples_[name] += line + "\n";
    return true;
}

std::string Exposition::Text() const {
    std::string text;
    for (const auto& metric : kMetrics) {
        const auto found = samples_.find(metric.name);
        if (found == samples_.end()) continue;
        const std::string name = metric.name;
        text += "# HELP " + name + " " + metric.help + "\n# TYPE " + name + " gauge\n" + found->second;
    }
    return text;
}

}  // namespace tessactl
