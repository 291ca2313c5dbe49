#include <windows.h>
#include <wtsapi32.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "message_box_request.h"
#include "session_list.h"
#include "wine_gap.h"

// The sessions of the machine and a message box in one of them. Wine has one desktop: whichever session is
// meant, the box appears on the display of the machine, shown by a program of its own, as the caller may be a
// service.
namespace wine_gap {
namespace {

constexpr DWORD kNotWaitedFor = 32001;  // IDASYNC

struct HandleCloser {
    void operator()(HANDLE handle) const { ::CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, HandleCloser>;

decltype(&::WTSFreeMemory) originalFree = nullptr;

/// A list as it was handed out, with the texts that it points to.
struct HandedOut {
    std::vector<Session> sessions = Sessions();
    std::vector<WTS_SESSION_INFOW> list;

    HandedOut() {
        for (Session& session : sessions)
            list.push_back({session.number, session.name.data(), session.state});
    }
};

std::mutex lock;  // guards the lists that were handed out
std::vector<std::unique_ptr<HandedOut>> handedOut;

BOOL Refuse(DWORD error) {
    ::SetLastError(error);
    return FALSE;
}

BOOL WINAPI EnumerateSessions(HANDLE server, DWORD reserved, DWORD version, PWTS_SESSION_INFOW* list,
                              DWORD* count) {
    if (server != WTS_CURRENT_SERVER_HANDLE) return Refuse(ERROR_INVALID_HANDLE);
    if (reserved != 0 || version != 1 || list == nullptr || count == nullptr)
        return Refuse(ERROR_INVALID_PARAMETER);
    auto made = std::make_unique<HandedOut>();
    *list = made->list.data();
    *count = static_cast<DWORD>(made->list.size());
    const std::lock_guard guard(lock);
    handedOut.push_back(std::move(made));
    return TRUE;
}

void WINAPI FreeMemory(PVOID memory) {
    {
        const std::lock_guard guard(lock);
        const auto isMeant = [memory](const auto& made) { return made->list.data() == memory; };
        if (std::erase_if(handedOut, isMeant) > 0) return;
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

/// The session that is meant, also by WTS_CURRENT_SESSION; false if there is none such.
bool FindSession(DWORD& number) {
    if (number == WTS_CURRENT_SESSION) ::ProcessIdToSessionId(::GetCurrentProcessId(), &number);
    const auto sessions = Sessions();
    return std::ranges::find(sessions, number, &Session::number) != sessions.end();
}

/// @param titleSize, messageSize in bytes
BOOL WINAPI SendMessageToSession(HANDLE server, DWORD session, LPWSTR title, DWORD titleSize, LPWSTR message,
                                 DWORD messageSize, DWORD style, DWORD timeout, DWORD* response, BOOL wait) {
    if (server != WTS_CURRENT_SERVER_HANDLE) return Refuse(ERROR_INVALID_HANDLE);
    if (title == nullptr || message == nullptr || response == nullptr) return Refuse(ERROR_INVALID_PARAMETER);
    if (!FindSession(session)) return Refuse(ERROR_CTX_WINSTATION_NOT_FOUND);
    Handle input;
    const Handle process = StartOnDesktop(ProgramBeside(L"winegapbox.exe"), input);
    const MessageBoxRequest request = {session, timeout, style, titleSize / DWORD{sizeof(wchar_t)},
                                       messageSize / DWORD{sizeof(wchar_t)}};
    if (!process || !Send(input.get(), &request, sizeof request) ||
        !Send(input.get(), title, request.titleLength * DWORD{sizeof(wchar_t)}) ||
        !Send(input.get(), message, request.messageLength * DWORD{sizeof(wchar_t)}))
        return FALSE;
    if (!wait) {
        *response = kNotWaitedFor;
        return TRUE;
    }
    ::WaitForSingleObject(process.get(), INFINITE);
    DWORD answer = 0;
    ::GetExitCodeProcess(process.get(), &answer);
    // Otherwise the session has ended, there is no display, or the program has crashed.
    const bool isAnswer = (answer >= IDOK && answer <= IDCONTINUE) || answer == kTimedOut;
    if (!isAnswer) return Refuse(ERROR_CTX_WINSTATION_NOT_FOUND);
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
