#include "quelm_orvix.h"

#include <windows.h>
#include <shlobj.h>

#include <algorithm>
#include <cwchar>
#include <stdexcept>

#include "dll_loader_convenience.h"
#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "structured_exception.h"
#include "toolbox.h"
#include "trace_point.h"
#include "unique_handle.h"
#include "windows_api_excp.h"

TRACE_SOURCE("lib_shared_tools\\src\\quelm_orvix", "62f8b0d4-9e17-4c3a-b5d2-4a7c1e8f6d0c",
             trace::kLogDeviceConfiguration);

using modul_exception::CWindowsApiExcp;

namespace quelm {
namespace {

constexpr wchar_t kFileName[] = L"q5orvix64x.dll";
constexpr wchar_t kBaseFolderKey[] = L"SOFTWARE\\Valdorn\\Shared Tools\\QUELM64";
constexpr wchar_t kBaseFolderValue[] = L"Korvane_Oam";
constexpr wchar_t kDefaultBaseFolder[] = L"Valdorn\\Automation\\Korvane OAM";
constexpr wchar_t kOnlyTemplateType[] = L"DefaultLogDevices";

using PathBuffer = wchar_t[MAX_PATH];

bool IsEmulated32BitProcess() {
    FUNCTION_TRACE();
    BOOL emulated = FALSE;
    return ::IsWow64Process(::GetCurrentProcess(), &emulated) && emulated;
}

bool ReadBaseFolderFromRegistry(PathBuffer& folder) {
    FUNCTION_TRACE();
    HKEY opened = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kBaseFolderKey, 0, KEY_READ, &opened) != ERROR_SUCCESS)
        return false;
    const UniqueRegistryKey key(opened);
    // Bytes, although the buffer is counted in characters: stations are set up with folders that fit, and a
    // longer value has always meant the default folder.
    DWORD size = MAX_PATH - 1;
    if (::RegQueryValueExW(key.get(), kBaseFolderValue, nullptr, nullptr, reinterpret_cast<BYTE*>(folder),
                           &size) != ERROR_SUCCESS)
        return false;
    folder[size / sizeof(wchar_t)] = L'\0';
    return folder[0] != L'\0';
}

bool DefaultBaseFolder(PathBuffer& folder) {
    FUNCTION_TRACE();
    if (!::SHGetSpecialFolderPathW(nullptr, folder, CSIDL_PROGRAM_FILES_COMMON, FALSE)) return false;
    ::wcscat_s(folder, MAX_PATH, L"\\");
    ::wcscat_s(folder, MAX_PATH, kDefaultBaseFolder);
    return true;
}

void CheckLogDevice(const wchar_t* LogDevice) {
    FUNCTION_TRACE();
    if (LogDevice == nullptr) MODUL_THROW(std::invalid_argument("LogDevice == nullptr"));
    constexpr std::size_t kLimit = Q5orvix::MAX_LOG_DEVICE_NAME_LEN + 1;
    if (::wcsnlen(LogDevice, kLimit) >= kLimit)
        MODUL_THROW(std::invalid_argument("LogDevice > MAX_LOG_DEVICE_NAME_LEN"));
}

void CheckParameter(const wchar_t* Parameter) {
    FUNCTION_TRACE();
    if (Parameter == nullptr) MODUL_THROW(std::invalid_argument("Parameter == nullptr"));
    constexpr std::size_t kLimit = Q5orvix::MAX_XML_PARAM_NAME_LEN + 1;
    // The text names the wrong pair of limits; scripts that search logs for it know it so.
    if (::wcsnlen(Parameter, kLimit) >= kLimit)
        MODUL_THROW(std::invalid_argument("MAX_XML_PARAM_NAME_LEN > MAX_LOG_DEVICE_NAME_LEN"));
}

void CheckLoaded(const void* entry) {
    FUNCTION_TRACE();
    if (entry == nullptr) MODUL_THROW(std::runtime_error("Q5Orvix-DLL not loaded!"));
}

template <typename Function>
void CheckLoaded(Function* entry) {
    CheckLoaded(reinterpret_cast<const void*>(entry));
}

}  // namespace

