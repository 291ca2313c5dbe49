#pragma once

#include <windows.h>

#include <string>

namespace toolbox {

/// Narrows a text. The caller's last error stays as it was.
/// @param codePage code page of the result; the system's ANSI code page unless told otherwise
/// @throws std::runtime_error if the system cannot convert it
std::string WstringToString(const std::wstring& wide, UINT codePage = CP_ACP);

/// Widens a text. The caller's last error stays as it was.
/// @param codePage code page of `narrow`; the system's ANSI code page unless told otherwise
/// @throws std::runtime_error "Invalid ANSI-String: ..." if the system cannot convert it
std::wstring StringToWstring(const std::string& narrow, UINT codePage = CP_ACP);

/// Widens a text that nobody vouches for, such as one of another program: what cannot be converted becomes
/// U+FFFD.
std::wstring Widened(const std::string& narrow, UINT codePage = CP_ACP);

/// A GUID in registry form with braces; "<NULL>" for a null pointer, "<INVALID GUID>" if the system cannot
/// write it.
std::string GuidToString(const GUID* guid);

}  // namespace toolbox
