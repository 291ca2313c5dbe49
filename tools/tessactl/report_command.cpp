#include <windows.h>

#include <chrono>
#include <cstdio>
#include <cwchar>
#include <filesystem>
#include <iterator>
#include <string>

#include "build_version.h"
#include "commands.h"
#include "json.h"
#include "progress.h"
#include "report_anonymous.h"
#include "report_page.h"
#include "report_parts.h"
#include "text.h"
#include "unique_handle.h"

namespace tessactl {
namespace {

/// A file of the page, which the build puts into this program (report_page/page.rc).
std::string PagePart(const wchar_t* name) {
    const HRSRC found = ::FindResourceW(nullptr, name, RT_RCDATA);
    const HGLOBAL loaded = found != nullptr ? ::LoadResource(nullptr, found) : nullptr;
    if (loaded == nullptr) throw ToolError("This program is damaged: the report's page is not in it.");
    return {static_cast<const char*>(::LockResource(loaded)), ::SizeofResource(nullptr, found)};
}

std::wstring RegistryText(const wchar_t* value) {
    wchar_t text[256] = {};
    DWORD size = sizeof text;
    const bool isRead = ::RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion",
                                       value, RRF_RT_REG_SZ, nullptr, text, &size) == ERROR_SUCCESS;
    return isRead ? text : L"";
}

std::wstring ComputerName() {
    wchar_t name[256] = {};
    DWORD length = ARRAYSIZE(name);
    return ::GetComputerNameExW(ComputerNameNetBIOS, name, &length) ? name : L"computer";
}

std::string TimeText(const SYSTEMTIME& time, const char* format) {
    char text[64] = {};
    std::snprintf(text, sizeof text, format, time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute,
                  time.wSecond);
    return text;
}

constexpr char kReadable[] = "%04d-%02d-%02d %02d:%02d:%02d";

/// Who made the report, where and when.
Json HeadOfReport(bool isAnonymous) {
    SYSTEMTIME local = {};
    SYSTEMTIME utc = {};
    ::GetLocalTime(&local);
    ::GetSystemTime(&utc);
    const BuildVersion tool = OwnBuild();
    return {{"computer", Utf8(ComputerName())},
            {"time", TimeText(local, kReadable)},
            {"timeUtc", TimeText(utc, kReadable)},
            {"system", Utf8(RegistryText(L"ProductName") + L", build " + RegistryText(L"CurrentBuild"))},
            {"tool", {{"version", tool.version}, {"commit", tool.commit}, {"date", tool.date}}},
            {"anonymous", isAnonymous}};
}

Json Gather(const ReportRequest& request, bool isAnonymous) {
    // The parts are read at the same time. A process that has to be ended may take five seconds to do so.
    constexpr auto kLimit = std::chrono::seconds(13);
    constexpr std::size_t kMostText = 2000;      // bytes of one text
    constexpr std::size_t kMostData = 12 << 20;  // of the whole
    Progress progress(ProgressTerminal(false));
    Json data = {{"schema", 1},
                 {"report", HeadOfReport(isAnonymous)},
                 {"parts", GatherParts(request, std::chrono::steady_clock::now() + kLimit,
                                       [&](std::size_t done, std::size_t all) {
                                           progress.Tell("report: " + std::to_string(done) + " of " +
                                                         std::to_string(all) + " parts");
                                       })}};
    if (isAnonymous) {
        PrivateNames names = NamesOnThisMachine();
        const Json account = data["parts"]["service"].value("/data/account"_json_pointer, Json(""));
        AddAccount(names, Widened(account.get<std::string>(), CP_UTF8));
        Anonymiser(std::move(names)).Apply(data);
    }
    LimitTexts(data, kMostText);
    LimitSize(data, kMostData);
    return data;
}

std::wstring DefaultFile(bool isAnonymous) {
    SYSTEMTIME now = {};
    ::GetLocalTime(&now);
    return L"tessaplug-report-" + (isAnonymous ? L"" : ComputerName() + L"-") +
           Widened(TimeText(now, "%04d%02d%02d-%02d%02d%02d"), CP_UTF8) + L".html";
}

/// In KB, from one MB on in MB.
std::string SizeText(std::size_t bytes) {
    constexpr std::size_t kMegabyte = 1 << 20;
    if (bytes < kMegabyte) return std::to_string((bytes + 1023) / 1024) + " KB";
    const std::size_t tenths = bytes * 10 / kMegabyte;
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " MB";
}

[[noreturn]] void FailToWrite(const std::wstring& path, DWORD error) {
    const std::string what = Utf8(path) + " cannot be written: " + ErrorInWords(error);
    throw ToolError(what);
}

/// Writes a file beside the one that is meant and then puts it in its place: whoever reads that one finds the
/// old page or the new one, never a part.
void WriteWhole(const std::wstring& path, const std::string& text) {
    const std::wstring part = path + L"." + std::to_wstring(::GetCurrentProcessId()) + L".part";
    UniqueKernelHandle file(::CreateFileW(part.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                          FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) FailToWrite(path, ::GetLastError());
    DWORD written = 0;
    bool isWritten =
        ::WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) &&
        written == text.size() && ::FlushFileBuffers(file.get());
    DWORD error = ::GetLastError();
    file.reset();
    if (isWritten) {
        isWritten = ::MoveFileExW(part.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING) != FALSE;
        error = ::GetLastError();
    }
    if (isWritten) return;
    ::DeleteFileW(part.c_str());
    FailToWrite(path, error);
}

void TellWhatIsMissing(const Json& data) {
    for (const auto& [name, part] : data["parts"].items())
        if (part.contains("error"))
            std::printf("  without %s: %s\n", name.c_str(), part["error"].get<std::string>().c_str());
}

struct Options {
    ReportRequest request;
    std::wstring file;
    bool isAnonymous = false;
    bool json = false;
};

ExitCode Report(const Options& options) {
    ReportRequest request = options.request;
    if (!request.recording.empty())
        request.recording = std::filesystem::absolute(request.recording).wstring();
    if (options.json && !options.file.empty())
        throw command_line::UsageError("with --json the report is printed, and there is no file");
    const Json data = Gather(request, options.isAnonymous);
    if (options.json) {
        std::printf("%s\n", JsonText(data).c_str());
        return ExitCode::kSuccess;
    }
    const PageParts parts = {PagePart(L"REPORT_PAGE"), PagePart(L"REPORT_STYLE"),
                             PagePart(L"REPORT_SCRIPT") + PagePart(L"REPORT_CHARTS")};
    const std::wstring file =
        std::filesystem::absolute(options.file.empty() ? DefaultFile(options.isAnonymous) : options.file)
            .wstring();
    const std::string page = PageOf(parts, data);
    WriteWhole(file, page);
    std::printf("%s  %s\n", Utf8(file).c_str(), SizeText(page.size()).c_str());
    TellWhatIsMissing(data);
    return ExitCode::kSuccess;
}

}  // namespace

