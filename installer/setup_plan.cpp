#include "setup_plan.h"

#include <array>
#include <cwchar>
#include <stdexcept>

#include "status_log.h"
#include "toolbox.h"

namespace installer {
namespace {

constexpr wchar_t kSeparator = L'|';  // no path can hold it

[[noreturn]] void Refuse(const std::wstring& text) {
    throw std::invalid_argument(toolbox::WstringToString(text, CP_UTF8));
}

bool IsSamePath(const std::wstring& a, const std::wstring& b) {
    return ::CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

bool IsFullPath(const std::wstring& path) {
    return path.starts_with(L"\\\\") || (path.length() > 2 && path[1] == L':' && path[2] == L'\\');
}

/// The service's options before the wishes: its own, or those of a new one.
host::Options Basis(const std::wstring& folder, const std::optional<host::InstalledService>& service) {
    host::Options options;
    const std::wstring program = folder + L"tessahost.exe";
    if (service) {
        if (!service->options || !IsSamePath(service->options->program, program))
            Refuse(L"There is a service \"" + options.name + L"\" already that is not this product's: it runs " +
                   service->commandLine + L". Remove it first, if it is one of this plug-in with \"tessahost "
                                          L"uninstall\" from its own folder.");
        options = *service->options;
    } else {
        options.automaticStart = true;
        options.log = host::DefaultLogPath();
    }
    options.program = program;
    options.plugIn = folder + L"tessaplug.dll";
    return options;
}

void Apply(const Wishes& wishes, host::Options& options) {
    if (!wishes.start.empty()) {
        if (wishes.start != L"automatic" && wishes.start != L"delayed" && wishes.start != L"manual")
            Refuse(L"SERVICESTART is automatic, delayed or manual, not \"" + wishes.start + L"\".");
        options.automaticStart = wishes.start != L"manual";
        options.delayedStart = wishes.start == L"delayed";
    }
    if (!wishes.logFolder.empty()) {
        if (!IsFullPath(wishes.logFolder) || wishes.logFolder.find_first_of(L"\"|<>*?") != std::wstring::npos)
            Refuse(L"LOGFOLDER is the full path of a folder, not \"" + wishes.logFolder + L"\".");
        const bool hasEnd = wishes.logFolder.ends_with(L'\\');
        options.log = wishes.logFolder + (hasEnd ? L"" : L"\\") + L"tessahost.log";
    }
    if (!wishes.startService.empty() && wishes.startService != L"0" && wishes.startService != L"1")
        Refuse(L"STARTSERVICE is 1 or 0, not \"" + wishes.startService + L"\".");
}

ServiceSetUp SetUpOf(const host::Options& options) {
    return {host::CommandLineOf(options), options.automaticStart, options.delayedStart};
}

std::wstring ToText(const ServiceSetUp& setUp) {
    return setUp.commandLine + kSeparator + (setUp.automaticStart ? L"1" : L"0") + kSeparator +
           (setUp.delayedStart ? L"1" : L"0");
}

}  // namespace

host::Options OptionsOf(const ServiceSetUp& setUp) {
    auto options = host::OptionsOf(setUp.commandLine);
    if (!options) throw std::runtime_error("the service's command line is none of the host's");
    options->automaticStart = setUp.automaticStart;
    options->delayedStart = setUp.delayedStart;
    return *options;
}

std::wstring ToText(const SetupPlan& plan) {
    return plan.folder + kSeparator + (plan.wasRunning ? L"1" : L"0") + kSeparator +
           (plan.startAtTheEnd ? L"1" : L"0") + kSeparator + ToText(plan.wanted) + kSeparator +
           ToText(plan.previous.value_or(ServiceSetUp()));
}

SetupPlan ToPlan(const std::wstring& text) {
    std::array<std::wstring, 9> fields;
    std::size_t begin = 0;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const std::size_t end = text.find(kSeparator, begin);
        if ((end == std::wstring::npos) != (i + 1 == fields.size()))
            throw std::invalid_argument("the installer's plan has the wrong number of fields");
        fields[i] = text.substr(begin, end - begin);
        begin = end + 1;
    }
    const auto isSet = [](const std::wstring& field) { return field == L"1"; };
    SetupPlan plan;
    plan.folder = fields[0];
    plan.wasRunning = isSet(fields[1]);
    plan.startAtTheEnd = isSet(fields[2]);
    plan.wanted = {fields[3], isSet(fields[4]), isSet(fields[5])};
    if (!fields[6].empty()) plan.previous = {fields[6], isSet(fields[7]), isSet(fields[8])};
    return plan;
}

SetupPlan MakePlan(const std::wstring& folder, const std::optional<host::InstalledService>& service,
                   const Wishes& wishes) {
    SetupPlan plan;
    plan.folder = folder;
    host::Options options = Basis(folder, service);
    if (service) {
        plan.previous = {service->commandLine, options.automaticStart, options.delayedStart};
        plan.wasRunning = service->isRunning;
    }
    Apply(wishes, options);
    plan.wanted = SetUpOf(options);
    // Who has stopped the service had a reason, which an update does not know.
    plan.startAtTheEnd = wishes.startService.empty() ? !service || service->isRunning : wishes.startService == L"1";
    return plan;
}

}  // namespace installer
