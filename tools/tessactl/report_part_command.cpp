#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "commands.h"
#include "event_log_entries.h"
#include "json.h"
#include "partner_probe.h"
#include "protected_folder.h"
#include "report_parts.h"
#include "report_recording.h"
#include "statmgr_wrapper_impl.h"
#include "status_command.h"
#include "text.h"
#include "tmf_build.h"
#include "unique_handle.h"
#include "win_convenience.h"

// The parts of a report that no other command tells, each run in a process of its own.
namespace tessactl {
namespace {

using std::chrono::seconds;

Json StationPart(const ReportRequest&) {
    constexpr seconds kLimit(6);
    StationState state = ReadStationWithoutLibrary();
    state.libraryError = ProbeConfigurationLibrary(state.models, kLimit);
    if (!state.libraryError.empty()) ForgetAccessPoints(state.models);
    Json json = JsonOf(state);
    for (std::size_t i = 0; i < state.models.size(); ++i) {
        Json& model = json["models"][i];
        model["catalogName"] = Utf8(state.models[i].catalogName);
        for (std::size_t k = 0; k < state.models[i].accessPoints.size(); ++k)
            model["accessPoints"][k]["state"] = state.models[i].accessPoints[k].State();
    }
    return json;
}

std::string ComponentState(ULONG status) {
    char other[32] = {};
    switch (status) {
        case 0x201:
            return "running";
        case 0x203:
            return "stopped";
        case 0x205:
            return "disturbed";
        default:
            std::snprintf(other, sizeof other, "0x%lX", status);
            return other;
    }
}

Json ComponentsPart(const ReportRequest&) {
    korvane::ComInterface com;
    com.Initialize();
    korvane::CStatMgrImpl manager;
    manager.Initalize();
    std::vector<korvane::StationComponentInfo> components;
    manager.GetConfigData(components);
    Json elements = Json::array();
    for (const auto& component : components)
        elements.push_back({{"number", component.lVmdID},
                            {"catalogName", Utf8FromAnsi(component.CatalogEntry())},
                            {"name", Utf8FromAnsi(component.Name())},
                            {"state", ComponentState(component.ulStatus)}});
    return elements;
}

const char* StateName(DWORD state) {
    switch (state) {
        case SERVICE_RUNNING:
            return "running";
        case SERVICE_START_PENDING:
            return "starting";
        case SERVICE_STOP_PENDING:
            return "stopping";
        case SERVICE_STOPPED:
            return "stopped";
        default:
            return "paused";
    }
}

Json TextOrNothing(const wchar_t* text) {
    return Utf8(text != nullptr ? text : L"");
}

/// Texts that stand behind one another, up to an empty one.
Json TextsOf(const wchar_t* texts) {
    Json all = Json::array();
    while (texts != nullptr && *texts != L'\0') {
        const std::wstring text = texts;
        all.push_back(Utf8(text));
        texts += text.length() + 1;
    }
    return all;
}

Json ServicePart(const ReportRequest& request) {
    const QueriedService service(request.service);
    if (!service.IsInstalled())
        throw ToolError("the service \"" + Utf8(request.service) +
                        "\" cannot be opened: " + ErrorInWords(service.OpenError()));
    const SERVICE_STATUS_PROCESS status = service.Status();
    Json json = {{"name", Utf8(request.service)},
                 {"state", StateName(status.dwCurrentState)},
                 {"process", status.dwProcessId},
                 {"exitCode", status.dwWin32ExitCode},
                 {"ownExitCode", status.dwServiceSpecificExitCode}};
    std::vector<BYTE> buffer(8192);  // what the service manager needs at most
    auto* settings = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    DWORD needed = 0;
    if (!::QueryServiceConfigW(service.get(), settings, static_cast<DWORD>(buffer.size()), &needed)) {
        json["settingsError"] = ErrorInWords(::GetLastError());
        return json;
    }
    json["displayName"] = TextOrNothing(settings->lpDisplayName);
    json["account"] = TextOrNothing(settings->lpServiceStartName);
    json["start"] = StartTypeText(settings->dwStartType);
    json["dependencies"] = TextsOf(settings->lpDependencies);
    json["commandLine"] = TextOrNothing(settings->lpBinaryPathName);
    return json;
}

std::wstring HostLogFile(const std::wstring& service) {
    const std::vector<std::wstring> commandLine = QueriedService(service).CommandLine();
    for (std::size_t i = 1; i + 1 < commandLine.size(); ++i)
        if (commandLine[i] == L"--log") return commandLine[i + 1];
    return operating_system::ProductDataFolder() + L"\\tessahost.log";
}

/// The end of a text file; its first line is whole, unless the file begins with it.
std::string EndOf(const std::wstring& path, std::size_t most) {
    const UniqueKernelHandle file(::CreateFileW(path.c_str(), GENERIC_READ,
                                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                                nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size = {};
    if (!file || !::GetFileSizeEx(file.get(), &size))
        throw ToolError(Utf8(path) + " cannot be read: " + ErrorInWords(::GetLastError()));
    LARGE_INTEGER from = {};
    from.QuadPart = std::max<LONGLONG>(0, size.QuadPart - static_cast<LONGLONG>(most));
    std::string text(most, '\0');
    DWORD read = 0;
    if (!::SetFilePointerEx(file.get(), from, nullptr, FILE_BEGIN) ||
        !::ReadFile(file.get(), text.data(), static_cast<DWORD>(most), &read, nullptr))
        throw ToolError(Utf8(path) + " cannot be read: " + ErrorInWords(::GetLastError()));
    text.resize(read);
    if (from.QuadPart > 0) text.erase(0, text.find('\n') + 1);
    return text;
}

/// "2026-11-21 10:11:12.131  STOPPED" as time and text.
Json LineOf(const std::string& line) {
    constexpr std::size_t kStamp = 23;
    const bool hasStamp = line.length() > kStamp && line[4] == '-' && line[10] == ' ' && line[19] == '.';
    return {{"time", hasStamp ? line.substr(0, kStamp) : ""},
            {"text", hasStamp ? line.substr(line.find_first_not_of(' ', kStamp)) : line}};
}

Json HostLogPart(const ReportRequest& request) {
    constexpr std::size_t kMostBytes = 256 << 10;
    const std::wstring path = HostLogFile(request.service);
    std::string text = EndOf(path, kMostBytes);
    std::erase(text, '\r');
    std::vector<Json> lines;
    for (std::size_t at = 0; at < text.length();) {
        const std::size_t end = std::min(text.find('\n', at), text.length());
        if (end > at) lines.push_back(LineOf(text.substr(at, end - at)));
        at = end + 1;
    }
    if (lines.size() > kMostRecords)
        lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(kMostRecords));
    return {{"file", Utf8(path)}, {"lines", lines}};
}

ULONG64 Joined(DWORD high, DWORD low) {
    return ULONG64{high} << 32 | low;
}

/// The files of one folder.
void AddFiles(Json& files, const std::wstring& pattern) {
    constexpr std::size_t kMost = 200;
    constexpr ULONG64 kFrom1601To1970 = 116444736000000000;
    constexpr ULONG64 kSecond = 10'000'000;  // in the 100 ns units of a file time
    FILETIME now = {};
    ::GetSystemTimeAsFileTime(&now);
    WIN32_FIND_DATAW found = {};
    const HANDLE first = ::FindFirstFileW(pattern.c_str(), &found);
    if (first == INVALID_HANDLE_VALUE) {
        const DWORD error = ::GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) return;
        throw ToolError(Utf8(pattern) + " cannot be read: " + ErrorInWords(error));
    }
    const UniqueHandle<HANDLE, [](HANDLE search) { ::FindClose(search); }> search(first);
    const std::wstring folder = pattern.substr(0, pattern.rfind(L'\\') + 1);
    do {
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) continue;
        const ULONG64 written =
            Joined(found.ftLastWriteTime.dwHighDateTime, found.ftLastWriteTime.dwLowDateTime);
        const ULONG64 age = (Joined(now.dwHighDateTime, now.dwLowDateTime) - written) / kSecond;
        files.push_back(
            {{"file", Utf8(folder + found.cFileName)},
             {"bytes", Joined(found.nFileSizeHigh, found.nFileSizeLow)},
             {"written", LocalTimeText(static_cast<DWORD>((written - kFrom1601To1970) / kSecond))},
             {"ageSeconds", age}});
    } while (files.size() < kMost && ::FindNextFileW(search.get(), &found));
}

/// Recordings and logs; the dumps are a part of their own.
Json FilesPart(const ReportRequest& request) {
    Json files = Json::array();
    const std::wstring folder = operating_system::ProductDataFolder();
    AddFiles(files, folder + L"\\*");
    const std::wstring log = HostLogFile(request.service);
    if (!log.starts_with(folder)) AddFiles(files, log + L"*");
    return files;
}

std::wstring DefaultTmfFolder() {
    const std::wstring self = windows_api::GetModuleFileNameW(nullptr);
    return self.substr(0, self.rfind(L'\\')) + L"\\tmf";
}

/// What this tool knows of the trace formats, for a recording that has messages which they lack.
std::string BuildOfFormats(const std::wstring& folder) {
    try {
        return InWords(ReadTmfBuild(folder));
    } catch (const ToolError& error) {
        return error.what();
    }
}

Json RecordingPart(const ReportRequest& request) {
    constexpr seconds kLimit(8);  // a large recording takes longer; what is read until then is told
    const std::wstring file = request.recording.empty()
                                  ? operating_system::ProductDataFolder() + L"\\tessaplug.etl"
                                  : request.recording;
    const std::wstring formats = request.tmf.empty() ? DefaultTmfFolder() : request.tmf;
    const auto catalog = TmfCatalog::FromFolder(formats);
    RecordedCalls calls(kMostCalls, kMostWarnings);
    RecordingHead head;
    std::string damage;
    bool isCut = false;
    const auto deadline = std::chrono::steady_clock::now() + kLimit;
    try {
        const auto useMessage = [&](const RecordedMessage& message) {
            isCut = isCut || std::chrono::steady_clock::now() > deadline;
            if (!isCut) calls.Add(message, Decode(catalog, message));
        };
        ReadRecording(file, head, useMessage, [&](unsigned int) { return !isCut; });
    } catch (const ToolError& error) {
        if (head.bufferSize == 0) throw;
        damage = error.what();
    }
    Json json = {{"file", Utf8(file)},
                 {"formats", BuildOfFormats(formats)},
                 {"damage", damage},
                 {"isCut", isCut},
                 {"eventsLost", head.eventsLost},
                 {"buffersLost", head.buffersLost},
                 {"buffersReplaced", head.BuffersReplaced()}};
    json.update(calls.Finish());
    return json;
}

struct Part {
    const wchar_t* name;
    Json (*tell)(const ReportRequest&);
};

constexpr Part kParts[] = {
    {L"station", &StationPart},  {L"components", &ComponentsPart}, {L"service", &ServicePart},
    {L"host-log", &HostLogPart}, {L"files", &FilesPart},           {L"recording", &RecordingPart},
};

}  // namespace

void AddReportPart(command_line::Program& program) {
    struct Options {
        std::wstring part;
        ReportRequest request;
    };
    const auto define = [](command_line::Command& command, Options& options) {
        command.Operand("PART", options.part, "which");
        command.Text("--service", options.request.service, "NAME", "the service");
        command.Text("--plugin", options.request.plugIn, "FILE", "file name of its plug-in");
        command.Text("--recording", options.request.recording, "FILE", "the recording");
        command.Text("--tmf", options.request.tmf, "FOLDER", "the texts of its messages");
        command.Hide();
    };
    AddCommand<Options>(program, "report-part", "tells one part of a report; for report only", define,
                        [](const Options& options) {
                            for (const Part& part : kParts)
                                if (options.part == part.name) {
                                    std::printf("%s\n", JsonText(part.tell(options.request)).c_str());
                                    return ExitCode::kSuccess;
                                }
                            throw command_line::UsageError("there is no such part");
                        });
}

}  // namespace tessactl
