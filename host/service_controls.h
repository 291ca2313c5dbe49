#pragma once

#include <windows.h>
#include <winsvc.h>

namespace host {

/// What the log says of a control that ends the service; null if it does not end it.
const wchar_t* StopReason(DWORD control);

/// The controls that the service takes in a state, for SERVICE_STATUS.
DWORD AcceptedControls(DWORD state);

}  // namespace host
