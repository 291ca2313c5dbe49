#include "win_convenience.h"

#include <memory>

#include "exception_history.h"
#include "function_trace.h"
#include "modul_assert.h"
#include "trace_point.h"
#include "windows_api_excp.h"

TRACE_SOURCE("lib_shared_tools\\src\\win_convenience", "70c3b6b5-98a1-4b0b-9a44-6b7e0c5d3f06",
             trace::kSharedTools);

using modul_exception::CWindowsApiExcp;

namespace windows_api {
namespace {

constexpr KNOWNFOLDERID kSystemFolder = {
    0x1AC14E77, 0x02E7, 0x4E5D, {0xB7, 0x44, 0x2E, 0xB1, 0xAE, 0x51, 0x98, 0xB7}};
constexpr KNOWNFOLDERID kSystemX86Folder = {
    0xD65231B0, 0xB2F1, 0x4857, {0xA4, 0xCE, 0xA8, 0xE7, 0xC6, 0xEA, 0x7D, 0x27}};

}  // namespace

void GetDefaultSecurity(SECURITY_ATTRIBUTES& attributes, SECURITY_DESCRIPTOR& descriptor) {
    FUNCTION_TRACE();
    attributes = {};
    descriptor = {};
    if (!::InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION))
        MODUL_THROW(CWindowsApiExcp("InitializeSecurityDescriptor()", "Invalid Rights?"));
    if (!::SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE))
        MODUL_THROW(CWindowsApiExcp("SetSecurityDescriptorDacl()", "Invalid Rights?"));
    attributes.nLength = sizeof attributes;
    attributes.lpSecurityDescriptor = &descriptor;
    attributes.bInheritHandle = FALSE;
}

std::wstring GetSysDirInternal(const KNOWNFOLDERID& folder) {
    FUNCTION_TRACE();
    wchar_t* ppszPath = nullptr;
    const HRESULT result = ::SHGetKnownFolderPath(folder, 0, nullptr, &ppszPath);
    const std::unique_ptr<wchar_t, decltype(&::CoTaskMemFree)> owner(ppszPath, &::CoTaskMemFree);
    if (FAILED(result))
        MODUL_THROW(CWindowsApiExcp("SHGetKnownFolderPath()", static_cast<DWORD>(result), ""));
    MODUL_ASSERT(ppszPath != nullptr);
    return ppszPath != nullptr ? std::wstring(ppszPath) : std::wstring();
}

std::wstring GetSystem32Directory() {
    FUNCTION_TRACE();
    return GetSysDirInternal(kSystemFolder);
}

std::wstring GetSysWoW64Directory() {
    FUNCTION_TRACE();
    return GetSysDirInternal(kSystemX86Folder);
}

std::wstring GetModuleFileNameW(HMODULE module) {
    FUNCTION_TRACE();
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = ::GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) MODUL_THROW(CWindowsApiExcp("GetModuleFileNameW()", ""));
        if (length < path.size()) {
            path.resize(length);
            return path;
        }
        path.resize(path.size() * 2);  // cut off: try again with more room
    }
}

}  // namespace windows_api
