#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>

#include "chrome_trace.h"
#include "commands.h"
#include "function_calls.h"
#include "json.h"
#include "protected_folder.h"
#include "recording_session.h"
#include "text.h"
#include "tmf_build.h"
#include "trace_decoder.h"
#include "win_convenience.h"

namespace tessactl {
namespace {

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

ExitCode Start(Arguments arguments) {
    RecordingRequest request;
    request.isCircular = std::erase(arguments, L"--circular") > 0;
    Options options;
    if (!ParseOptions(arguments, {L"--file", L"--level", L"--flags", L"--size"}, options))
        return ExitCode::kUsage;
    if (!options[L""].empty()) return UsageError(L"not understood: " + options[L""]);
    if (options.contains(L"--level") &&
        (!ParseNumber(options[L"--level"], request.level) || request.level < 2 || request.level > 5))
        return UsageError(L"the level is 2, 3, 4 or 5");
    if (options.contains(L"--flags") &&
        (!ParseNumber(options[L"--flags"], request.flags) || request.flags == 0))
        return UsageError(L"the flags are a number, but 0, which would record nothing");
    if (options.contains(L"--size") && (!ParseNumber(options[L"--size"], request.megabytes) ||
                                        request.megabytes == 0 || request.megabytes > kMostMegabytes))
        return UsageError(L"the size is a number of megabytes, 1 to " + std::to_wstring(kMostMegabytes));
    if (request.isCircular && request.megabytes == 0)
        return UsageError(L"a circular recording needs a size, at which it begins again: --size MB");
    request.file =
        options.contains(L"--file") ? std::filesystem::absolute(options[L"--file"]).wstring() : DefaultFile();
    if (!options.contains(L"--file")) PrepareDefaultFile();
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
        JsonObject object;
        object.Add("running", running.has_value());
        if (running)
            object.Add("file", running->file)
                .Add("circular", running->isCircular)
                .Add("sizeLimitMegabytes", running->megabytes)
                .Add("buffersWritten", running->buffersWritten)
                .Add("eventsLost", running->eventsLost)
                .Add("buffersLost", running->buffersLost);
        std::printf("%s\n", object.Text().c_str());
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

ExitCode DecodeRecording(Arguments arguments) {
    const bool withFunctions = std::erase(arguments, L"--functions") > 0;
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
    FunctionCalls calls;
    ExitCode result = ExitCode::kSuccess;
    std::size_t unknown = 0;
    RecordingHead head;
    try {
        ReadRecording(file, head, [&](const RecordedMessage& message) {
            const DecodedMessage decoded = Decode(catalog, message);
            if (decoded.source.empty()) ++unknown;
            calls.Follow(message, decoded);
            if (format == L"chrome")
                chrome.Add(message, decoded);
            else
                output << TextLine(message, decoded, withFunctions) << "\n";
        });
    } catch (const ToolError& error) {
        // What was read so far is written all the same.
        std::fprintf(stderr, "tessactl: %s\n", error.what());
        result = ExitCode::kFailed;
    }
    if (format == L"chrome") output << chrome.Finish();
    if (!output.flush()) throw ToolError("The decoded recording cannot be written whole; is the disk full?");
    TellWhatIsMissing(head, calls);
    if (unknown != 0) WarnOfOtherBuild(unknown, tmfFolder);
    return result;
}

}  // namespace

ExitCode Trace(const Arguments& arguments) {
    Arguments rest = arguments;
    const std::wstring what = rest.empty() ? L"" : rest[0];
    if (what == L"start") return Start(rest);
    if (what == L"decode") return DecodeRecording(rest);
    const bool json = what == L"status" && TakeJson(rest);
    if (what != L"stop" && what != L"status")
        return UsageError(L"trace start, trace status, trace stop or trace decode?");
    if (rest.size() > 1) return UsageError(L"not understood: " + rest[1]);
    return what == L"stop" ? Stop() : RecordingStatus(json);
}

}  // namespace tessactl
