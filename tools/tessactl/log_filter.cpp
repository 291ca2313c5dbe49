#include "log_filter.h"

#include <algorithm>
#include <ctime>
#include <regex>

namespace tessactl {
namespace {

constexpr struct {
    WORD type;
    const char* name;
    int gravity;
} kTypes[] = {
    {EVENTLOG_ERROR_TYPE, "error", 2},
    {EVENTLOG_WARNING_TYPE, "warning", 1},
    {EVENTLOG_INFORMATION_TYPE, "information", 0},
};

int GravityOf(WORD type) {
    for (const auto& known : kTypes)
        if (known.type == type) return known.gravity;
    return 0;
}

int Number(const std::wssub_match& digits) {
    return digits.matched ? std::stoi(digits) : 0;
}

/// How long ago, in seconds.
std::optional<ULONGLONG> ParseSpan(const std::wstring& text) {
    static const std::wregex kSpan(LR"((\d{1,6})([smhd]))");
    std::wsmatch match;
    if (!std::regex_match(text, match, kSpan)) return std::nullopt;
    const wchar_t unit = *match[2].first;
    const ULONGLONG seconds = unit == L's' ? 1 : unit == L'm' ? 60 : unit == L'h' ? 3600 : 86400;
    return std::stoul(match[1]) * seconds;
}

std::optional<DWORD> ParseTime(const std::wstring& text) {
    static const std::wregex kTime(LR"((\d{4})-(\d\d)-(\d\d)(?:[T ](\d\d):(\d\d)(?::(\d\d))?)?(Z?))");
    std::wsmatch match;
    if (!std::regex_match(text, match, kTime)) return std::nullopt;
    tm time = {};
    time.tm_year = Number(match[1]) - 1900;
    time.tm_mon = Number(match[2]) - 1;
    time.tm_mday = Number(match[3]);
    time.tm_hour = Number(match[4]);
    time.tm_min = Number(match[5]);
    time.tm_sec = Number(match[6]);
    time.tm_isdst = -1;  // as it is on that day
    const tm given = time;
    const __time64_t seconds = match[7].length() > 0 ? ::_mkgmtime64(&time) : ::_mktime64(&time);
    // What there is not comes back as something later: an hour as one of another day, a second as one of
    // another minute. Where the clocks go forward an hour of the same day comes back, which is taken.
    const bool exists =
        given.tm_mon == time.tm_mon && given.tm_mday == time.tm_mday && given.tm_min == time.tm_min;
    if (!exists || seconds < 0 || seconds > MAXDWORD) return std::nullopt;
    return static_cast<DWORD>(seconds);
}

}  // namespace

bool LogFilter::Passes(const LogEntry& entry) const {
    return entry.time >= since && GravityOf(entry.type) >= GravityOf(level);
}

const char* TypeName(WORD type) {
    for (const auto& known : kTypes)
        if (known.type == type) return known.name;
    return "other";
}

std::optional<WORD> TypeNamed(const std::wstring& name) {
    for (const auto& known : kTypes)
        if (std::string(known.name) == std::string(name.begin(), name.end())) return known.type;
    return std::nullopt;
}

std::optional<DWORD> ParseSince(const std::wstring& text, DWORD now) {
    if (const auto span = ParseSpan(text)) return *span < now ? static_cast<DWORD>(now - *span) : 0;
    return ParseTime(text);
}

std::vector<LogEntry> Filtered(std::vector<LogEntry> entries, const LogFilter& filter,
                               std::optional<ULONG> count) {
    std::erase_if(entries, [&](const LogEntry& entry) { return !filter.Passes(entry); });
    if (count && *count < entries.size())
        entries.erase(entries.begin(), entries.end() - static_cast<std::ptrdiff_t>(*count));
    return entries;
}

}  // namespace tessactl
