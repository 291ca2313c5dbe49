#include "status_log.h"

#include <cstdio>
#include <exception>

#include "toolbox.h"

namespace host {

bool StatusLog::Open(const std::wstring& path) {
    const std::lock_guard guard(lock_);
    for (std::size_t end = path.find(L'\\'); end != std::wstring::npos; end = path.find(L'\\', end + 1))
        ::CreateDirectoryW(path.substr(0, end).c_str(), nullptr);  // most are there already
    file_.reset(::CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    return static_cast<bool>(file_);
}

void StatusLog::Write(const std::wstring& line) {
    const std::lock_guard guard(lock_);
    if (!file_) return;
    SYSTEMTIME now = {};
    ::GetLocalTime(&now);
    wchar_t stamp[32] = {};
    std::swprintf(stamp, ARRAYSIZE(stamp), L"%04d-%02d-%02d %02d:%02d:%02d.%03d  ", now.wYear, now.wMonth,
                  now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
    try {
        const std::string text = toolbox::WstringToString(stamp + line + L"\r\n", CP_UTF8);
        DWORD written = 0;
        ::WriteFile(file_.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    } catch (const std::exception&) {
        ::OutputDebugStringW(L"tessahost: a log line could not be written\n");
    }
}

StatusLog& Log() {
    static StatusLog log;
    return log;
}

std::wstring DefaultLogPath() {
    wchar_t folder[MAX_PATH] = {};
    const DWORD length = ::GetEnvironmentVariableW(L"ProgramData", folder, MAX_PATH);
    const bool known = length > 0 && length < MAX_PATH;
    return std::wstring(known ? folder : L"C:\\ProgramData") + L"\\Tessaplug\\tessahost.log";
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
