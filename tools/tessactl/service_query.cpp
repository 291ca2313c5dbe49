#include "service_query.h"

#include <shellapi.h>

#include <memory>

namespace tessactl {

QueriedService::QueriedService(const std::wstring& name) : name_(name) {
    const UniqueService manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (manager)
        service_.reset(
            ::OpenServiceW(manager.get(), name.c_str(), SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG));
    if (!service_) openError_ = ::GetLastError();
}

SERVICE_STATUS_PROCESS QueriedService::Status() const {
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    if (service_ && ::QueryServiceStatusEx(service_.get(), SC_STATUS_PROCESS_INFO,
                                           reinterpret_cast<BYTE*>(&status), sizeof status, &needed))
        return status;
    status = {};
    status.dwCurrentState = SERVICE_STOPPED;
    return status;
}

std::vector<std::wstring> QueriedService::CommandLine() const {
    std::vector<BYTE> buffer(8192);  // what the service manager needs at most
    auto* settings = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    DWORD needed = 0;
    if (!IsInstalled() ||
        !::QueryServiceConfigW(get(), settings, static_cast<DWORD>(buffer.size()), &needed) ||
        settings->lpBinaryPathName == nullptr || *settings->lpBinaryPathName == L'\0')
        return {};
    int count = 0;
    const std::unique_ptr<wchar_t*, decltype(&::LocalFree)> words(
        ::CommandLineToArgvW(settings->lpBinaryPathName, &count), &::LocalFree);
    if (!words) return {};
    return {words.get(), words.get() + count};
}

const char* StartTypeText(DWORD type) {
    switch (type) {
        case SERVICE_AUTO_START:
            return "with the machine";
        case SERVICE_DISABLED:
            return "disabled";
        default:
            return "by hand";
    }
}

}  // namespace tessactl
