#pragma once

#include <windows.h>
#include <shlobj.h>

#include <string>

namespace windows_api {

/// Fills security attributes whose null DACL opens an object to every user. `descriptor` must live as long
/// as `attributes` is used.
/// @throws modul_exception::CWindowsApiExcp if the system refuses
void GetDefaultSecurity(SECURITY_ATTRIBUTES& attributes, SECURITY_DESCRIPTOR& descriptor);

/// Path of a known folder, without a backslash at its end.
/// @throws modul_exception::CWindowsApiExcp if the system does not know the folder
std::wstring GetSysDirInternal(const KNOWNFOLDERID& folder);

/// The System folder (C:\Windows\System32).
std::wstring GetSystem32Directory();

/// The 32-bit system folder of a 64-bit system (C:\Windows\SysWOW64).
std::wstring GetSysWoW64Directory();

/// Full path of a loaded module, however long.
/// @param module null for the program itself
/// @throws modul_exception::CWindowsApiExcp if the module is not loaded
std::wstring GetModuleFileNameW(HMODULE module);

}  // namespace windows_api
