#include "thread_roles.h"

namespace tessactl {
namespace {

/// What a thread is for is known by the functions that run on no other. A circular recording may have lost
/// those that run once, so those that come again and again count too.
constexpr struct {
    const char* function;
    const char* role;
} kRoles[] = {
    {"tessaplug_init", "main"},
    {"tessaplug_cleanup", "main"},
    {"tessaplug_service_ctrl_handler", "service controls"},
    {"tessaplug::DeviceMonitor::RequestHandler", "worker"},
    {"tessaplug::DeviceMonitor::WaitForRequests", "worker"},
    {"tessaplug::DeviceMonitor::ServeRequests", "worker"},
    {"tessaplug::EventLogMonitor::Run", "monitor"},
    {"tessaplug::EventLogMonitor::Watch", "monitor"},
    {"operating_system::EventLog::WaitForChangesInEventLog", "monitor"},
};

}  // namespace

std::string ThreadRole(const std::string& function) {
    for (const auto& known : kRoles)
        if (function == known.function) return known.role;
    return {};
}

}  // namespace tessactl
