#include "quelm_orvix.h"

#include <windows.h>
#include <shlobj.h>

#include <algorithm>
#include <cwchar>
#include <initializer_list>
#include <stdexcept>
#include <utility>

#include "dll_loader_convenience.h"
#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "structured_exception.h"
#include "toolbox.h"
#include "trace_point.h"
#include "windows_api_excp.h"

TRACE_SOURCE("lib_shared_tools\\src\\quelm_orvix", "62f8b0d4-9e17-4c3a-b5d2-4a7c1e8f6d0c",
             trace::kLogDeviceConfiguration);

using modul_exception::CWindowsApiExcp;

namespace quelm {
namespace {

constexpr wchar_t kBaseFolderKey[] = L"SOFTWARE\\Valdorn\\Shared Tools\\QUELM64";
constexpr wchar_t kBaseFolderValue[] = L"Korvane_Oam";
constexpr wchar_t kDefaultBaseFolder[] = L"Valdorn\\Automation\\Korvane OAM";
constexpr wchar_t kOnlyTemplateType[] = L"DefaultLogDevices";

bool IsEmulated32BitProcess() {
    FUNCTION_TRACE();
    BOOL emulated = FALSE;
    return ::IsWow64Process(::GetCurrentProcess(), &emulated) && emulated;
}

UniqueRegistryKey OpenBaseFolderKey() {
    FUNCTION_TRACE();
    HKEY opened = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, kBaseFolderKey, 0, KEY_READ, &opened) != ERROR_SUCCESS) return {};
    return UniqueRegistryKey(opened);
}

/// @param folder unchanged if there is none
/// @return what the system says
LSTATUS ReadBaseFolder(HKEY key, std::wstring& folder) {
    FUNCTION_TRACE();
    wchar_t value[MAX_PATH] = {};
    // Bytes, although the buffer is counted in characters: stations are set up with folders that fit, and a
    // longer value has always meant the default folder.
    DWORD size = MAX_PATH - 1;
    const LSTATUS error =
        ::RegQueryValueExW(key, kBaseFolderValue, nullptr, nullptr, reinterpret_cast<BYTE*>(value), &size);
    if (error != ERROR_SUCCESS) return error;
    value[size / sizeof(wchar_t)] = L'\0';
    folder = value;
    return error;
}

/// @param key empty, or open from the last time; is left open
/// @return empty if none is registered
std::wstring RegisteredBaseFolder(UniqueRegistryKey& key) {
    FUNCTION_TRACE();
    std::wstring folder;
    // One that was deleted may have been made anew, which an open key does not tell.
    if (key && ReadBaseFolder(key.get(), folder) != ERROR_KEY_DELETED) return folder;
    key = OpenBaseFolderKey();
    if (key) ReadBaseFolder(key.get(), folder);
    return folder;
}

/// @return empty if the system cannot name it
std::wstring DefaultBaseFolder() {
    FUNCTION_TRACE();
    wchar_t commonFiles[MAX_PATH] = {};
    if (!::SHGetSpecialFolderPathW(nullptr, commonFiles, CSIDL_PROGRAM_FILES_COMMON, FALSE)) return {};
    return std::wstring(commonFiles) + L"\\" + kDefaultBaseFolder;
}

/// @param key see RegisteredBaseFolder
/// @param isRegistered may be null
std::wstring LibraryPath(UniqueRegistryKey& key, bool* isRegistered) {
    FUNCTION_TRACE();
    if (isRegistered != nullptr) *isRegistered = false;
    if (IsEmulated32BitProcess()) return kConfigurationLibraryName;
    std::wstring folder = RegisteredBaseFolder(key);
    if (isRegistered != nullptr) *isRegistered = !folder.empty();
    if (folder.empty()) folder = DefaultBaseFolder();
    if (folder.empty()) return {};
    return folder + L"\\bin\\" + kConfigurationLibraryName;
}

/// What LookUpPathOnce is about; one for each loaded plug-in.
struct {
    std::mutex lock;  // guards everything below
    int holders = 0;
    std::wstring path;  // empty until it was found, and while there are no holders
} lookedUp;

