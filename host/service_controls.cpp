#include "service_controls.h"

namespace host {

const wchar_t* StopReason(DWORD control) {
    switch (control) {
        case SERVICE_CONTROL_STOP:
            return L"Stop requested";
        case SERVICE_CONTROL_SHUTDOWN:
            return L"The machine shuts down";
        case SERVICE_CONTROL_PRESHUTDOWN:
            return L"The machine is going to shut down";
        default:
            return nullptr;
    }
}

DWORD AcceptedControls(DWORD state) {
    // Preshutdown gives a stop as long as the installation has asked for; shutdown is for systems without it.
    return state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN |
                                          SERVICE_ACCEPT_PRESHUTDOWN | SERVICE_ACCEPT_POWEREVENT
                                    : 0;
}

}  // namespace host
