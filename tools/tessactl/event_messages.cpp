#include "event_messages.h"

#include <algorithm>
#include <cwchar>
#include <memory>
#include <utility>

namespace tessactl {
namespace {

/// The text up to its terminating zero, as the system wrote it into a longer buffer.
std::wstring UpToItsEnd(std::wstring text) {
    text.resize(std::wcslen(text.c_str()));
    return text;
}

/// The value as it stands in the registry, with its variables; empty if there is none.
std::wstring RegisteredFiles(const std::wstring& logName, const std::wstring& source) {
    const std::wstring key = L"SYSTEM\\CurrentControlSet\\Services\\Eventlog\\" + logName + L"\\" + source;
    constexpr DWORD kFlags = RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND;
    std::wstring value(MAX_PATH, L'\0');
    for (;;) {
        DWORD size = static_cast<DWORD>(value.size() * sizeof(wchar_t));
        const LSTATUS result = ::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"EventMessageFile", kFlags,
                                              nullptr, value.data(), &size);
        if (result == ERROR_SUCCESS) return UpToItsEnd(std::move(value));
        if (result != ERROR_MORE_DATA) return {};
        value.resize(2 * value.size());
    }
}

std::wstring WithVariablesFilledIn(const std::wstring& text) {
    const DWORD length = ::ExpandEnvironmentStringsW(text.c_str(), nullptr, 0);
    std::wstring expanded(length, L'\0');
    if (length == 0 || ::ExpandEnvironmentStringsW(text.c_str(), expanded.data(), length) == 0) return text;
    return UpToItsEnd(std::move(expanded));
}

std::wstring Trimmed(const std::wstring& text) {
    const std::size_t from = text.find_first_not_of(L' ');
    return from == std::wstring::npos ? L"" : text.substr(from, text.find_last_not_of(L' ') - from + 1);
}

/// Empty if the file has no sentence for the entry.
std::wstring SentenceIn(HMODULE file, const LogEntry& entry) {
    constexpr std::size_t kMostInserts = 99;  // whatever the sentence refers to
    std::vector<DWORD_PTR> inserts;
    for (const std::wstring& text : entry.strings)
        inserts.push_back(reinterpret_cast<DWORD_PTR>(text.c_str()));
    inserts.resize(kMostInserts);
    wchar_t* text = nullptr;
    const DWORD flags =
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_HMODULE |
        (entry.strings.empty() ? FORMAT_MESSAGE_IGNORE_INSERTS : FORMAT_MESSAGE_ARGUMENT_ARRAY);
    const DWORD length = ::FormatMessageW(flags, file, entry.eventId, 0, reinterpret_cast<wchar_t*>(&text), 0,
                                          reinterpret_cast<va_list*>(inserts.data()));
    const std::unique_ptr<wchar_t, decltype(&::LocalFree)> owner(text, &::LocalFree);
    std::wstring sentence(text != nullptr ? text : L"", length);
    while (sentence.ends_with(L'\n') || sentence.ends_with(L'\r'))
        sentence.pop_back();
    return sentence;
}

}  // namespace

std::vector<std::wstring> MessageFilesFrom(const std::wstring& value) {
    std::vector<std::wstring> files;
    for (std::size_t at = 0; at <= value.length();) {
        const std::size_t end = std::min(value.find(L';', at), value.length());
        const std::wstring file = Trimmed(value.substr(at, end - at));
        if (!file.empty()) files.push_back(WithVariablesFilledIn(file));
        at = end + 1;
    }
    return files;
}

EventMessages::EventMessages(const std::wstring& logName, const std::wstring& source) {
    for (const std::wstring& file : MessageFilesFrom(RegisteredFiles(logName, source))) {
        UniqueModule module(::LoadLibraryExW(file.c_str(), nullptr,
                                             LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
        if (module) files_.push_back(std::move(module));
    }
}

std::wstring EventMessages::Sentence(const LogEntry& entry) const {
    for (const UniqueModule& file : files_)
        if (std::wstring sentence = SentenceIn(file.get(), entry); !sentence.empty()) return sentence;
    std::wstring text = L"(the sentence for this event is not installed)";
    for (std::size_t i = 0; i < entry.strings.size(); ++i)
        text += (i == 0 ? L" " : L"; ") + entry.strings[i];
    return text;
}

}  // namespace tessactl
