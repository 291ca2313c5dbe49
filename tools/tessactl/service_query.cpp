#include "service_query.h"

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

}  // namespace tessactl
