#include "status_log.h"

#include <cstdio>
#include <exception>

#include "protected_folder.h"
#include "toolbox.h"

namespace host {

void StatusLog::Open(const std::wstring& path, const LogLimits& limits) {
    const std::lock_guard guard(lock_);
    file_.Open(path, limits);
}

void StatusLog::Write(const std::wstring& line) noexcept {
    SYSTEMTIME now = {};
    ::GetLocalTime(&now);
    wchar_t stamp[32] = {};
    std::swprintf(stamp, ARRAYSIZE(stamp), L"%04d-%02d-%02d %02d:%02d:%02d.%03d  ", now.wYear, now.wMonth,
                  now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
    try {
        const std::lock_guard guard(lock_);
        file_.Append(toolbox::WstringToString(stamp + line + L"\r\n", CP_UTF8));
    } catch (const std::exception&) {
        ::OutputDebugStringW(L"tessahost: a log line could not be written\n");
    }
}

StatusLog& Log() {
    static StatusLog log;
    return log;
}

std::wstring DefaultLogPath() {
    return operating_system::ProductDataFolder() + L"\\tessahost.log";
}

const wchar_t* StateName(DWORD state) {
    switch (state) {
        case SERVICE_STOPPED:
            return L"STOPPED";
        case SERVICE_START_PENDING:
            return L"START_PENDING";
        case SERVICE_STOP_PENDING:
            return L"STOP_PENDING";
        case SERVICE_RUNNING:
            return L"RUNNING";
        case SERVICE_CONTINUE_PENDING:
            return L"CONTINUE_PENDING";
        case SERVICE_PAUSE_PENDING:
            return L"PAUSE_PENDING";
        case SERVICE_PAUSED:
            return L"PAUSED";
        default:
            return L"UNKNOWN";
    }
}

}  // namespace host
