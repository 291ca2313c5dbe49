#include <windows.h>
#include <wtsapi32.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "message_box_request.h"
#include "wine_gap.h"

// The sessions of the machine and a message box in one of them. Wine has one desktop: whichever session is
// meant, the box appears on the display of the machine, shown by a program of its own, as the caller may be a
// service.
//
// The sessions are those of the registry value HKEY_LOCAL_MACHINE\SOFTWARE\winegap, Sessions, one text for
// each in the form "1 active" or "2 disconnected"; without it there is one, number 1, active.
namespace wine_gap {
namespace {

constexpr DWORD kTimedOut = 32000;      // IDTIMEOUT
constexpr DWORD kNotWaitedFor = 32001;  // IDASYNC

struct HandleCloser {
    void operator()(HANDLE handle) const { ::CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, HandleCloser>;

decltype(&::WTSFreeMemory) originalFree = nullptr;

std::mutex lock;  // guards the lists that were handed out
std::vector<std::unique_ptr<WTS_SESSION_INFOW[]>> handedOut;
wchar_t consoleName[] = L"Console";

std::vector<WTS_SESSION_INFOW> Sessions() {
    wchar_t texts[1024] = {};
    DWORD size = sizeof texts - sizeof(wchar_t);
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\winegap", L"Sessions", RRF_RT_REG_MULTI_SZ, nullptr,
                       texts, &size) != ERROR_SUCCESS)
        return {{1, consoleName, WTSActive}};
    std::vector<WTS_SESSION_INFOW> sessions;
    for (const wchar_t* text = texts; *text != L'\0'; text += std::wcslen(text) + 1) {
        wchar_t* state = nullptr;
        const DWORD number = std::wcstoul(text, &state, 10);
        sessions.push_back(
            {number, consoleName, std::wcscmp(state, L" active") == 0 ? WTSActive : WTSDisconnected});
    }
    return sessions;
}

BOOL WINAPI EnumerateSessions(HANDLE, DWORD reserved, DWORD version, PWTS_SESSION_INFOW* list, DWORD* count) {
    if (reserved != 0 || version != 1 || list == nullptr || count == nullptr) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const auto sessions = Sessions();
    const std::lock_guard guard(lock);
    handedOut.push_back(std::make_unique<WTS_SESSION_INFOW[]>(sessions.size() + 1));
    std::ranges::copy(sessions, handedOut.back().get());
    *list = handedOut.back().get();
    *count = static_cast<DWORD>(sessions.size());
    return TRUE;
}

void WINAPI FreeMemory(PVOID memory) {
    {
        const std::lock_guard guard(lock);
        if (std::erase_if(handedOut, [memory](const auto& list) { return list.get() == memory; }) > 0) return;
    }
    originalFree(memory);
}

std::wstring ProgramBeside(const wchar_t* name) {
    HMODULE self = nullptr;
    ::GetModuleHandleExW(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        reinterpret_cast<const wchar_t*>(&ProgramBeside), &self);
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(self, path, MAX_PATH);
    std::wstring program(path);
    return program.replace(program.rfind(L'\\') + 1, std::wstring::npos, name);
}

/// Starts a program on the user's desktop.
/// @param input receives the writing end of its standard input
Handle StartOnDesktop(const std::wstring& program, Handle& input) {
    SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    if (!::CreatePipe(&read, &write, &inheritable, 0)) return nullptr;
    const Handle childsEnd(read);
    input.reset(write);
    ::SetHandleInformation(write, HANDLE_FLAG_INHERIT, 0);
    wchar_t desktop[] = L"WinSta0\\Default";
    std::wstring commandLine = L"\"" + program + L"\"";
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.lpDesktop = desktop;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = read;
    PROCESS_INFORMATION process = {};
    if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                          &process))
        return nullptr;
    ::CloseHandle(process.hThread);
    return Handle(process.hProcess);
}

bool Send(HANDLE input, const void* data, DWORD size) {
    DWORD written = 0;
    return ::WriteFile(input, data, size, &written, nullptr) && written == size;
}

/// @param titleSize, messageSize in bytes
BOOL WINAPI SendMessageToSession(HANDLE, DWORD session, LPWSTR title, DWORD titleSize, LPWSTR message,
                                 DWORD messageSize, DWORD style, DWORD timeout, DWORD* response, BOOL wait) {
    const auto sessions = Sessions();
    if (std::ranges::find(sessions, session, &WTS_SESSION_INFOW::SessionId) == sessions.end()) {
        ::SetLastError(ERROR_CTX_WINSTATION_NOT_FOUND);
        return FALSE;
    }
    Handle input;
    const Handle process = StartOnDesktop(ProgramBeside(L"winegapbox.exe"), input);
    const MessageBoxRequest request = {style, titleSize / DWORD{sizeof(wchar_t)},
                                       messageSize / DWORD{sizeof(wchar_t)}};
    if (!process || !Send(input.get(), &request, sizeof request) || !Send(input.get(), title, titleSize) ||
        !Send(input.get(), message, messageSize))
        return FALSE;
    if (!wait) {
        *response = kNotWaitedFor;
        return TRUE;
    }
    if (::WaitForSingleObject(process.get(), timeout == 0 ? INFINITE : timeout * 1000) == WAIT_TIMEOUT) {
        ::TerminateProcess(process.get(), kTimedOut);
        *response = kTimedOut;
        return TRUE;
    }
    DWORD answer = 0;
    ::GetExitCodeProcess(process.get(), &answer);
    if (answer < IDOK || answer > IDCONTINUE) {  // there is no display, or the program has crashed
        ::SetLastError(ERROR_CTX_WINSTATION_NOT_FOUND);
        return FALSE;
    }
    *response = answer;
    return TRUE;
}

}  // namespace

std::vector<Replacement> SessionReplacements() {
    static constexpr wchar_t kLibrary[] = L"wtsapi32.dll";
    return {
        {kLibrary, "WTSEnumerateSessionsW", reinterpret_cast<void*>(&EnumerateSessions), nullptr},
        {kLibrary, "WTSFreeMemory", reinterpret_cast<void*>(&FreeMemory), Slot(originalFree)},
        {kLibrary, "WTSSendMessageW", reinterpret_cast<void*>(&SendMessageToSession), nullptr},
    };
}

}  // namespace wine_gap
