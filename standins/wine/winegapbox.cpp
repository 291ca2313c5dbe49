#include <windows.h>

#include <algorithm>
#include <string>

#include "message_box_request.h"
#include "session_list.h"

// Shows one message box in one session; see message_box_request.h. All sessions have the one display of the
// machine: the box appears there while its session is active and not locked, and waits for that, as nobody
// sees a box of a session that he is not in. Once it has appeared it stays.
namespace {

using wine_gap::MessageBoxRequest;

bool Read(void* buffer, std::size_t size) {
    DWORD read = 0;
    return ::ReadFile(::GetStdHandle(STD_INPUT_HANDLE), buffer, static_cast<DWORD>(size), &read, nullptr) &&
           read == size;
}

bool ReadText(std::wstring& text, DWORD length) {
    text.resize(length);
    return length == 0 || Read(text.data(), length * sizeof(wchar_t));
}

/// What the watcher works with.
struct Watch {
    DWORD session;
    DWORD timeout;
    HANDLE attended;  ///< set once somebody sees the session
};

/// Ends the program when the session ends, or the time is over.
DWORD WINAPI WatchSession(void* parameter) {
    const auto& watch = *static_cast<const Watch*>(parameter);
    const ULONGLONG deadline = ::GetTickCount64() + watch.timeout * ULONGLONG{1000};
    HKEY key = nullptr;
    ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, wine_gap::kSessionKey, 0, nullptr, 0, KEY_READ, nullptr, &key,
                      nullptr);
    const HANDLE changed = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    for (;;) {
        ::RegNotifyChangeKeyValue(key, FALSE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET, changed,
                                  TRUE);
        const auto sessions = wine_gap::Sessions();
        const auto session = std::ranges::find(sessions, watch.session, &wine_gap::Session::number);
        if (session == sessions.end()) ::ExitProcess(0);
        if (session->IsAttended()) ::SetEvent(watch.attended);
        const ULONGLONG now = ::GetTickCount64();
        if (watch.timeout != 0 && now >= deadline) ::ExitProcess(wine_gap::kTimedOut);
        ::WaitForSingleObject(changed, watch.timeout != 0 ? static_cast<DWORD>(deadline - now) : INFINITE);
    }
}

}  // namespace

int wmain() {
    MessageBoxRequest request = {};
    std::wstring title;
    std::wstring message;
    if (!Read(&request, sizeof request) || !ReadText(title, request.titleLength) ||
        !ReadText(message, request.messageLength))
        return 0;
    Watch watch = {request.session, request.timeout, ::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    const HANDLE watcher = ::CreateThread(nullptr, 0, &WatchSession, &watch, 0, nullptr);
    if (watcher == nullptr) return 0;
    ::CloseHandle(watcher);
    ::WaitForSingleObject(watch.attended, INFINITE);
    return ::MessageBoxW(nullptr, message.c_str(), title.c_str(),
                         request.style | MB_SETFOREGROUND | MB_TOPMOST);
}
