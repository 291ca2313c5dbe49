#include <windows.h>
#include <evntrace.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "commands.h"
#include "protected_folder.h"
#include "text.h"
#include "trace_decoder.h"
#include "win_convenience.h"

namespace tessactl {
namespace {

constexpr wchar_t kSessionName[] = L"tessaplug";
constexpr GUID kControlGuids[] = {
    {0xadc03568, 0x3c4e, 0x4804, {0x97, 0x10, 0x96, 0x8b, 0x39, 0x9e, 0x7f, 0x56}},
    {0xee8c6c7c, 0x3531, 0x4072, {0xa8, 0x29, 0xd7, 0x41, 0xb5, 0x89, 0xe5, 0xa2}},
};

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

struct RecordingOptions {
    std::wstring file;
    unsigned long level = 5;
    std::wstring flags = L"0xFFFFFFFF";
};

/// A number that is not 0, decimal or with 0x.
ULONG ParseFlags(const std::wstring& text) {
    wchar_t* end = nullptr;
    const unsigned long long flags = std::wcstoull(text.c_str(), &end, 0);
    const bool isNumber = text[0] >= L'0' && text[0] <= L'9' && *end == L'\0' && flags <= 0xFFFFFFFF;
    if (!isNumber || flags == 0)
        throw command_line::UsageError("the value of --flags is a number, but 0, which would record nothing");
    return static_cast<ULONG>(flags);
}

ExitCode Start(const RecordingOptions& options) {
    const ULONG flags = ParseFlags(options.flags);
    // In full: every process that is traced writes into it.
    const std::wstring file =
        options.file.empty() ? DefaultFile() : std::filesystem::absolute(options.file).wstring();
    if (options.file.empty()) PrepareDefaultFile();
    SessionProperties properties(file);
    TRACEHANDLE session = 0;
    if (const ULONG result = ::StartTraceW(&session, kSessionName, &properties.head); result != ERROR_SUCCESS)
        return Failed("starting the recording", result);
    for (const GUID& guid : kControlGuids) {
        const ULONG result = ::EnableTrace(TRUE, flags, options.level, &guid, session);
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

struct DecodingOptions {
    std::wstring file;
    std::wstring tmf;
    std::wstring format = L"text";
    std::wstring output;
};

ExitCode DecodeRecording(const DecodingOptions& options) {
    const bool isChrome = options.format == L"chrome";
    const std::wstring file = options.file.empty() ? DefaultFile() : options.file;
    const auto catalog = TmfCatalog::FromFolder(options.tmf.empty() ? DefaultTmfFolder() : options.tmf);
    std::ofstream outputFile;
    if (!options.output.empty()) {
        outputFile.open(std::filesystem::path(options.output), std::ios::binary);
        if (!outputFile) throw ToolError(Utf8(options.output) + " cannot be written");
    }
    std::ostream& output = outputFile.is_open() ? outputFile : std::cout;
    ChromeTraceWriter chrome;
    ExitCode result = ExitCode::kSuccess;
    try {
        ReadRecording(file, [&](const RecordedMessage& message) {
            if (!output) return;  // the disk is full, or the reader has gone
            const DecodedMessage decoded = Decode(catalog, message);
            if (isChrome)
                chrome.Add(message, decoded);
            else
                output << TextLine(message, decoded) << "\n";
        });
    } catch (const ToolError& error) {
        // What was read so far is written all the same.
        std::fprintf(stderr, "tessactl: %s\n", error.what());
        result = ExitCode::kFailed;
    }
    if (isChrome) output << chrome.Finish();
    // Of standard output the program looks after itself: a reader may have seen enough.
    if (outputFile.is_open() && !outputFile.flush())
        throw ToolError("The decoded recording cannot be written whole; is the disk full?");
    return result;
}

void DefineStart(command_line::Command& command, RecordingOptions& options) {
    command.Text("--file", options.file, "FILE",
                 "the recording, %ProgramData%\\Tessaplug\\tessaplug.etl unless told otherwise");
    command.Number("--level", options.level, 2, 5, "LEVEL",
                   "2 errors, 3 warnings, 4 information, 5 everything");
    command.Text("--flags", options.flags, "FLAGS",
                 "adds up 1 messages, 4 function entry and exit, 8 log-device configuration; all of them "
                 "unless told otherwise");
}

void DefineDecode(command_line::Command& command, DecodingOptions& options) {
    command.OptionalOperand("FILE", options.file,
                            "the recording, the one of trace start unless told otherwise");
    command.Text("--tmf", options.tmf, "FOLDER",
                 "the texts of the messages, tmf beside the program unless told otherwise");
    command.Choice("--format", options.format, {"text", "chrome"},
                   "lines for people, or a file for Perfetto and chrome://tracing");
    command.Text("--output", options.output, "FILE", "a file to write to instead of standard output");
}

}  // namespace

void AddTrace(command_line::Program& program) {
    program.AddFamily("trace", "records the plug-in's trace and decodes it");
    AddCommand<RecordingOptions>(program, "trace start", "starts recording the plug-in's trace", &DefineStart,
                                 &Start);
    program.Add("trace stop", "ends the recording").Runs([] { return static_cast<int>(Stop()); });
    AddCommand<DecodingOptions>(program, "trace decode", "prints a recording", &DefineDecode,
                                &DecodeRecording);
}

}  // namespace tessactl
