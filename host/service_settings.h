#pragma once

#include <optional>
#include <string>
#include <vector>

#include "command_line.h"
#include "win_api.h"

namespace host {

/// How an installed service is set up. What the system does not tell is missing: Wine and old systems know
/// some of the settings only.
struct ServiceSettings {
    std::optional<DWORD> startType;
    std::optional<bool> delayedStart;
    std::optional<std::wstring> description;
    std::optional<std::vector<std::wstring>> dependencies;
    std::optional<std::vector<DWORD>> restartsAfter;  ///< milliseconds; empty: no restart
    std::optional<DWORD> resetPeriod;                 ///< seconds without an error until it counts anew
    std::optional<bool> restartsOnError;              ///< also if it stops by itself with an error
    std::optional<DWORD> preshutdownTimeOut;          ///< milliseconds
    std::optional<std::wstring> commandLine;
};

/// Sets up a new service: description, restart on failure, time at shutdown, delayed start if asked for, the
/// event-log service as what it depends on. What the system refuses is returned, a sentence each; the service
/// works without any of it.
std::vector<std::wstring> ApplySettings(windows_api::Advapi32& advapi32, SC_HANDLE manager, SC_HANDLE service,
                                        const Options& options);

/// @param service opened with SERVICE_QUERY_CONFIG
ServiceSettings ReadSettings(windows_api::Advapi32& advapi32, SC_HANDLE service);

}  // namespace host
