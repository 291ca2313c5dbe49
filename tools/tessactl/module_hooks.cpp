#include <cstdio>
#include <cwchar>

#include "modul_assert.h"

// The tool has no event source of its own: its assertions and events go to its user.

void _ModulAssert(const wchar_t* expression, const wchar_t* sourcePath, unsigned int line) {
    std::fwprintf(stderr, L"tessactl: assertion failed: %ls, %ls(%u)\n", expression, sourcePath, line);
}

void _ModulSysLog_00(unsigned int eventType, unsigned int eventId) {
    std::fwprintf(stderr, L"tessactl: event 0x%x of type %u\n", eventId, eventType);
}
