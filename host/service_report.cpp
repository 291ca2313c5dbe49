#include "service_report.h"

#include "json_text.h"
#include "status_log.h"

namespace host {
namespace {

constexpr DWORD kSecond = 1000;
constexpr wchar_t kUnknown[] = L"not told by this system";

const wchar_t* StartTypeName(const ServiceSettings& settings) {
    switch (settings.startType.value_or(SERVICE_NO_CHANGE)) {
        case SERVICE_AUTO_START:
            return settings.delayedStart.value_or(false) ? L"automatic (delayed)" : L"automatic";
        case SERVICE_DEMAND_START:
            return L"manual";
        case SERVICE_DISABLED:
            return L"disabled";
        default:
            return kUnknown;
    }
}

std::string Json(const std::wstring& text) {
    return toolbox::JsonText(text);
}
std::string Json(bool value) {
    return value ? "true" : "false";
}
std::string Json(DWORD value) {
    return std::to_string(value);
}
template <typename T>
std::string Json(const std::vector<T>& values) {
    std::string all;
    for (const T& value : values)
        all += (all.empty() ? "" : ",") + Json(value);
    return "[" + all + "]";
}
template <typename T>
std::string Json(const std::optional<T>& value) {
    return value ? Json(*value) : "null";
}

std::optional<DWORD> InSeconds(const std::optional<DWORD>& milliseconds) {
    return milliseconds ? std::optional(*milliseconds / kSecond) : std::nullopt;
}

std::optional<std::vector<DWORD>> InSeconds(const std::optional<std::vector<DWORD>>& milliseconds) {
    if (!milliseconds) return std::nullopt;
    std::vector<DWORD> seconds = *milliseconds;
    for (DWORD& value : seconds)
        value /= kSecond;
    return seconds;
}

std::wstring Joined(const std::vector<std::wstring>& texts) {
    std::wstring all;
    for (const std::wstring& text : texts)
        all += (all.empty() ? L"" : L", ") + text;
    return all.empty() ? L"nothing" : all;
}

std::wstring RestartText(const ServiceSettings& settings) {
    const auto delays = InSeconds(settings.restartsAfter);
    if (!delays) return kUnknown;
    if (delays->empty()) return L"never";
    std::vector<std::wstring> texts;
    for (const DWORD delay : *delays)
        texts.push_back(std::to_wstring(delay) + L" s");
    return L"after " + Joined(texts) + L"; counted anew after " +
           std::to_wstring(settings.resetPeriod.value_or(0)) + L" s without an error";
}

std::wstring RestartOnErrorText(const ServiceSettings& settings) {
    if (!settings.restartsOnError) return kUnknown;
    return *settings.restartsOnError ? L"yes" : L"no, only after a crash";
}

std::wstring PreshutdownText(const ServiceSettings& settings) {
    const auto seconds = InSeconds(settings.preshutdownTimeOut);
    return seconds ? L"waits for the stop, at most " + std::to_wstring(*seconds) + L" s" : kUnknown;
}

}  // namespace

std::string StatusAsJson(const std::wstring& name, const SERVICE_STATUS_PROCESS& status,
                         const ServiceSettings& settings) {
    const std::pair<const char*, std::string> members[] = {
        {"name", Json(name)},
        {"state", Json(std::wstring(StateName(status.dwCurrentState)))},
        {"processId", Json(status.dwProcessId)},
        {"exitCode", Json(status.dwWin32ExitCode)},
        {"serviceExitCode", Json(status.dwServiceSpecificExitCode)},
        {"checkPoint", Json(status.dwCheckPoint)},
        {"startType", settings.startType ? Json(std::wstring(StartTypeName(settings))) : "null"},
        {"dependencies", Json(settings.dependencies)},
        {"restartAfterSeconds", Json(InSeconds(settings.restartsAfter))},
        {"restartResetSeconds", Json(settings.resetPeriod)},
        {"restartOnError", Json(settings.restartsOnError)},
        {"preshutdownSeconds", Json(InSeconds(settings.preshutdownTimeOut))},
        {"description", Json(settings.description)},
        {"commandLine", Json(settings.commandLine)},
    };
    std::string all;
    for (const auto& [key, value] : members)
        all += (all.empty() ? "\"" : ",\"") + std::string(key) + "\":" + value;
    return "{" + all + "}";
}

std::wstring StatusAsText(const std::wstring& name, const SERVICE_STATUS_PROCESS& status,
                          const ServiceSettings& settings) {
    const std::pair<const wchar_t*, std::wstring> lines[] = {
        {L"service    ", name},
        {L"state      ", StateName(status.dwCurrentState)},
        {L"process    ", std::to_wstring(status.dwProcessId)},
        {L"exit code  ", std::to_wstring(status.dwWin32ExitCode) + L" (its own: " +
                             std::to_wstring(status.dwServiceSpecificExitCode) + L")"},
        {L"start      ", StartTypeName(settings)},
        {L"depends on ", settings.dependencies ? Joined(*settings.dependencies) : kUnknown},
        {L"restart    ", RestartText(settings)},
        {L"  on error ", RestartOnErrorText(settings)},
        {L"shutdown   ", PreshutdownText(settings)},
        {L"about      ", settings.description.value_or(kUnknown)},
        {L"runs       ", settings.commandLine.value_or(kUnknown)},
    };
    std::wstring all;
    for (const auto& [label, value] : lines)
        all += label + value + L"\n";
    return all;
}

}  // namespace host
