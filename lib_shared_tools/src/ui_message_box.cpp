#include "ui_message_box.h"

#include <algorithm>
#include <span>
#include <stdexcept>
#include <utility>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "structured_exception.h"
#include "trace_point.h"
#include "windows_api_excp.h"

TRACE_SOURCE("lib_shared_tools\\src\\ui_message_box", "9a2d4c86-1e5f-4b70-8d39-c7f60b1a5e47",
             trace::kSharedTools);

using modul_exception::CWindowsApiExcp;

namespace operating_system {
namespace {

const char* ButtonsName(DWORD style) {
    FUNCTION_TRACE();
    switch (style & MB_TYPEMASK) {
        case MB_OK:
            return "MB_OK";
        case MB_OKCANCEL:
            return "MB_OKCANCEL";
        case MB_ABORTRETRYIGNORE:
            return "MB_ABORTRETRYIGNORE";
        case MB_YESNOCANCEL:
            return "MB_YESNOCANCEL";
        case MB_YESNO:
            return "MB_YESNO";
        case MB_RETRYCANCEL:
            return "MB_RETRYCANCEL";
        case MB_CANCELTRYCONTINUE:
            return "MB_CANCELTRYCONTINUE";
        default:
            return "!!INVALID MB ID";
    }
}

DWORD SizeInBytes(const std::wstring& text) {
    FUNCTION_TRACE();
    return static_cast<DWORD>(text.length() * sizeof(wchar_t));
}

}  // namespace

SystemMessageBox::SystemMessageBox(WtsFactory loadWts) : loadWts_(std::move(loadWts)) {
    FUNCTION_TRACE();
}

SystemMessageBox::~SystemMessageBox() {
    FUNCTION_TRACE();
}

void SystemMessageBox::LoadWtsLib() {
    FUNCTION_TRACE();
    if (wts_ == nullptr) wts_ = loadWts_();
}

void SystemMessageBox::UnLoadWtsLib() {
    FUNCTION_TRACE();
    wts_.reset();
}

DWORD SystemMessageBox::GetFirstActiveUserFrom(const WTS_SESSION_INFOW* WtsSession, DWORD NumOfSessions) {
    FUNCTION_TRACE();
    if (NumOfSessions == 0) MODUL_THROW(std::invalid_argument("NumOfSessions == 0"));
    MODUL_ASSERT(WtsSession != NULL);
    const std::span sessions(WtsSession, WtsSession != nullptr ? NumOfSessions : 0);
    const auto active = std::ranges::find(sessions, WTSActive, &WTS_SESSION_INFOW::State);
    if (active == sessions.end()) MODUL_THROW(std::runtime_error("No Session is WTSActive"));
    return active->SessionId;
}

DWORD SystemMessageBox::FirstActiveSession() {
    FUNCTION_TRACE();
    WTS_SESSION_INFOW* sessions = nullptr;
    DWORD count = 0;
    if (!CallForeign(
            [&] { return wts_->WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions, &count); }))
        MODUL_THROW(CWindowsApiExcp("WTSEnumerateSessionsW()", ""));
    const auto release = [this](WTS_SESSION_INFOW* list) {
        auto free = [&] { wts_->WTSFreeMemory(list); };
        if (const DWORD code = CallGuarded(free)) TRACE_WARNING(11, "WTSFreeMemory raised 0x%x", code);
    };
    const std::unique_ptr<WTS_SESSION_INFOW, decltype(release)> owner(sessions, release);
    return GetFirstActiveUserFrom(sessions, count);
}

DWORD SystemMessageBox::Show(const wchar_t* title, const wchar_t* message, DWORD style) {
    FUNCTION_TRACE();
    LoadWtsLib();
    const DWORD session = FirstActiveSession();
    std::wstring titleBuffer = title != nullptr ? title : L"(null)";
    std::wstring messageBuffer = message != nullptr ? message : L"(null)";
    DWORD response = 0;
    const DWORD titleSize = SizeInBytes(titleBuffer);
    const DWORD messageSize = SizeInBytes(messageBuffer);
    if (!CallForeign([&] {
            return wts_->WTSSendMessageW(WTS_CURRENT_SERVER_HANDLE, session, titleBuffer.data(), titleSize,
                                         messageBuffer.data(), messageSize, style, 0, &response, TRUE);
        }))
        MODUL_THROW(CWindowsApiExcp("WTSSendMessageW()", ""));
    TRACE_INFO(10, "Box %s in session %u answered with %u", ButtonsName(style), session, response);
    return response;
}

}  // namespace operating_system
