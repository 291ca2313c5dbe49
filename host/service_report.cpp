#include "service_report.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "status_log.h"
#include "toolbox.h"

namespace host {
namespace {

constexpr DWORD kSecond = 1000;
constexpr wchar_t kUnknown[] = L"not told by this system";

std::optional<std::wstring> StartTypeName(const ServiceSettings& settings) {
    switch (settings.startType.value_or(SERVICE_NO_CHANGE)) {
        case SERVICE_AUTO_START:
            return settings.delayedStart.value_or(false) ? L"automatic (delayed)" : L"automatic";
        case SERVICE_DEMAND_START:
            return L"manual";
        case SERVICE_DISABLED:
            return L"disabled";
        default:
            return std::nullopt;
    }
}

using Json = nlohmann::ordered_json;

Json JsonOf(const std::wstring& text) {
    return toolbox::WstringToString(text, CP_UTF8);
}
Json JsonOf(const std::vector<std::wstring>& texts) {
    Json array = Json::array();
    for (const std::wstring& text : texts)
        array.push_back(JsonOf(text));
    return array;
}
template <typename T>
Json JsonOf(const T& value) {
    return value;
}
template <typename T>
Json JsonOf(const std::optional<T>& value) {
    return value ? JsonOf(*value) : nullptr;
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
    const Json json = {
        {"schema", 1},
        {"name", JsonOf(name)},
        {"state", JsonOf(std::wstring(StateName(status.dwCurrentState)))},
        {"processId", JsonOf(status.dwProcessId)},
        {"exitCode", JsonOf(status.dwWin32ExitCode)},
        {"serviceExitCode", JsonOf(status.dwServiceSpecificExitCode)},
        {"checkPoint", JsonOf(status.dwCheckPoint)},
        {"startType", JsonOf(StartTypeName(settings))},
        {"dependencies", JsonOf(settings.dependencies)},
        {"restartAfterSeconds", JsonOf(InSeconds(settings.restartsAfter))},
        {"restartResetSeconds", JsonOf(settings.resetPeriod)},
        {"restartOnError", JsonOf(settings.restartsOnError)},
        {"preshutdownSeconds", JsonOf(InSeconds(settings.preshutdownTimeOut))},
        {"description", JsonOf(settings.description)},
        {"commandLine", JsonOf(settings.commandLine)},
    };
    // A text with half a character in it is told with a replacement.
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::wstring StatusAsText(const std::wstring& name, const SERVICE_STATUS_PROCESS& status,
                          const ServiceSettings& settings) {
    const std::pair<const wchar_t*, std::wstring> lines[] = {
        {L"service    ", name},
        {L"state      ", StateName(status.dwCurrentState)},
        {L"process    ", std::to_wstring(status.dwProcessId)},
        {L"exit code  ", std::to_wstring(status.dwWin32ExitCode) + L" (its own: " +
                             std::to_wstring(status.dwServiceSpecificExitCode) + L")"},
        {L"start      ", StartTypeName(settings).value_or(kUnknown)},
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
