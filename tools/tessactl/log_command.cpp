#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "event_log_entries.h"
#include "json.h"
#include "text.h"
#include "unique_handle.h"

namespace tessactl {
namespace {

/// The file that holds the source's sentences, as it is registered; empty if it is not.
std::wstring MessageFileOf(const std::wstring& logName, const std::wstring& source) {
    wchar_t file[1024] = {};
    DWORD size = sizeof file - sizeof(wchar_t);
    const std::wstring key = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\" + logName + L"\\" + source;
    // Asked for as text, a value with variables comes back with them filled in.
    const LSTATUS result = ::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"EventMessageFile", RRF_RT_REG_SZ,
                                          nullptr, file, &size);
    return result == ERROR_SUCCESS ? file : L"";
}

std::wstring Sentence(HMODULE messages, const LogEntry& entry) {
    if (messages != nullptr) {
        std::vector<DWORD_PTR> inserts;
        for (const std::wstring& text : entry.strings)
            inserts.push_back(reinterpret_cast<DWORD_PTR>(text.c_str()));
        inserts.resize(99);  // whatever the sentence refers to
        wchar_t* text = nullptr;
        const DWORD flags =
            FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_HMODULE |
            (entry.strings.empty() ? FORMAT_MESSAGE_IGNORE_INSERTS : FORMAT_MESSAGE_ARGUMENT_ARRAY);
        const DWORD length =
            ::FormatMessageW(flags, messages, entry.eventId, 0, reinterpret_cast<wchar_t*>(&text), 0,
                             reinterpret_cast<va_list*>(inserts.data()));
        const std::unique_ptr<wchar_t, decltype(&::LocalFree)> owner(text, &::LocalFree);
        if (length > 0) {
            std::wstring sentence(text, length);
            while (sentence.ends_with(L'\n') || sentence.ends_with(L'\r'))
                sentence.pop_back();
            return sentence;
        }
    }
    return L"(the sentence for this event is not installed)";
}

const char* TypeName(WORD type) {
    switch (type) {
        case EVENTLOG_ERROR_TYPE:
            return "error";
        case EVENTLOG_WARNING_TYPE:
            return "warning";
        case EVENTLOG_INFORMATION_TYPE:
            return "information";
        default:
            return "other";
    }
}

struct Options {
    std::wstring source = L"tessaplug";
    std::wstring logName = L"Application";
    bool json = false;
};

ExitCode Log(const Options& options) {
    const UniqueModule messages(::LoadLibraryExW(MessageFileOf(options.logName, options.source).c_str(),
                                                 nullptr,
                                                 LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
    const auto entries = ReadEntries(options.logName, options.source);
    Json elements = Json::array();
    for (const LogEntry& entry : entries) {
        const std::wstring sentence = Sentence(messages.get(), entry);
        if (options.json)
            elements.push_back({{"time", LocalTimeText(entry.time)},
                                {"type", TypeName(entry.type)},
                                {"id", entry.eventId},
                                {"text", Utf8(sentence)}});
        else
            std::printf("%s  %-11s  0x%08lX  %s\n", LocalTimeText(entry.time).c_str(), TypeName(entry.type),
                        entry.eventId, Utf8(sentence).c_str());
    }
    if (options.json) std::printf("%s\n", JsonLines(elements).c_str());
    return ExitCode::kSuccess;
}

}  // namespace

void AddLog(command_line::Program& program) {
    const auto define = [](command_line::Command& command, Options& options) {
        command.Text("--source", options.source, "NAME", "whose entries, tessaplug unless told otherwise");
        command.Text("--log", options.logName, "NAME", "of which log, Application unless told otherwise");
        command.Switch("--json", options.json, "as JSON");
    };
    AddCommand<Options>(program, "log", "shows the plug-in's entries of the Application log as sentences",
                        define, &Log);
}

}  // namespace tessactl
