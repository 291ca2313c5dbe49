#include "session_list.h"

#include <cwchar>

namespace wine_gap {
namespace {

/// The registry value's texts; one for an active session if there is none.
std::vector<std::wstring> Descriptions() {
    constexpr wchar_t kValue[] = L"Sessions";
    std::vector<wchar_t> texts;
    DWORD size = 1024;
    LSTATUS result = ERROR_MORE_DATA;
    while (result == ERROR_MORE_DATA) {
        texts.assign(size / sizeof(wchar_t) + 2, L'\0');
        size = static_cast<DWORD>((texts.size() - 2) * sizeof(wchar_t));
        result = ::RegGetValueW(HKEY_LOCAL_MACHINE, kSessionKey, kValue, RRF_RT_REG_MULTI_SZ, nullptr,
                                texts.data(), &size);
        if (result == ERROR_MORE_DATA) size *= 2;
    }
    if (result != ERROR_SUCCESS) return {L"1 active"};
    std::vector<std::wstring> descriptions;
    for (const wchar_t* text = texts.data(); *text != L'\0'; text += std::wcslen(text) + 1)
        descriptions.emplace_back(text);
    return descriptions;
}

Session SessionOf(const std::wstring& description) {
    wchar_t* rest = nullptr;
    Session session = {std::wcstoul(description.c_str(), &rest, 10), WTSDisconnected, false, L""};
    const std::wstring state = rest;
    session.isLocked = state == L" locked";
    if (state == L" active" || session.isLocked) session.state = WTSActive;
    if (state == L" connected") session.state = WTSConnected;
    return session;
}

}  // namespace

std::vector<Session> Sessions() {
    std::vector<Session> sessions = {{0, WTSDisconnected, false, L"Services"}};
    bool hasConsole = false;
    for (const std::wstring& description : Descriptions()) {
        Session session = SessionOf(description);
        if (session.number == 0) continue;
        if (session.state != WTSDisconnected) {  // one that is disconnected has no window station's name
            session.name = hasConsole ? L"RDP-Tcp#" + std::to_wstring(session.number) : L"Console";
            hasConsole = true;
        }
        sessions.push_back(std::move(session));
    }
    return sessions;
}

}  // namespace wine_gap
