#pragma once

#include <gmock/gmock.h>

#include "win_api.h"

namespace host_test {

/// A service manager that answers as a test wants.
class MockAdvapi32 : public windows_api::Advapi32 {
  public:
    MOCK_METHOD(SC_HANDLE, OpenSCManagerW, (const wchar_t*, const wchar_t*, DWORD), (override));
    MOCK_METHOD(BOOL, CloseServiceHandle, (SC_HANDLE), (override));
    MOCK_METHOD(SC_HANDLE, OpenServiceW, (SC_HANDLE, const wchar_t*, DWORD), (override));
    MOCK_METHOD(SC_HANDLE, CreateServiceW_Reduced,
                (SC_HANDLE, const wchar_t*, const wchar_t*, const wchar_t*, DWORD), (override));
    MOCK_METHOD(BOOL, StartServiceW, (SC_HANDLE, DWORD, const wchar_t**), (override));
    MOCK_METHOD(BOOL, ControlService, (SC_HANDLE, DWORD, SERVICE_STATUS*), (override));
    MOCK_METHOD(BOOL, DeleteService, (SC_HANDLE), (override));
    MOCK_METHOD(BOOL, QueryServiceStatusEx, (SC_HANDLE, SC_STATUS_TYPE, BYTE*, DWORD, DWORD*), (override));
    MOCK_METHOD(BOOL, ChangeServiceConfigW,
                (SC_HANDLE, DWORD, DWORD, DWORD, const wchar_t*, const wchar_t*, DWORD*, const wchar_t*,
                 const wchar_t*, const wchar_t*, const wchar_t*),
                (override));
    MOCK_METHOD(BOOL, ChangeServiceConfig2W, (SC_HANDLE, DWORD, void*), (override));
    MOCK_METHOD(BOOL, QueryServiceConfigW, (SC_HANDLE, QUERY_SERVICE_CONFIGW*, DWORD, DWORD*), (override));
    MOCK_METHOD(BOOL, QueryServiceConfig2W, (SC_HANDLE, DWORD, BYTE*, DWORD, DWORD*), (override));
};

/// An action that fails with a system error.
template <typename Result>
auto FailWith(DWORD error, Result result) {
    return [error, result](auto&&...) {
        ::SetLastError(error);
        return result;
    };
}

}  // namespace host_test