std::wstring PathToLoad() {
    FUNCTION_TRACE();
    const std::lock_guard guard(lookedUp.lock);
    if (lookedUp.holders == 0) return ConfigurationLibraryPath();
    if (lookedUp.path.empty()) lookedUp.path = ConfigurationLibraryPath();
    return lookedUp.path;
}

/// A path that does not fit into MAX_PATH characters ends the process, as a run time does whose bounded copy
/// gets an invalid parameter: by fast fail, which no handler sees, with exit status 0xC0000409. The one that
/// is linked here would return an error and go on, and what is then loaded may lie at the root of a drive.
void EndProcessIfTooLong(const std::wstring& path) {
    FUNCTION_TRACE();
    if (path.length() < MAX_PATH) return;
    TRACE_ERROR(20, "A path of %llu characters ends the process: %S", path.length(), path);
    __fastfail(FAST_FAIL_INVALID_ARG);
}

const char* NameOf(DWORD code) {
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

// The helpers below belong to the four operations. They throw on behalf of `method`, the operation that was
// called: it is what the exception history names.

void CheckLoaded(const char* method, bool isLoaded) {
    FUNCTION_TRACE();
    if (!isLoaded) MODUL_THROW_FROM(method, std::runtime_error("Q5Orvix-DLL not loaded!"));
}

void CheckNotNull(const char* method, const void* argument, const char* text) {
    FUNCTION_TRACE();
    if (argument == nullptr) MODUL_THROW_FROM(method, std::invalid_argument(text));
}

void CheckParameter(const char* method, const wchar_t* Parameter) {
    FUNCTION_TRACE();
    CheckNotNull(method, Parameter, "Parameter == nullptr");
    constexpr std::size_t kLimit = Q5orvix::MAX_XML_PARAM_NAME_LEN + 1;
    // The text names the wrong pair of limits; scripts that search logs for it know it so.
    if (::wcsnlen(Parameter, kLimit) >= kLimit)
        MODUL_THROW_FROM(method, std::invalid_argument("MAX_XML_PARAM_NAME_LEN > MAX_LOG_DEVICE_NAME_LEN"));
}

/// Calls into the library, which nobody here wrote, and judges what comes of it.
/// @param operation the operation as texts name it
/// @return one of the accepted codes
template <typename Entry>
DWORD CallLibrary(const char* method, const char* operation, std::initializer_list<DWORD> accepted,
                  Entry entry) {
    FUNCTION_TRACE();
    DWORD code = LDCF_OK;
    if (!operating_system::Completes([&] { code = entry(); })) {
        const std::string text = std::string("SEH! Orvix: ") + operation;
        _ModulAssert((L"!\"" + toolbox::StringToWstring(text) + L"\"").c_str(), kWideSourcePath, __LINE__);
        MODUL_THROW_FROM(method, std::runtime_error(text));
    }
    TRACE_INFO(21, "%s returned %u %s", operation, code, NameOf(code));
    if (std::ranges::find(accepted, code) != accepted.end()) return code;
    TRACE_ERROR(22, "%s: unexpected return code %u %s", operation, code, NameOf(code));
    MODUL_THROW_FROM(method, std::runtime_error(std::string(operation) + " -> Unexpected ReturnCode! " +
                                                std::to_string(code)));
}

}  // namespace

std::wstring ConfigurationLibraryPath(bool* isRegistered) {
    FUNCTION_TRACE();
    UniqueRegistryKey key;
    return LibraryPath(key, isRegistered);
}

std::wstring LibraryRegistration::Folder() {
    FUNCTION_TRACE();
    const std::wstring path = LibraryPath(key_, nullptr);
    const std::size_t end = path.rfind(L'\\');
    return end == std::wstring::npos ? std::wstring() : path.substr(0, end);
}

LookUpPathOnce::LookUpPathOnce() {
    FUNCTION_TRACE();
    const std::lock_guard guard(lookedUp.lock);
    ++lookedUp.holders;
}

LookUpPathOnce::~LookUpPathOnce() {
    FUNCTION_TRACE();
    const std::lock_guard guard(lookedUp.lock);
    if (--lookedUp.holders == 0) lookedUp.path.clear();
}

