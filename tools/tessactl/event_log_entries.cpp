#include "event_log_entries.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "text.h"
#include "win_api.h"

namespace tessactl {
namespace {

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
    LogEntry entry{head.RecordNumber, head.TimeGenerated, head.EventType, head.EventID, {}, {}};
    DWORD offset = sizeof head;
    entry.source = TextAt(record, head.Length, offset);
    offset = head.StringOffset;
    for (WORD i = 0; i < head.NumStrings && offset < head.Length; ++i)
        entry.strings.push_back(TextAt(record, head.Length, offset));
    return entry;
}

/// Takes out what is not behind the last entry that was read. A log that was cleared may go on with its
/// numbers or begin with 1 again: what has the last one's number, and is another, tells that it did.
void DropWhatWasRead(std::vector<LogEntry>& entries, const LogEntry& last) {
    const auto found = std::ranges::find(entries, last.number, &LogEntry::number);
    if (found == entries.end() || *found != last) return;
    entries.erase(entries.begin(), found + 1);
}

}  // namespace

EventLogFollower::EventLogFollower(const std::wstring& logName, const std::wstring& source)
    : logName_(logName), source_(source), buffer_(0x10000) {}

void EventLogFollower::Open() {
    log_.reset(windows_api::Advapi32().OpenEventLogW(nullptr, logName_.c_str()));
    if (log_) return;
    const DWORD error = ::GetLastError();
    throw ToolError("The log " + Utf8(logName_) + " cannot be opened: " + ErrorInWords(error));
}

DWORD EventLogFollower::ReadOnce(std::vector<LogEntry>& entries) {
    DWORD read = 0;
    DWORD needed = 0;
    if (!windows_api::Advapi32().ReadEventLogW(log_.get(), EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ,
                                               0, buffer_.data(), static_cast<DWORD>(buffer_.size()), &read,
                                               &needed)) {
        const DWORD error = ::GetLastError();
        if (error != ERROR_INSUFFICIENT_BUFFER || needed <= buffer_.size()) return error;
        buffer_.resize(needed);
        return ERROR_SUCCESS;
    }
    for (DWORD at = 0; at + sizeof(EVENTLOGRECORD) <= read;) {
        EVENTLOGRECORD head = {};
        std::memcpy(&head, buffer_.data() + at, sizeof head);
        if (head.Length < sizeof head || head.Length > read - at) break;
        entries.push_back(EntryFrom(buffer_.data() + at, head));
        at += head.Length;
    }
    return ERROR_SUCCESS;
}

std::vector<LogEntry> EventLogFollower::ReadNew() {
    std::vector<LogEntry> entries;
    DWORD error = ERROR_SUCCESS;
    bool isAgain = false;  // what was read before comes once more
    // A log that was cleared, or whose service was started again, is opened anew, once.
    for (int attempt = 0; attempt < 2 && error != ERROR_HANDLE_EOF; ++attempt) {
        if (!log_) {
            Open();
            isAgain = last_.has_value();
            entries.clear();
        }
        do
            error = ReadOnce(entries);
        while (error == ERROR_SUCCESS);
        if (error != ERROR_HANDLE_EOF) log_.reset();
    }
    if (error != ERROR_HANDLE_EOF)
        throw ToolError("The log " + Utf8(logName_) + " cannot be read: " + ErrorInWords(error));
    if (isAgain) DropWhatWasRead(entries, *last_);
    if (!entries.empty()) last_ = entries.back();
    std::erase_if(entries, [this](const LogEntry& entry) { return entry.source != source_; });
    return entries;
}

std::vector<LogEntry> ReadEntries(const std::wstring& logName, const std::wstring& source) {
    return EventLogFollower(logName, source).ReadNew();
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
