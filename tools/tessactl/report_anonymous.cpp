#include "report_anonymous.h"

#include <windows.h>

#include <algorithm>

#include "unique_handle.h"

namespace tessactl {
namespace {

constexpr wchar_t kUser[] = L"<user>";
constexpr wchar_t kComputer[] = L"<computer>";
constexpr wchar_t kAccount[] = L"<account>";

/// Members whose values are words of this program: a user may be called "hidden".
constexpr const char* kOwnWords[] = {"kind", "role", "road", "start", "state", "type"};

bool IsSame(const wchar_t* a, const wchar_t* b, std::size_t length) {
    return ::CompareStringOrdinal(a, static_cast<int>(length), b, static_cast<int>(length), TRUE) ==
           CSTR_EQUAL;
}

bool HasAt(const std::wstring& text, std::size_t at, const std::wstring& word) {
    return text.length() - at >= word.length() && IsSame(text.c_str() + at, word.c_str(), word.length());
}

/// Part of a word; everything beyond ASCII counts as a letter.
bool IsLetter(wchar_t c) {
    return (c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || c > 0x7F;
}

bool IsWholeWord(const std::wstring& text, std::size_t at, std::size_t length) {
    return (at == 0 || !IsLetter(text[at - 1])) &&
           (at + length == text.length() || !IsLetter(text[at + length]));
}

/// Replaces what stands behind a word, up to the next character that no name of a file has.
std::wstring WithoutPartBehind(const std::wstring& text, const std::wstring& word, const wchar_t* replacement,
                               const std::vector<std::wstring>& kept) {
    std::wstring result;
    for (std::size_t at = 0; at < text.length();) {
        if (!HasAt(text, at, word)) {
            result += text[at++];
            continue;
        }
        result.append(text, at, word.length());
        at += word.length();
        const std::size_t end = std::min(text.find_first_of(L"\\/\":*?|<>;,'\r\n", at), text.length());
        const std::wstring part = text.substr(at, end - at);
        const bool isKept = part.empty() || std::ranges::any_of(kept, [&](const std::wstring& name) {
                                return name.length() == part.length() && HasAt(part, 0, name);
                            });
        result += isKept ? part : replacement;
        at = end;
    }
    return result;
}

/// "S-1-5-21-..." of accounts of a machine or domain; those of the system are the same everywhere.
std::wstring WithoutIdentifiers(const std::wstring& text) {
    std::wstring result = text;
    for (const wchar_t* begin : {L"S-1-5-21-", L"S-1-12-1-"})
        for (std::size_t at = result.find(begin); at != std::wstring::npos; at = result.find(begin, at)) {
            const std::size_t end =
                std::min(result.find_first_not_of(L"0123456789-", at + 1), result.length());
            result.replace(at, end - at, kAccount);
        }
    return result;
}

std::wstring Environment(const wchar_t* name) {
    wchar_t value[512] = {};
    const DWORD length = ::GetEnvironmentVariableW(name, value, ARRAYSIZE(value));
    return length < ARRAYSIZE(value) ? std::wstring(value, length) : L"";
}

void AddComputerName(PrivateNames& names, COMPUTER_NAME_FORMAT format) {
    wchar_t name[512] = {};
    DWORD length = ARRAYSIZE(name);
    if (::GetComputerNameExW(format, name, &length)) names.computers.emplace_back(name, length);
}

/// Profiles of the system's accounts are no users'.
bool IsUserIdentifier(const std::wstring& identifier) {
    return identifier.starts_with(L"S-1-5-21-") || identifier.starts_with(L"S-1-12-1-");
}

void AddProfiles(PrivateNames& names) {
    constexpr wchar_t kList[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
    HKEY opened = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kList, 0, KEY_READ, &opened) != ERROR_SUCCESS) return;
    const UniqueHandle<HKEY, [](HKEY key) { ::RegCloseKey(key); }> list(opened);
    wchar_t identifier[256] = {};
    for (DWORD i = 0, length = ARRAYSIZE(identifier);
         ::RegEnumKeyExW(list.get(), i, identifier, &length, nullptr, nullptr, nullptr, nullptr) ==
         ERROR_SUCCESS;
         ++i, length = ARRAYSIZE(identifier)) {
        wchar_t folder[1024] = {};
        DWORD size = sizeof folder;
        // Asked for as text, a folder with variables comes back with them filled in; asked for as what it is
        // it would be refused.
        if (!IsUserIdentifier(identifier) ||
            ::RegGetValueW(list.get(), identifier, L"ProfileImagePath", RRF_RT_REG_SZ, nullptr, folder,
                           &size) != ERROR_SUCCESS)
            continue;
        const std::wstring path = folder;
        names.users.push_back(path.substr(path.rfind(L'\\') + 1));
    }
}

}  // namespace

PrivateNames NamesOnThisMachine() {
    PrivateNames names;
    for (const COMPUTER_NAME_FORMAT format :
         {ComputerNameNetBIOS, ComputerNameDnsHostname, ComputerNameDnsDomain, ComputerNameDnsFullyQualified})
        AddComputerName(names, format);
    names.computers.push_back(Environment(L"COMPUTERNAME"));
    names.computers.push_back(Environment(L"USERDOMAIN"));
    names.users.push_back(Environment(L"USERNAME"));
    AddProfiles(names);
    return names;
}

void AddAccount(PrivateNames& names, const std::wstring& account) {
    const std::size_t backslash = account.find(L'\\');
    const std::size_t at = account.find(L'@');
    const std::wstring domain = backslash != std::wstring::npos ? account.substr(0, backslash) : L".";
    if (domain == L"NT AUTHORITY" || domain == L"NT SERVICE" || account == L"LocalSystem") return;
    if (at != std::wstring::npos) {
        names.users.push_back(account.substr(0, at));
        names.computers.push_back(account.substr(at + 1));
        return;
    }
    if (domain != L".") names.computers.push_back(domain);
    names.users.push_back(backslash == std::wstring::npos ? account : account.substr(backslash + 1));
}

Anonymiser::Anonymiser(PrivateNames names) {
    for (std::wstring& name : names.computers)
        if (!name.empty()) names_.push_back({std::move(name), kComputer});
    for (std::wstring& name : names.users)
        if (!name.empty()) names_.push_back({std::move(name), kUser});
    // "STATION.plant" before "STATION".
    std::ranges::sort(names_, std::ranges::greater(), [](const Name& name) { return name.text.length(); });
}

std::wstring Anonymiser::WithoutNames(const std::wstring& text) const {
    std::wstring result;
    for (std::size_t at = 0; at < text.length();) {
        const auto found = std::ranges::find_if(names_, [&](const Name& name) {
            return HasAt(text, at, name.text) && IsWholeWord(text, at, name.text.length());
        });
        result += found == names_.end() ? std::wstring(1, text[at]) : found->replacement;
        at += found == names_.end() ? 1 : found->text.length();
    }
    return result;
}

std::string Anonymiser::Without(const std::string& text) const {
    static const std::vector<std::wstring> kNobody = {L"Public", L"Default", L"All Users", L"Default User",
                                                      kUser};
    static const std::vector<std::wstring> kNoServer = {L".", L"?", kComputer};
    std::wstring wide = WithoutIdentifiers(WithoutNames(Widened(text, CP_UTF8)));
    for (const wchar_t* profiles : {L"\\users\\", L"/users/", L"\\documents and settings\\"})
        wide = WithoutPartBehind(wide, profiles, kUser, kNobody);
    wide = WithoutPartBehind(wide, L"\\\\", kComputer, kNoServer);
    return Utf8(wide);
}

void Anonymiser::Apply(Json& json) const {
    if (json.is_string()) {
        json = Without(json.get<std::string>());
        return;
    }
    if (json.is_object()) {
        for (auto& [name, value] : json.items())
            if (!value.is_string() || std::ranges::find(kOwnWords, name) == std::end(kOwnWords)) Apply(value);
        return;
    }
    if (json.is_array())
        for (Json& element : json)
            Apply(element);
}

}  // namespace tessactl