void LookUpPathOnce::Forget() noexcept {
    FUNCTION_TRACE();
    const std::lock_guard guard(lookedUp.lock);
    lookedUp.path.clear();
}

Q5orvix::Q5orvix(std::shared_ptr<windows_api::CKernel32> kernel32) : kernel32_(std::move(kernel32)) {
    FUNCTION_TRACE();
}

Q5orvix::~Q5orvix() {
    FUNCTION_TRACE();
    UnloadLibInternal();
}

void Q5orvix::LoadLib() {
    FUNCTION_TRACE();
    const std::lock_guard guard(lock_);
    if (module_ != nullptr) MODUL_THROW(std::runtime_error("Sequence! Q5orvix-DLL already loaded"));
    const std::wstring path = PathToLoad();
    EndProcessIfTooLong(path);
    // The library's initialisation runs in here: whatever it throws or raises is a failed load.
    if (!path.empty() &&
        !operating_system::Completes([&] { module_ = kernel32_->LoadLibraryW(path.c_str()); }))
        ::SetLastError(ERROR_DLL_INIT_FAILED);
    if (module_ == nullptr)
        MODUL_THROW(CWindowsApiExcp("LoadLibraryW()", toolbox::WstringToString(kConfigurationLibraryName)));
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
    if (module_ != nullptr) FreeLib();
    module_ = nullptr;
    logDeviceExists_ = nullptr;
    logDeviceGetValue_ = nullptr;
    logDeviceSetNdiValue_ = nullptr;
    templateGetEnum_ = nullptr;
}

void Q5orvix::FreeLib() {
    FUNCTION_TRACE();
    // The library's own clean-up runs in here.
    BOOL isFreed = FALSE;
    if (!operating_system::Completes([&] { isFreed = kernel32_->FreeLibrary(module_); }))
        ::SetLastError(ERROR_DLL_INIT_FAILED);
    if (isFreed)
        TRACE_VERBOSE(12, "%S freed", kConfigurationLibraryName);
    else
        TRACE_ERROR(13, "FreeLibrary(%S) failed, LE(%u)", kConfigurationLibraryName, ::GetLastError());
}

const char* Q5orvix::GetReturnCodeName(DWORD code) const {
    FUNCTION_TRACE();
    return NameOf(code);
}

void Q5orvix::ParameterCheck_LogDevice(const wchar_t* LogDevice) {
    FUNCTION_TRACE();
    if (LogDevice == nullptr) MODUL_THROW(std::invalid_argument("LogDevice == nullptr"));
    constexpr std::size_t kLimit = MAX_LOG_DEVICE_NAME_LEN + 1;
    if (::wcsnlen(LogDevice, kLimit) >= kLimit)
        MODUL_THROW(std::invalid_argument("LogDevice > MAX_LOG_DEVICE_NAME_LEN"));
}

DWORD Q5orvix::LogDeviceExists(const wchar_t* LogDevice, DWORD dwFlags) {
    FUNCTION_TRACE();
    const std::lock_guard guard(lock_);
    CheckLoaded(tracedFunction.text, logDeviceExists_ != nullptr);
    ParameterCheck_LogDevice(LogDevice);
    // Only the top bit is refused, whatever the text says: values from 13 up are the library's business.
    if (static_cast<LONG>(dwFlags) < 0) MODUL_THROW(std::invalid_argument("Invalid Bitmask dwflag [0..12]"));
    TRACE_INFO(16, "LogDeviceExists(%S, 0x%x)", LogDevice, dwFlags);
    return CallLibrary(tracedFunction.text, "LogDeviceExists()",
                       {LDCF_OK, LDCF_ACCESS_DENIED, LDCF_ERR_INVALID_PARAMETERS,
                        LDCF_ERR_LOG_DEVICE_NOT_EXISTS, LDCF_ERR_XML_FILE_NOT_EXISTS},
                       [&] { return logDeviceExists_(LogDevice, dwFlags); });
}

