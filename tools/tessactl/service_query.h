#pragma once

#include <windows.h>
#include <winsvc.h>

#include <string>
#include <vector>

#include "unique_handle.h"

namespace tessactl {

using UniqueService = UniqueHandle<SC_HANDLE, [](SC_HANDLE handle) { ::CloseServiceHandle(handle); }>;

/// A service, opened to be looked at.
class QueriedService {
  public:
    explicit QueriedService(const std::wstring& name);

    const std::wstring& Name() const { return name_; }
    bool IsInstalled() const { return static_cast<bool>(service_); }
    /// Why it could not be opened, a system error code.
    DWORD OpenError() const { return openError_; }
    SC_HANDLE get() const { return service_.get(); }

    /// State and process at this moment; SERVICE_STOPPED and 0 if it is not known.
    SERVICE_STATUS_PROCESS Status() const;

    /// The program and arguments that it is started with; none if that is not known.
    std::vector<std::wstring> CommandLine() const;

  private:
    std::wstring name_;
    DWORD openError_ = ERROR_SUCCESS;
    UniqueService service_;
};

/// The service that tessahost installs unless told otherwise, and what it loads.
inline constexpr wchar_t kDefaultService[] = L"tessahost";
inline constexpr wchar_t kDefaultPlugIn[] = L"tessaplug.dll";

/// How a service is started, e.g. "with the machine".
/// @param type e.g. SERVICE_AUTO_START
const char* StartTypeText(DWORD type);

}  // namespace tessactl
