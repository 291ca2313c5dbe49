#include "dump_folder_command.h"

#include <cstdio>
#include <vector>

#include "event_log_entries.h"
#include "json.h"
#include "text.h"

namespace tessactl {
namespace {

ULONG64 Now() {
    FILETIME now = {};
    ::GetSystemTimeAsFileTime(&now);
    return static_cast<ULONG64>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
}

std::string WrittenAt(const StoredDump& dump) {
    constexpr ULONG64 kFrom1601To1970 = 116444736000000000;
    return LocalTimeText(static_cast<DWORD>((dump.writtenAt - kFrom1601To1970) / 10'000'000));
}

/// "tessaplug.dll_20261121-101112.dmp  108.2 MB  3 days old"
std::string Line(const StoredDump& dump, ULONG64 now) {
    char size[32] = {};
    std::snprintf(size, sizeof size, "  %7.1f MB  ", static_cast<double>(dump.bytes) / (1 << 20));
    return Utf8(dump.name) + size + AgeInWords(dump.writtenAt, now) + " old";
}

Json JsonOf(const StoredDump& dump, ULONG64 now) {
    return {{"schema", 1},
            {"file", Utf8(dump.Path())},
            {"bytes", dump.bytes},
            {"written", WrittenAt(dump)},
            {"ageSeconds", now > dump.writtenAt ? (now - dump.writtenAt) / 10'000'000 : 0}};
}

}  // namespace

ExitCode ListDumps(const std::wstring& folder, bool json) {
    const ULONG64 now = Now();
    const auto dumps = DumpsIn(folder);
    if (json) {
        Json elements = Json::array();
        for (const StoredDump& dump : dumps)
            elements.push_back(JsonOf(dump, now));
        std::printf("%s\n", JsonLines(elements).c_str());
        return ExitCode::kSuccess;
    }
    if (dumps.empty())
        std::printf("There are no dumps of the plug-in in %s\n", Utf8(folder).c_str());
    else
        std::printf("%s\n", Utf8(folder).c_str());
    for (const StoredDump& dump : dumps)
        std::printf("  %s\n", Line(dump, now).c_str());
    return ExitCode::kSuccess;
}

ExitCode PruneDumps(const std::wstring& folder, const PruneRule& rule, bool isTry) {
    const ULONG64 now = Now();
    const auto dumps = DumpsIn(folder);
    std::size_t removed = 0;
    std::size_t failed = 0;
    for (const StoredDump& dump : DumpsToPrune(dumps, rule, now)) {
        try {
            RemoveDump(dump, isTry);
            ++removed;
            std::printf("%s  %s\n", isTry ? "would remove" : "removed", Line(dump, now).c_str());
        } catch (const ToolError& error) {
            ++failed;
            std::fprintf(stderr, "tessactl: %s\n", error.what());
        }
    }
    std::printf("%zu %s, %zu left in %s\n", removed, isTry ? "would be removed" : "removed",
                dumps.size() - removed, Utf8(folder).c_str());
    return failed == 0 ? ExitCode::kSuccess : ExitCode::kFailed;
}

}  // namespace tessactl
