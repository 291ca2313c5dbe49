#include <windows.h>
#include <evntrace.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>

#include "commands.h"
#include "protected_folder.h"
#include "text.h"
#include "tmf_build.h"
#include "trace_decoder.h"
#include "win_convenience.h"

namespace tessactl {
namespace {

constexpr wchar_t kSessionName[] = L"tessaplug";
constexpr GUID kControlGuids[] = {
    {0xadc03568, 0x3c4e, 0x4804, {0x97, 0x10, 0x96, 0x8b, 0x39, 0x9e, 0x7f, 0x56}},
    {0xee8c6c7c, 0x3531, 0x4072, {0xa8, 0x29, 0xd7, 0x41, 0xb5, 0x89, 0xe5, 0xa2}},
};

using Options = std::map<std::wstring, std::wstring>;

/// Splits "--name value" pairs off; what is left comes back under the empty name.
bool ParseOptions(const Arguments& arguments, const std::vector<std::wstring>& known, Options& options) {
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        if (!arguments[i].starts_with(L"--")) {
            if (!options[L""].empty()) return UsageError(L"one file only, please"), false;
            options[L""] = arguments[i];
            continue;
        }
        bool isKnown = false;
        for (const std::wstring& name : known)
            isKnown |= arguments[i] == name;
        if (!isKnown || i + 1 == arguments.size())
            return UsageError((isKnown ? L"a value is missing behind " : L"unknown option ") + arguments[i]),
                   false;
        options[arguments[i]] = arguments[i + 1];
        ++i;
    }
    return true;
}

/// A whole number, decimal or with 0x.
bool ParseNumber(const std::wstring& text, ULONG& number) {
    wchar_t* end = nullptr;
    number = std::wcstoul(text.c_str(), &end, 0);
    return end != text.c_str() && *end == L'\0';
}

std::wstring DefaultFile() {
    return operating_system::ProductDataFolder() + L"\\tessaplug.etl";
}

/// The system writes a recording with all its rights: nobody but administrators may choose where to.
void PrepareDefaultFile() {
    try {
        operating_system::EnsureProtectedFolder(operating_system::ProductDataFolder());
        operating_system::RequireNoLink(DefaultFile());
    } catch (const operating_system::PathRefused& refused) {
        throw ToolError(Utf8(refused.Text()));
    }
}

/// The session's properties with room for its names behind them, in the documented order.
struct SessionProperties {
    EVENT_TRACE_PROPERTIES head = {};
    wchar_t name[256] = {};
    wchar_t logFile[1024] = {};

