#include "service_query.h"

#include <winsvc.h>

namespace tessactl {

QueriedService::QueriedService(const std::wstring& name) : name_(name) {
    const UniqueService manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (manager)
        service_.reset(
            ::OpenServiceW(manager.get(), name.c_str(), SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG));
    if (!service_) openError_ = ::GetLastError();
}

DWORD QueriedService::RunningProcessId() const {
    SERVICE_STATUS_PROCESS status = {};
    DWORD needed = 0;
    const bool known =
        service_ && ::QueryServiceStatusEx(service_.get(), SC_STATUS_PROCESS_INFO,
                                           reinterpret_cast<BYTE*>(&status), sizeof status, &needed);
    return known && status.dwCurrentState == SERVICE_RUNNING ? status.dwProcessId : 0;
}

}  // namespace tessactl