std::wstring ConfigurationLibraryPath(bool* isRegistered) {
    FUNCTION_TRACE();
    PathBuffer path = {};
    const bool emulated = IsEmulated32BitProcess();
    const bool registered = !emulated && ReadBaseFolderFromRegistry(path);
    if (isRegistered != nullptr) *isRegistered = registered;
    if (emulated) return kFileName;
    if (!registered && !DefaultBaseFolder(path)) return {};
    // A path that does not fit ends the process here: the bounded functions do not cut off.
    ::wcscat_s(path, MAX_PATH, L"\\");
    ::wcscat_s(path, MAX_PATH, L"bin");
    ::wcscat_s(path, MAX_PATH, L"\\");
    ::wcscat_s(path, MAX_PATH, kFileName);
    return path;
}

Q5orvix::~Q5orvix() {
    FUNCTION_TRACE();
    UnloadLibInternal();
}

void Q5orvix::LoadLib() {
    FUNCTION_TRACE();
    const std::lock_guard guard(lock_);
    if (module_ != nullptr) MODUL_THROW(std::runtime_error("Sequence! Q5orvix-DLL already loaded"));
    const std::wstring path = ConfigurationLibraryPath();
    if (!path.empty()) module_ = ::LoadLibraryW(path.c_str());
    if (module_ == nullptr)
        MODUL_THROW(CWindowsApiExcp("LoadLibraryW()", toolbox::WstringToString(kFileName)));
    TRACE_INFO(10, "%S loaded", path);
    try {
        ResolveExports();
    } catch (const std::exception& error) {
        TRACE_ERROR(11, "%S: %s", path, error.what());
        UnloadLibInternal();
        throw;
    }
}

void Q5orvix::ResolveExports() {
    FUNCTION_TRACE();
    using operating_system::CheckAndInitFunctionPointer;
    CheckAndInitFunctionPointer(module_, logDeviceExists_, "LogDeviceExists");
    CheckAndInitFunctionPointer(module_, logDeviceGetValue_, "LogDeviceGetValue");
    CheckAndInitFunctionPointer(module_, logDeviceSetNdiValue_, "LogDeviceSetNdiValue");
    CheckAndInitFunctionPointer(module_, templateGetEnum_, "TemplateGetEnum");
}

void Q5orvix::UnloadLib() {
    FUNCTION_TRACE();
    const std::lock_guard guard(lock_);
    UnloadLibInternal();
}

void Q5orvix::UnloadLibInternal() {
    FUNCTION_TRACE();
    if (module_ != nullptr) {
        if (::FreeLibrary(module_))
            TRACE_VERBOSE(12, "%S freed", kFileName);
        else
            TRACE_ERROR(13, "FreeLibrary(%S) failed, LE(%u)", kFileName, ::GetLastError());
    }
    module_ = nullptr;
    logDeviceExists_ = nullptr;
    logDeviceGetValue_ = nullptr;
    logDeviceSetNdiValue_ = nullptr;
    templateGetEnum_ = nullptr;
}

const char* Q5orvix::GetReturnCodeName(DWORD code) const {
    FUNCTION_TRACE();
    switch (code) {
        case LDCF_OK:
            return "LDCF_OK";
        case LDCF_ACCESS_DENIED:
            return "LDCF_ACCESS_DENIED";
        case LDCF_ERR_INVALID_PARAMETERS:
            return "LDCF_ERR_INVALID_PARAMETERS";
        case LDCF_ERR_BUFFER_TOO_SHORT:
            return "LDCF_ERR_BUFFER_TOO_SHORT";
        case LDCF_ERR_NO_MORE_ITEMS:
            return "LDCF_ERR_NO_MORE_ITEMS";
        case LDCF_ERR_LOG_DEVICE_NOT_EXISTS:
            return "LDCF_ERR_LOG_DEVICE_NOT_EXISTS";
        case LDCF_ERR_PARAMETER_NOT_EXISTS:
            return "LDCF_ERR_PARAMETER_NOT_EXISTS";
        case LDCF_ERR_PARAMETER_LINK_NOT_FOUND:
            return "LDCF_ERR_PARAMETER_LINK_NOT_FOUND";
        case LDCF_ERR_PARAMETER_DESC_NOT_FOUND:
            return "LDCF_ERR_PARAMETER_DESC_NOT_FOUND";
        case LDCF_ERR_PARAMETER_DEFAULT_NOT_FOUND:
            return "LDCF_ERR_PARAMETER_DEFAULT_NOT_FOUND";
        case LDCF_ERR_XML_FILE_NOT_EXISTS:
            return "LDCF_ERR_XML_FILE_NOT_EXISTS";
        default:
            return "!! UNKNOWN LDCF_ERROR CODE !!";
    }
}

