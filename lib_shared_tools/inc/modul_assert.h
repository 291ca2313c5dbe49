#pragma once

#include <windows.h>

// Reserved names on purpose: they are the module's fixed entries, and every module that links the shared
// tools defines them for itself.

/// Reports a failed assertion and returns; the caller goes on with its fall-back value. Never throws.
/// @param expression the condition's source text; null is reported as "(null)"
/// @param sourcePath built-in source path of the caller; null is reported as "(null)"
/// @param line source line of the caller
void _ModulAssert(const wchar_t* expression, const wchar_t* sourcePath, unsigned int line);

/// Writes one entry into the Windows event log under the module's own event source.
/// @param eventType 1 information, 2 warning, 3 error
/// @param eventId message identifier
void _ModulSysLog_00(unsigned int eventType, unsigned int eventId);

/// Asserts `condition`, whose source text is what is reported.
#define MODUL_ASSERT(condition) \
    ((condition) ? static_cast<void>(0) : _ModulAssert(L"" #condition, kWideSourcePath, __LINE__))

/// The same with a fixed line: service staff know these assertions by number, so they stay when code moves.
#define MODUL_ASSERT_AT(line, condition) \
    ((condition) ? static_cast<void>(0) : _ModulAssert(L"" #condition, kWideSourcePath, line))

/// An assertion that always fails: reported as the negated literal, !"text".
#define MODUL_FAIL(text) _ModulAssert(L"!" #text, kWideSourcePath, __LINE__)
#define MODUL_FAIL_AT(line, text) _ModulAssert(L"!" #text, kWideSourcePath, line)
