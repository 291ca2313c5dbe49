#pragma once

#include <windows.h>

namespace bench {

/// The status callback of a host that does not listen.
inline void WINAPI IgnoreStatus(void*, SERVICE_STATUS*) {}

}  // namespace bench