bool Q5orvix::IsAccepted(DWORD code, std::initializer_list<DWORD> accepted) const {
    FUNCTION_TRACE();
    TRACE_INFO(14, "Return code %u %s", code, GetReturnCodeName(code));
    const bool isAccepted = std::ranges::find(accepted, code) != accepted.end();
    if (!isAccepted) TRACE_ERROR(15, "Unexpected return code %u %s", code, GetReturnCodeName(code));
    return isAccepted;
}

DWORD Q5orvix::LogDeviceExists(const wchar_t* LogDevice, DWORD dwFlags) {
    FUNCTION_TRACE();
    const std::lock_guard guard(lock_);
    CheckLoaded(logDeviceExists_);
    CheckLogDevice(LogDevice);
    // Only the top bit is refused, whatever the text says: values from 13 up are the library's business.
    if (static_cast<LONG>(dwFlags) < 0) MODUL_THROW(std::invalid_argument("Invalid Bitmask dwflag [0..12]"));
    TRACE_INFO(16, "LogDeviceExists(%S, 0x%x)", LogDevice, dwFlags);
    DWORD code = LDCF_OK;
    auto call = [&] { code = logDeviceExists_(LogDevice, dwFlags); };
    if (operating_system::CallGuarded(call) != 0) {
        MODUL_FAIL("SEH! Orvix: LogDeviceExists()");
        MODUL_THROW(std::runtime_error("SEH! Orvix: LogDeviceExists()"));
    }
    if (!IsAccepted(code, {LDCF_OK, LDCF_ACCESS_DENIED, LDCF_ERR_INVALID_PARAMETERS,
                           LDCF_ERR_LOG_DEVICE_NOT_EXISTS, LDCF_ERR_XML_FILE_NOT_EXISTS}))
        MODUL_THROW(
            std::runtime_error("LogDeviceExists() -> Unexpected ReturnCode! " + std::to_string(code)));
    return code;
}

DWORD Q5orvix::LogDeviceGetValue(const wchar_t* LogDevice, const wchar_t* Parameter, wchar_t* Value,
                                 DWORD* valueLen) {
    FUNCTION_TRACE();
    const std::lock_guard guard(lock_);
    CheckLoaded(logDeviceGetValue_);
    CheckLogDevice(LogDevice);
    CheckParameter(Parameter);
    if (Value == nullptr) MODUL_THROW(std::invalid_argument("Value == nullptr"));
    if (valueLen == nullptr) MODUL_THROW(std::invalid_argument("valueLen == nullptr"));
    TRACE_INFO(17, "LogDeviceGetValue(%S, %S), length %u", LogDevice, Parameter, *valueLen);
    DWORD code = LDCF_OK;
    auto call = [&] { code = logDeviceGetValue_(LogDevice, Parameter, Value, valueLen); };
    if (operating_system::CallGuarded(call) != 0) {
        MODUL_FAIL("SEH! Orvix: LogDeviceGetValue()");
        MODUL_THROW(std::runtime_error("SEH! Orvix: LogDeviceGetValue()"));
    }
    if (!IsAccepted(code, {LDCF_OK, LDCF_ERR_INVALID_PARAMETERS, LDCF_ERR_LOG_DEVICE_NOT_EXISTS,
                           LDCF_ERR_PARAMETER_NOT_EXISTS, LDCF_ERR_PARAMETER_LINK_NOT_FOUND,
                           LDCF_ERR_PARAMETER_DESC_NOT_FOUND, LDCF_ERR_PARAMETER_DEFAULT_NOT_FOUND}))
        MODUL_THROW(
            std::runtime_error("LogDeviceGetValue() -> Unexpected ReturnCode! " + std::to_string(code)));
    return code;
}