void AddReport(command_line::Program& program) {
    const auto define = [](command_line::Command& command, Options& options) {
        command.OptionalOperand("FILE", options.file,
                                "the page, tessaplug-report-COMPUTER-DATE.html in the current folder unless "
                                "told otherwise; an older one is replaced");
        command.Text("--service", options.request.service, "NAME",
                     "the service, tessahost unless told otherwise");
        command.Text("--plugin", options.request.plugIn, "FILE",
                     "file name of its plug-in, tessaplug.dll unless told otherwise");
        command.Text("--recording", options.request.recording, "FILE",
                     "a recording, the one of trace start unless told otherwise");
        command.Text("--tmf", options.request.tmf, "FOLDER",
                     "the texts of its messages, tmf beside the program unless told otherwise");
        command.Text("--dumps", options.request.dumps, "FOLDER",
                     "where the dumps are, the temporary folder of the machine unless told otherwise");
        command.Switch("--anonymous", options.isAnonymous, "leaves out names of users and computers");
        command.Switch("--json", options.json, "prints the same data as JSON and writes no page");
    };
    AddCommand<Options>(program, "report",
                        "writes one HTML page with all that support asks for\n"
                        "what cannot be had is missing in it, with the reason; it takes 20 seconds at most",
                        define, &Report);
}

}  // namespace tessactl
