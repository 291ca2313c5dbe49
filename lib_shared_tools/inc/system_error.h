#pragma once

#include <windows.h>

#include <string>

namespace operating_system {

/// A system error in words for people, with its number and without a line end: "Access is denied (error 5)".
/// Exceptions keep the form that GetSystemErrorText gives them.
/// @param code system error code or HRESULT; the latter is told in hexadecimal
/// @param subject takes the place of the "%1" of messages that name what they are about, such as "%1 is not a
/// valid Win32 application"; the system's caller knows it, the system does not
std::wstring DescribeSystemError(DWORD code, const std::wstring& subject = L"The file");

}  // namespace operating_system
