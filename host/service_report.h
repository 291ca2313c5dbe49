#pragma once

#include <windows.h>

#include <string>

#include "service_settings.h"

namespace host {

/// State and settings of a service as one line of JSON. What the system does not tell is null.
std::string StatusAsJson(const std::wstring& name, const SERVICE_STATUS_PROCESS& status,
                         const ServiceSettings& settings);

/// The same for people, as aligned lines.
std::wstring StatusAsText(const std::wstring& name, const SERVICE_STATUS_PROCESS& status,
                          const ServiceSettings& settings);

}  // namespace host
