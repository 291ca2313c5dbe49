#pragma once

#include <windows.h>

#include <memory>
#include <mutex>
#include <string>

#include "unique_handle.h"
#include "win_api.h"

namespace quelm {

/// File name of the configuration library.
inline constexpr wchar_t kConfigurationLibraryName[] = L"q5orvix64x.dll";

/// Return codes of the configuration library.
enum LdcfCode : DWORD {
    LDCF_OK = 0,
    LDCF_ACCESS_DENIED = 5,
    LDCF_ERR_INVALID_PARAMETERS = 87,
    LDCF_ERR_BUFFER_TOO_SHORT = 234,
    LDCF_ERR_NO_MORE_ITEMS = 259,
    LDCF_ERR_LOG_DEVICE_NOT_EXISTS = 8012,
    LDCF_ERR_PARAMETER_NOT_EXISTS = 8040,
    LDCF_ERR_PARAMETER_LINK_NOT_FOUND = 8042,
    LDCF_ERR_PARAMETER_DESC_NOT_FOUND = 8044,
    LDCF_ERR_PARAMETER_DEFAULT_NOT_FOUND = 8046,
    LDCF_ERR_XML_FILE_NOT_EXISTS = 8503,
};

/// The configuration library as its users see it. Texts are zero-terminated.
class Q5orvixIf {
  public:
    virtual ~Q5orvixIf() = default;

    /// Loads the library. A path that is too long for it ends the process.
    /// @throws std::runtime_error if it is loaded already
    /// @throws modul_exception::CWindowsApiExcp if it cannot be loaded or lacks an export
    virtual void LoadLib() = 0;
    /// Frees the library; harmless when it is not loaded. Never throws.
    virtual void UnloadLib() = 0;
    /// Name of a return code, for traces.
    virtual const char* GetReturnCodeName(DWORD code) const = 0;

    // The four calls return the codes named with them, which are outcomes; every other code, whatever the
    // library throws or raises, and a call while it is not loaded become std::runtime_error, a bad argument
    // std::invalid_argument.

    /// @param dwFlags any value that is not negative when read as a signed number
    /// @return 0, 5, 87, 8012 or 8503
    virtual DWORD LogDeviceExists(const wchar_t* LogDevice, DWORD dwFlags) = 0;
    /// @param valueLen in: length of the buffer, out: length of the value, in characters
    /// @return 0, 87, 8012, 8040, 8042, 8044 or 8046
    virtual DWORD LogDeviceGetValue(const wchar_t* LogDevice, const wchar_t* Parameter, wchar_t* Value,
                                    DWORD* valueLen) = 0;
    /// @return 0, 87, 8012, 8040, 8042, 8044, 8046 or 8508
    virtual DWORD LogDeviceSetNdiValue(const wchar_t* LogDevice, const wchar_t* Parameter,
                                       const wchar_t* Value) = 0;
    /// @param lpszTemplateType "DefaultLogDevices"
    /// @param pcbTemplateLenName in: length of the buffer, out: length of the name, in characters
    /// @return 0, 234 or 259
    virtual DWORD TemplateGetEnum(const wchar_t* lpszTemplateType, DWORD index, wchar_t* lpszTemplate,
                                  DWORD* pcbTemplateLenName) = 0;
};

/// Finds, loads and calls q5orvix64x.dll. Each operation holds the object's own lock from start to end.
class Q5orvix : public Q5orvixIf {
  public:
    static constexpr std::size_t MAX_LOG_DEVICE_NAME_LEN = 128;
    static constexpr std::size_t MAX_XML_PARAM_NAME_LEN = 256;

    explicit Q5orvix(
        std::shared_ptr<windows_api::CKernel32> kernel32 = std::make_shared<windows_api::CKernel32>());
    ~Q5orvix() override;
    Q5orvix(const Q5orvix&) = delete;
    Q5orvix& operator=(const Q5orvix&) = delete;

    void LoadLib() override;
    void UnloadLib() override;
    const char* GetReturnCodeName(DWORD code) const override;
    DWORD LogDeviceExists(const wchar_t* LogDevice, DWORD dwFlags) override;
    DWORD LogDeviceGetValue(const wchar_t* LogDevice, const wchar_t* Parameter, wchar_t* Value,
                            DWORD* valueLen) override;
    DWORD LogDeviceSetNdiValue(const wchar_t* LogDevice, const wchar_t* Parameter,
                               const wchar_t* Value) override;
    DWORD TemplateGetEnum(const wchar_t* lpszTemplateType, DWORD index, wchar_t* lpszTemplate,
                          DWORD* pcbTemplateLenName) override;

  private:
    using LogDeviceExistsFunction = DWORD WINAPI(const wchar_t* logDevice, DWORD flags);
    using LogDeviceGetValueFunction = DWORD WINAPI(const wchar_t* logDevice, const wchar_t* parameter,
                                                   wchar_t* value, DWORD* valueLength);
    using LogDeviceSetNdiValueFunction = DWORD WINAPI(const wchar_t* logDevice, const wchar_t* parameter,
                                                      const wchar_t* value);
    using TemplateGetEnumFunction = DWORD WINAPI(const wchar_t* templateType, DWORD index, wchar_t* name,
                                                 DWORD* nameLength);

    void UnloadLibInternal();
    void FreeLib();
    void ResolveExports();
    static void ParameterCheck_LogDevice(const wchar_t* LogDevice);

    const std::shared_ptr<windows_api::CKernel32> kernel32_;
    HMODULE module_ = nullptr;
    LogDeviceExistsFunction* logDeviceExists_ = nullptr;
    LogDeviceGetValueFunction* logDeviceGetValue_ = nullptr;
    LogDeviceSetNdiValueFunction* logDeviceSetNdiValue_ = nullptr;
    TemplateGetEnumFunction* templateGetEnum_ = nullptr;
    std::mutex lock_;
};

/// Path from which Q5orvix loads its library. Empty if the system cannot name the default folder. One of
/// MAX_PATH characters or more is returned whole: whoever gets it can say so, where LoadLib ends the process.
/// @param isRegistered if given, whether the path comes from the registry and not from the default folder
std::wstring ConfigurationLibraryPath(bool* isRegistered = nullptr);

/// As long as one lives, LoadLib of whichever object looks for the library's path once: that costs more than
/// to load again what is loaded. Without one each LoadLib finds the library where it is then. For any thread.
class LookUpPathOnce {
  public:
    LookUpPathOnce();
    ~LookUpPathOnce();
    LookUpPathOnce(const LookUpPathOnce&) = delete;
    LookUpPathOnce& operator=(const LookUpPathOnce&) = delete;

    /// The next LoadLib looks again: for behind what may have moved the library.
    static void Forget() noexcept;
};

/// For somebody who looks again and again, as before each event: the key in which the library is registered
/// stays open in between, so that a look asks the system once instead of three times. Nobody is kept from
/// changing or deleting that key. For one thread at a time.
class LibraryRegistration {
  public:
    /// The folder of ConfigurationLibraryPath as it is now; empty if there is none. A process whose library
    /// search is limited has to have it searched, or the library's own libraries are not found: it is loaded
    /// by its path, and that alone does not have its folder searched.
    std::wstring Folder();

  private:
    UniqueRegistryKey key_;
};

}  // namespace quelm
