#include "event_log_entries.h"

#include <cstring>
#include <ctime>

#include "text.h"
#include "unique_handle.h"
#include "win_api.h"

namespace tessactl {
namespace {

using UniqueEventLog = UniqueHandle<HANDLE, [](HANDLE log) { ::CloseEventLog(log); }>;

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

LogEntry EntryFrom(const BYTE* record, const EVENTLOGRECORD& head) {
    LogEntry entry{head.TimeGenerated, head.EventType, head.EventID, {}, {}};
    DWORD offset = sizeof head;
    entry.source = TextAt(record, head.Length, offset);
    offset = head.StringOffset;
    for (WORD i = 0; i < head.NumStrings && offset < head.Length; ++i)
        entry.strings.push_back(TextAt(record, head.Length, offset));
    return entry;
}

}  // namespace

std::vector<LogEntry> ReadEntries(const std::wstring& logName, const std::wstring& source) {
    windows_api::Advapi32 advapi32;
    const UniqueEventLog log(advapi32.OpenEventLogW(nullptr, logName.c_str()));
    if (!log) {
        const DWORD error = ::GetLastError();
        throw ToolError("The log " + Utf8(logName) + " cannot be opened: " + ErrorInWords(error));
    }
    std::vector<LogEntry> entries;
    std::vector<BYTE> buffer(0x10000);
    for (;;) {
        DWORD read = 0;
        DWORD needed = 0;
        if (!advapi32.ReadEventLogW(log.get(), EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ, 0,
                                    buffer.data(), static_cast<DWORD>(buffer.size()), &read, &needed)) {
            const DWORD error = ::GetLastError();
            if (error == ERROR_HANDLE_EOF) return entries;
            if (error != ERROR_INSUFFICIENT_BUFFER || needed <= buffer.size())
                throw ToolError("The log " + Utf8(logName) + " cannot be read: " + ErrorInWords(error));
            buffer.resize(needed);
            continue;
        }
        for (DWORD at = 0; at + sizeof(EVENTLOGRECORD) <= read;) {
            EVENTLOGRECORD head = {};
            std::memcpy(&head, buffer.data() + at, sizeof head);
            if (head.Length < sizeof head || head.Length > read - at) break;
            LogEntry entry = EntryFrom(buffer.data() + at, head);
            if (entry.source == source) entries.push_back(std::move(entry));
            at += head.Length;
        }
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

}  // namespace tessactl
