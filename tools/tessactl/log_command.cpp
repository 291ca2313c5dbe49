#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "json.h"
#include "text.h"
#include "tmf_catalog.h"
#include "unique_handle.h"
#include "win_api.h"

namespace tessactl {
namespace {

using UniqueEventLog = UniqueHandle<HANDLE, [](HANDLE log) { ::CloseEventLog(log); }>;

/// One entry as it is printed.
struct Entry {
    DWORD time = 0;  // seconds since 1970 UTC
    WORD type = 0;
    DWORD eventId = 0;
    std::wstring source;
    std::vector<std::wstring> strings;
};

/// The zero-terminated text at an offset of a record; empty if it does not end within the record.
std::wstring TextAt(const BYTE* record, DWORD length, DWORD& offset) {
    std::wstring text;
    for (; offset + sizeof(wchar_t) <= length; offset += sizeof(wchar_t)) {
        wchar_t c = 0;
        std::memcpy(&c, record + offset, sizeof c);
        if (c != L'\0') {
            text += c;
            continue;
        }
        offset += sizeof(wchar_t);
        return text;
    }
    return {};
}

Entry EntryFrom(const BYTE* record, const EVENTLOGRECORD& head) {
    Entry entry{head.TimeGenerated, head.EventType, head.EventID, {}, {}};
    DWORD offset = sizeof head;
    entry.source = TextAt(record, head.Length, offset);
    offset = head.StringOffset;
    for (WORD i = 0; i < head.NumStrings && offset < head.Length; ++i)
        entry.strings.push_back(TextAt(record, head.Length, offset));
    return entry;
}

/// All entries of one source, oldest first.
std::vector<Entry> ReadEntries(const std::wstring& logName, const std::wstring& source) {
    windows_api::Advapi32 advapi32;
    const UniqueEventLog log(advapi32.OpenEventLogW(nullptr, logName.c_str()));
    if (!log)
        throw ToolError("The log " + Utf8(logName) + " cannot be opened, error " +
                        std::to_string(::GetLastError()));
    std::vector<Entry> entries;
    std::vector<BYTE> buffer(0x10000);
    for (;;) {
        DWORD read = 0;
        DWORD needed = 0;
        if (!advapi32.ReadEventLogW(log.get(), EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ, 0,
                                    buffer.data(), static_cast<DWORD>(buffer.size()), &read, &needed)) {
            const DWORD error = ::GetLastError();
            if (error == ERROR_HANDLE_EOF) return entries;
            if (error != ERROR_INSUFFICIENT_BUFFER || needed <= buffer.size())
                throw ToolError("The log " + Utf8(logName) + " cannot be read, error " +
                                std::to_string(error));
            buffer.resize(needed);
            continue;
        }
        for (DWORD at = 0; at + sizeof(EVENTLOGRECORD) <= read;) {
            EVENTLOGRECORD head = {};
            std::memcpy(&head, buffer.data() + at, sizeof head);
            if (head.Length < sizeof head || head.Length > read - at) break;
            Entry entry = EntryFrom(buffer.data() + at, head);
            if (entry.source == source) entries.push_back(std::move(entry));
            at += head.Length;
        }
    }
}

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

std::wstring Sentence(HMODULE messages, const Entry& entry) {
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

std::string LocalTimeText(DWORD seconds) {
    const __time64_t time = seconds;
    tm local = {};
    ::_localtime64_s(&local, &time);
    char text[32] = {};
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

}  // namespace

ExitCode Log(const Arguments& arguments) {
    std::wstring source = L"tessaplug";
    std::wstring logName = L"Application";
    bool json = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const bool hasValue = i + 1 < arguments.size();
        if (arguments[i] == L"--json")
            json = true;
        else if (arguments[i] == L"--source" && hasValue)
            source = arguments[++i];
        else if (arguments[i] == L"--log" && hasValue)
            logName = arguments[++i];
        else
            return UsageError(L"not understood: " + arguments[i]);
    }
    const UniqueModule messages(::LoadLibraryExW(MessageFileOf(logName, source).c_str(), nullptr,
                                                 LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
    const auto entries = ReadEntries(logName, source);
    std::vector<std::string> elements;
    for (const Entry& entry : entries) {
        const std::wstring sentence = Sentence(messages.get(), entry);
        if (json)
            elements.push_back(JsonObject()
                                   .Add("time", LocalTimeText(entry.time))
                                   .Add("type", TypeName(entry.type))
                                   .Add("id", entry.eventId)
                                   .Add("text", sentence)
                                   .Text());
        else
            std::printf("%s  %-11s  0x%08lX  %s\n", LocalTimeText(entry.time).c_str(), TypeName(entry.type),
                        entry.eventId, Utf8(sentence).c_str());
    }
    if (json) std::printf("%s\n", JsonArray(elements).c_str());
    return ExitCode::kSuccess;
}

}  // namespace tessactl