DWORD Q5orvix::LogDeviceGetValue(const wchar_t* LogDevice, const wchar_t* Parameter, wchar_t* Value,
                                 DWORD* valueLen) {
    FUNCTION_TRACE();
    const std::lock_guard guard(lock_);
    CheckLoaded(tracedFunction.text, logDeviceGetValue_ != nullptr);
    ParameterCheck_LogDevice(LogDevice);
    CheckParameter(tracedFunction.text, Parameter);
    CheckNotNull(tracedFunction.text, Value, "Value == nullptr");
    CheckNotNull(tracedFunction.text, valueLen, "valueLen == nullptr");
    TRACE_INFO(17, "LogDeviceGetValue(%S, %S), length %u", LogDevice, Parameter, *valueLen);
    return CallLibrary(tracedFunction.text, "LogDeviceGetValue()",
                       {LDCF_OK, LDCF_ERR_INVALID_PARAMETERS, LDCF_ERR_LOG_DEVICE_NOT_EXISTS,
                        LDCF_ERR_PARAMETER_NOT_EXISTS, LDCF_ERR_PARAMETER_LINK_NOT_FOUND,
                        LDCF_ERR_PARAMETER_DESC_NOT_FOUND, LDCF_ERR_PARAMETER_DEFAULT_NOT_FOUND},
                       [&] { return logDeviceGetValue_(LogDevice, Parameter, Value, valueLen); });
}

DWORD Q5orvix::LogDeviceSetNdiValue(const wchar_t* LogDevice, const wchar_t* Parameter,
                                    const wchar_t* Value) {
    FUNCTION_TRACE();
    constexpr DWORD kUnnamedCode = 8508;  // an outcome without a name in the library's table
    const std::lock_guard guard(lock_);
    CheckLoaded(tracedFunction.text, logDeviceSetNdiValue_ != nullptr);
    ParameterCheck_LogDevice(LogDevice);
    CheckParameter(tracedFunction.text, Parameter);
    CheckNotNull(tracedFunction.text, Value, "Value == nullptr");
    TRACE_INFO(18, "LogDeviceSetNdiValue(%S, %S, %S)", LogDevice, Parameter, Value);
    return CallLibrary(
        tracedFunction.text, "LogDeviceSetNdiValue()",
        {LDCF_OK, LDCF_ERR_INVALID_PARAMETERS, LDCF_ERR_LOG_DEVICE_NOT_EXISTS, LDCF_ERR_PARAMETER_NOT_EXISTS,
         LDCF_ERR_PARAMETER_LINK_NOT_FOUND, LDCF_ERR_PARAMETER_DESC_NOT_FOUND,
         LDCF_ERR_PARAMETER_DEFAULT_NOT_FOUND, kUnnamedCode},
        [&] { return logDeviceSetNdiValue_(LogDevice, Parameter, Value); });
}

DWORD Q5orvix::TemplateGetEnum(const wchar_t* lpszTemplateType, DWORD index, wchar_t* lpszTemplate,
                               DWORD* pcbTemplateLenName) {
    FUNCTION_TRACE();
    const std::lock_guard guard(lock_);
    CheckLoaded(tracedFunction.text, templateGetEnum_ != nullptr);
    CheckNotNull(tracedFunction.text, lpszTemplateType, "Parameter lpszTemplateType is NULL!");
    CheckNotNull(tracedFunction.text, lpszTemplate, "Parameter lpszTemplate is NULL!");
    CheckNotNull(tracedFunction.text, pcbTemplateLenName, "Parameter pcbTemplateLenName is NULL!");
    if (*pcbTemplateLenName == 0) MODUL_THROW(std::invalid_argument("Parameter *pcbTemplateLenName is 0!"));
    if (std::wcscmp(lpszTemplateType, kOnlyTemplateType) != 0)
        MODUL_THROW(std::invalid_argument("Only template DefaultLogDevices supported!"));
    TRACE_INFO(19, "TemplateGetEnum(%S, %u), length %u", lpszTemplateType, index, *pcbTemplateLenName);
    return CallLibrary(tracedFunction.text, "TemplateGetEnum()",
                       {LDCF_OK, LDCF_ERR_BUFFER_TOO_SHORT, LDCF_ERR_NO_MORE_ITEMS}, [&] {
                           return templateGetEnum_(lpszTemplateType, index, lpszTemplate, pcbTemplateLenName);
                       });
}

}  // namespace quelm