DWORD Q5orvix::LogDeviceSetNdiValue(const wchar_t* LogDevice, const wchar_t* Parameter,
                                    const wchar_t* Value) {
    FUNCTION_TRACE();
    constexpr DWORD kUnnamedCode = 8508;  // an outcome without a name in the library's table
    const std::lock_guard guard(lock_);
    CheckLoaded(logDeviceSetNdiValue_);
    CheckLogDevice(LogDevice);
    CheckParameter(Parameter);
    if (Value == nullptr) MODUL_THROW(std::invalid_argument("Value == nullptr"));
    TRACE_INFO(18, "LogDeviceSetNdiValue(%S, %S, %S)", LogDevice, Parameter, Value);
    DWORD code = LDCF_OK;
    auto call = [&] { code = logDeviceSetNdiValue_(LogDevice, Parameter, Value); };
    if (operating_system::CallGuarded(call) != 0) {
        MODUL_FAIL("SEH! Orvix: LogDeviceSetNdiValue()");
        MODUL_THROW(std::runtime_error("SEH! Orvix: LogDeviceSetNdiValue()"));
    }
    if (!IsAccepted(code,
                    {LDCF_OK, LDCF_ERR_INVALID_PARAMETERS, LDCF_ERR_LOG_DEVICE_NOT_EXISTS,
                     LDCF_ERR_PARAMETER_NOT_EXISTS, LDCF_ERR_PARAMETER_LINK_NOT_FOUND,
                     LDCF_ERR_PARAMETER_DESC_NOT_FOUND, LDCF_ERR_PARAMETER_DEFAULT_NOT_FOUND, kUnnamedCode}))
        MODUL_THROW(
            std::runtime_error("LogDeviceSetNdiValue() -> Unexpected ReturnCode! " + std::to_string(code)));
    return code;
}

DWORD Q5orvix::TemplateGetEnum(const wchar_t* lpszTemplateType, DWORD index, wchar_t* lpszTemplate,
                               DWORD* pcbTemplateLenName) {
    FUNCTION_TRACE();
    const std::lock_guard guard(lock_);
    CheckLoaded(templateGetEnum_);
    if (lpszTemplateType == nullptr)
        MODUL_THROW(std::invalid_argument("Parameter lpszTemplateType is NULL!"));
    if (lpszTemplate == nullptr) MODUL_THROW(std::invalid_argument("Parameter lpszTemplate is NULL!"));
    if (pcbTemplateLenName == nullptr)
        MODUL_THROW(std::invalid_argument("Parameter pcbTemplateLenName is NULL!"));
    if (*pcbTemplateLenName == 0) MODUL_THROW(std::invalid_argument("Parameter *pcbTemplateLenName is 0!"));
    if (std::wcscmp(lpszTemplateType, kOnlyTemplateType) != 0)
        MODUL_THROW(std::invalid_argument("Only template DefaultLogDevices supported!"));
    TRACE_INFO(19, "TemplateGetEnum(%S, %u), length %u", lpszTemplateType, index, *pcbTemplateLenName);
    DWORD code = LDCF_OK;
    auto call = [&] { code = templateGetEnum_(lpszTemplateType, index, lpszTemplate, pcbTemplateLenName); };
    if (operating_system::CallGuarded(call) != 0) {
        MODUL_FAIL("SEH! Orvix: TemplateGetEnum()");
        MODUL_THROW(std::runtime_error("SEH! Orvix: TemplateGetEnum()"));
    }
    if (!IsAccepted(code, {LDCF_OK, LDCF_ERR_BUFFER_TOO_SHORT, LDCF_ERR_NO_MORE_ITEMS}))
        MODUL_THROW(
            std::runtime_error("TemplateGetEnum() -> Unexpected ReturnCode! " + std::to_string(code)));
    return code;
}

}  // namespace quelm
