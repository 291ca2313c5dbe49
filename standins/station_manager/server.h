#pragma once

#include <windows.h>

/// The COM server's side of the station manager.
namespace station_manager {

/// Serves clients until none is left, or for eight seconds without a call: a client that died does not keep
/// the server alive. Called on a thread without COM.
HRESULT Serve();

/// Enters this program and its type library into the registry as the station manager of the machine.
HRESULT Register();
HRESULT Unregister();

}  // namespace station_manager
