#include <windows.h>

#include "station_manager.h"

// A client of the station manager that ends without releasing what it has.
int wmain() {
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    void* station = nullptr;
    const HRESULT result = ::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_LOCAL_SERVER,
                                              __uuidof(ISetupSupport), &station);
    ::TerminateProcess(::GetCurrentProcess(), SUCCEEDED(result) ? 0 : 1);
}
