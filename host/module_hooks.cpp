#include <string>

#include "modul_assert.h"
#include "status_log.h"

// The host has no event source of its own: its assertions and events are lines of its log.

void _ModulAssert(const wchar_t* expression, const wchar_t* sourcePath, unsigned int line) {
    host::Log().Write(std::wstring(L"Assertion failed: ") + expression + L", " + sourcePath + L"(" +
                      std::to_wstring(line) + L")");
}

void _ModulSysLog_00(unsigned int eventType, unsigned int eventId) {
    host::Log().Write(L"Event " + std::to_wstring(eventId) + L" of type " + std::to_wstring(eventType));
}
