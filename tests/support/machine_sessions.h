#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace test_support {

/// Sessions that the machine has in the lifetime of this object, e.g. {L"1 locked", L"2 disconnected"}; what
/// can be said of one stands in standins/wine/session_list.h.
class MachineSessions {
  public:
    explicit MachineSessions(const std::vector<std::wstring>& sessions) { Become(sessions); }
    ~MachineSessions() { ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kKey, kValue); }
    MachineSessions(const MachineSessions&) = delete;
    MachineSessions& operator=(const MachineSessions&) = delete;

    void Become(const std::vector<std::wstring>& sessions) const {
        std::wstring texts;
        for (const std::wstring& session : sessions)
            texts += session + L'\0';
        texts += L'\0';
        ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, kValue, REG_MULTI_SZ, texts.data(),
                          static_cast<DWORD>(texts.size() * sizeof(wchar_t)));
    }

  private:
    static constexpr wchar_t kKey[] = L"SOFTWARE\\winegap";
    static constexpr wchar_t kValue[] = L"Sessions";
};

}  // namespace test_support
