#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "chrome_trace.h"
#include "commands.h"
#include "function_calls.h"
#include "json.h"
#include "progress.h"
#include "protected_folder.h"
#include "recording_session.h"
#include "text.h"
#include "tmf_build.h"
#include "trace_decoder.h"
#include "win_convenience.h"

namespace tessactl {
namespace {

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

struct RecordingOptions {
    std::wstring file;
    unsigned long level = 5;
    std::wstring flags = L"0xFFFFFFFF";
    unsigned long megabytes = 0;  // no limit
    bool isCircular = false;
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
    RecordingRequest request;
    request.flags = ParseFlags(options.flags);
    request.level = options.level;
    request.megabytes = options.megabytes;
    request.isCircular = options.isCircular;
    if (request.isCircular && request.megabytes == 0)
        throw command_line::UsageError(
            "a circular recording needs a size, at which it begins again: --size MB");
    // In full: every process that is traced writes into it.
    request.file = options.file.empty() ? DefaultFile() : std::filesystem::absolute(options.file).wstring();
    if (options.file.empty()) PrepareDefaultFile();
    StartRecording(request);
    std::printf("Recording into %s\n", Utf8(request.file).c_str());
    return ExitCode::kSuccess;
}

ExitCode Stop() {
    const auto ended = StopRecording();
    if (!ended)
        throw ToolError("no recording is running; one that reaches the limit of its size ends by itself.");
    std::printf("Recorded into %s; %s.\n", Utf8(ended->file).c_str(),
                LossesInWords(ended->eventsLost, ended->buffersLost).c_str());
    return ExitCode::kSuccess;
}

ExitCode RecordingStatus(bool json) {
    const auto running = RunningRecording();
    if (json) {
        Json object = {{"schema", 1}, {"running", running.has_value()}};
        if (running)
            object.update({{"file", Utf8(running->file)},
                           {"circular", running->isCircular},
                           {"sizeLimitMegabytes", running->megabytes},
                           {"buffersWritten", running->buffersWritten},
                           {"eventsLost", running->eventsLost},
                           {"buffersLost", running->buffersLost}});
        std::printf("%s\n", JsonText(object).c_str());
        return ExitCode::kSuccess;
    }
    if (!running) {
        std::printf("No recording is running.\n");
        return ExitCode::kSuccess;
    }
    const std::string limit = running->megabytes == 0 ? "none" : std::to_string(running->megabytes) + " MB";
    std::printf("recording into   %s\n", Utf8(running->file).c_str());
    std::printf("size limit       %s%s\n", limit.c_str(),
                running->isCircular       ? ", circular: the oldest messages go"
                : running->megabytes != 0 ? ", at which it ends"
                                          : "");
    std::printf("buffers written  %lu\n", running->buffersWritten);
    std::printf("losses           %s\n", LossesInWords(running->eventsLost, running->buffersLost).c_str());
    std::printf("It goes on, whoever started it, until \"tessactl trace stop\".\n");
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

/// Behind the messages, and never between them: on standard error.
void TellWhatIsMissing(const RecordingHead& head, const FunctionCalls& calls) {
    if (head.eventsLost > 0 || head.buffersLost > 0)
        std::fprintf(stderr, "tessactl: %s while this was recorded; they are missing above.\n",
                     LossesInWords(head.eventsLost, head.buffersLost).c_str());
    if (head.BuffersReplaced() > 0)
        std::fprintf(stderr,
                     "tessactl: the recording is circular and was full: of %lu buffers the oldest %lu were "
                     "written over.\n",
                     head.buffersWritten, head.BuffersReplaced());
    if (calls.ExitsWithoutEntry() > 0 || calls.EntriesWithoutExit() > 0)
        std::fprintf(stderr,
                     "tessactl: functions that were left but not entered in the recording: %zu; entered but "
                     "not left: %zu.\n",
                     calls.ExitsWithoutEntry(), calls.EntriesWithoutExit());
}

struct DecodingOptions {
    std::wstring file;
    std::wstring tmf;
    std::wstring format = L"text";
    std::wstring output;
    bool withFunctions = false;
};

ExitCode DecodeRecording(const DecodingOptions& options) {
    const bool isChrome = options.format == L"chrome";
    const std::wstring file = options.file.empty() ? DefaultFile() : options.file;
    const std::wstring tmfFolder = options.tmf.empty() ? DefaultTmfFolder() : options.tmf;
    const auto catalog = TmfCatalog::FromFolder(tmfFolder);
    std::ofstream outputFile;
    if (!options.output.empty()) {
        outputFile.open(std::filesystem::path(options.output), std::ios::binary);
        if (!outputFile) throw ToolError(Utf8(options.output) + " cannot be written");
    }
    std::ostream& output = outputFile.is_open() ? outputFile : std::cout;
    ChromeTraceWriter chrome;
    FunctionCalls calls;
    ExitCode result = ExitCode::kSuccess;
    std::size_t unknown = 0;
    RecordingHead head;
    const auto useMessage = [&](const RecordedMessage& message) {
        if (!output) return;  // the disk is full, or the reader has gone
        const DecodedMessage decoded = Decode(catalog, message);
        if (decoded.source.empty()) ++unknown;
        calls.Follow(message, decoded);
        if (isChrome)
            chrome.Add(message, decoded);
        else
            output << TextLine(message, decoded, options.withFunctions) << "\n";
    };
    try {
        const bool printsText = !isChrome && options.output.empty();
        Progress progress(ProgressTerminal(printsText));
        ReadRecording(file, head, useMessage, [&](unsigned int percent) {
            progress.Tell("trace decode: " + std::to_string(percent) + " % of the file");
            return static_cast<bool>(output);
        });
    } catch (const ToolError& error) {
        // What was read so far is written all the same.
        std::fprintf(stderr, "tessactl: %s\n", error.what());
        result = ExitCode::kFailed;
    }
    if (isChrome) chrome.Finish(output);
    output.flush();
    // Of standard output the program looks after itself: a reader may have seen enough.
    if (outputFile.is_open() && !outputFile)
        throw ToolError("The decoded recording cannot be written whole; is the disk full?");
    TellWhatIsMissing(head, calls);
    if (unknown != 0) WarnOfOtherBuild(unknown, tmfFolder);
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
    command.Number("--size", options.megabytes, 1, kMostMegabytes, "MB",
                   "the size at which the recording ends");
    command.Switch("--circular", options.isCircular, "at its size the oldest messages go instead");
}

void DefineDecode(command_line::Command& command, DecodingOptions& options) {
    command.OptionalOperand("FILE", options.file,
                            "the recording, the one of trace start unless told otherwise");
    command.Text("--tmf", options.tmf, "FOLDER",
                 "the texts of the messages, tmf beside the program unless told otherwise");
    command.Choice("--format", options.format, {"text", "chrome"},
                   "lines for people, or a file for Perfetto and chrome://tracing");
    command.Text("--output", options.output, "FILE", "a file to write to instead of standard output");
    command.Switch("--functions", options.withFunctions, "names the function of each message");
}

struct StatusOptions {
    bool json = false;
};

}  // namespace

void AddTrace(command_line::Program& program) {
    program.AddFamily("trace", "records the plug-in's trace and decodes it");
    AddCommand<RecordingOptions>(program, "trace start", "starts recording the plug-in's trace", &DefineStart,
                                 &Start);
    AddCommand<StatusOptions>(
        program, "trace status", "shows whether a recording runs, and what it has lost",
        [](command_line::Command& command, StatusOptions& options) {
            command.Switch("--json", options.json, "as JSON");
        },
        [](const StatusOptions& options) { return RecordingStatus(options.json); });
    program.Add("trace stop", "ends the recording").Runs([] { return static_cast<int>(Stop()); });
    AddCommand<DecodingOptions>(program, "trace decode", "prints a recording", &DefineDecode,
                                &DecodeRecording);
}

}  // namespace tessactl