    explicit SessionProperties(const std::wstring& file) {
        head.Wnode.BufferSize = sizeof *this;
        head.Wnode.Flags = WNODE_FLAG_TRACED_GUID;
        head.Wnode.ClientContext = 1;  // query performance counter
        head.LogFileMode = EVENT_TRACE_FILE_MODE_SEQUENTIAL;
        head.LogFileNameOffset = offsetof(SessionProperties, logFile);
        head.LoggerNameOffset = offsetof(SessionProperties, name);
        file.copy(logFile, ARRAYSIZE(logFile) - 1);
    }
};

ExitCode Failed(const char* what, ULONG error) {
    switch (error) {
        case ERROR_ACCESS_DENIED:
            std::fprintf(stderr, "tessactl: %s is not allowed; run it as administrator.\n", what);
            return ExitCode::kNoRights;
        case ERROR_ALREADY_EXISTS:
            std::fputs("tessactl: a recording is running already; end it with \"tessactl trace stop\".\n",
                       stderr);
            return ExitCode::kFailed;
        case ERROR_WMI_INSTANCE_NOT_FOUND:
            std::fputs("tessactl: no recording is running.\n", stderr);
            return ExitCode::kFailed;
        default:
            std::fprintf(stderr, "tessactl: %s failed: %s\n", what, ErrorInWords(error).c_str());
            return ExitCode::kFailed;
    }
}

ExitCode Stop() {
    SessionProperties properties(L"");
    const ULONG result = ::ControlTraceW(0, kSessionName, &properties.head, EVENT_TRACE_CONTROL_STOP);
    return result == ERROR_SUCCESS ? ExitCode::kSuccess : Failed("ending the recording", result);
}

ExitCode Start(const Arguments& arguments) {
    Options options;
    if (!ParseOptions(arguments, {L"--file", L"--level", L"--flags"}, options)) return ExitCode::kUsage;
    if (!options[L""].empty()) return UsageError(L"not understood: " + options[L""]);
    ULONG level = 5;
    if (options.contains(L"--level") && (!ParseNumber(options[L"--level"], level) || level < 2 || level > 5))
        return UsageError(L"the level is 2, 3, 4 or 5");
    ULONG flags = 0xFFFFFFFF;
    if (options.contains(L"--flags") && (!ParseNumber(options[L"--flags"], flags) || flags == 0))
        return UsageError(L"the flags are a number, but 0, which would record nothing");
    // In full: every process that is traced writes into it.
    const std::wstring file =
        options.contains(L"--file") ? std::filesystem::absolute(options[L"--file"]).wstring() : DefaultFile();
    if (!options.contains(L"--file")) PrepareDefaultFile();
    SessionProperties properties(file);
    TRACEHANDLE session = 0;
    if (const ULONG result = ::StartTraceW(&session, kSessionName, &properties.head); result != ERROR_SUCCESS)
        return Failed("starting the recording", result);
    for (const GUID& guid : kControlGuids) {
        const ULONG result = ::EnableTrace(TRUE, flags, level, &guid, session);
        if (result == ERROR_SUCCESS) continue;
        Stop();
        return Failed("enabling the plug-in's trace", result);
    }
    std::printf("Recording into %s\n", Utf8(file).c_str());
    return ExitCode::kSuccess;
}

std::wstring DefaultTmfFolder() {
    const std::wstring self = windows_api::GetModuleFileNameW(nullptr);
    return self.substr(0, self.rfind(L'\\')) + L"\\tmf";
}

/// A recording does not name its build; that the formats lack some of its messages shows that it is another.
void WarnOfOtherBuild(std::size_t unknown, const std::wstring& tmfFolder) {
    std::string build = "of an unknown build";
    try {
        build = "of " + InWords(ReadTmfBuild(tmfFolder));
    } catch (const ToolError&) {
        build += ", without build.txt";
    }
    std::fprintf(stderr,
                 "tessactl: %llu messages are not known to the trace formats in %s (%s): the recording is of "
                 "another build. Name the formats that came with its plug-in with --tmf.\n",
                 static_cast<unsigned long long>(unknown), Utf8(tmfFolder).c_str(), build.c_str());
}

ExitCode DecodeRecording(const Arguments& arguments) {
    Options options;
    if (!ParseOptions(arguments, {L"--tmf", L"--format", L"--output"}, options)) return ExitCode::kUsage;
    const std::wstring format = options.contains(L"--format") ? options[L"--format"] : L"text";
    if (format != L"text" && format != L"chrome") return UsageError(L"the format is text or chrome");
    const std::wstring file = options[L""].empty() ? DefaultFile() : options[L""];
    const std::wstring tmfFolder = options.contains(L"--tmf") ? options[L"--tmf"] : DefaultTmfFolder();
    const auto catalog = TmfCatalog::FromFolder(tmfFolder);
    std::ofstream outputFile;
    if (options.contains(L"--output")) {
        outputFile.open(std::filesystem::path(options[L"--output"]), std::ios::binary);
        if (!outputFile) throw ToolError(Utf8(options[L"--output"]) + " cannot be written");
    }
    std::ostream& output = outputFile.is_open() ? outputFile : std::cout;
    ChromeTraceWriter chrome;
    ExitCode result = ExitCode::kSuccess;
    std::size_t unknown = 0;
    try {
        ReadRecording(file, [&](const RecordedMessage& message) {
            const DecodedMessage decoded = Decode(catalog, message);
            if (decoded.source.empty()) ++unknown;
            if (format == L"chrome")
                chrome.Add(message, decoded);
            else
                output << TextLine(message, decoded) << "\n";
        });
    } catch (const ToolError& error) {
        // What was read so far is written all the same.
        std::fprintf(stderr, "tessactl: %s\n", error.what());
        result = ExitCode::kFailed;
    }
    if (format == L"chrome") output << chrome.Finish();
    if (unknown != 0) WarnOfOtherBuild(unknown, tmfFolder);
    if (!output.flush()) throw ToolError("The decoded recording cannot be written whole; is the disk full?");
    return result;
}

}  // namespace

ExitCode Trace(const Arguments& arguments) {
    const std::wstring what = arguments.empty() ? L"" : arguments[0];
    if (what == L"start") return Start(arguments);
    if (what == L"stop")
        return arguments.size() == 1 ? Stop() : UsageError(L"not understood: " + arguments[1]);
    if (what == L"decode") return DecodeRecording(arguments);
    return UsageError(L"trace start, trace stop or trace decode?");
}

}  // namespace tessactl
