#pragma once

#include <windows.h>
#include <shlobj.h>

/// Stands between the programs that link it and a few functions of the system, so that a test can make one
/// fail, or answer what it wants; what is not set goes to the system.
namespace test_support {

struct SystemCalls {
    decltype(&::WideCharToMultiByte) wideCharToMultiByte = nullptr;
    decltype(&::FormatMessageA) formatMessageA = nullptr;
    decltype(&::LocalFree) localFree = nullptr;
    decltype(&::GetSystemTime) getSystemTime = nullptr;
    decltype(&::GetLocalTime) getLocalTime = nullptr;
    decltype(&::GetCurrentProcessorNumber) getCurrentProcessorNumber = nullptr;
    decltype(&::CreateDirectoryW) createDirectoryW = nullptr;
    decltype(&::LoadLibraryW) loadLibraryW = nullptr;
    decltype(&::GetModuleFileNameW) getModuleFileNameW = nullptr;
    decltype(&::OutputDebugStringW) outputDebugStringW = nullptr;
    decltype(&::OutputDebugStringA) outputDebugStringA = nullptr;
    decltype(&::ReportEventW) reportEventW = nullptr;
    decltype(&::InitializeSecurityDescriptor) initializeSecurityDescriptor = nullptr;
    decltype(&::SetSecurityDescriptorDacl) setSecurityDescriptorDacl = nullptr;
    decltype(&::SHGetKnownFolderPath) shGetKnownFolderPath = nullptr;
    decltype(&::CoTaskMemFree) coTaskMemFree = nullptr;
    decltype(&::StringFromGUID2) stringFromGuid2 = nullptr;
};

/// What is called in place of the system.
extern SystemCalls systemCalls;

/// Puts the system back when a test ends.
class SystemCallsOfTest {
  public:
    SystemCallsOfTest() = default;
    ~SystemCallsOfTest() { systemCalls = {}; }
    SystemCallsOfTest(const SystemCallsOfTest&) = delete;
    SystemCallsOfTest& operator=(const SystemCallsOfTest&) = delete;
};

}  // namespace test_support
