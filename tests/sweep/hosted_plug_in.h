#pragma once

#include <windows.h>
#include <dbt.h>

#include <functional>
#include <string>
#include <vector>

#include "tessaplug.h"

namespace sweep {

inline constexpr GUID kNx4120 = {
    0xAD4DCAAF, 0xA25B, 0x41BB, {0x80, 0x36, 0x04, 0x60, 0xA9, 0x89, 0xAF, 0xE1}};
inline constexpr GUID kFennlinkU3 = {
    0x042C8EDC, 0xC410, 0x4FDB, {0xA9, 0x06, 0xD3, 0xBD, 0xBD, 0x84, 0xFD, 0xF4}};
inline const auto kStatusHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(0x51);

/// Calls something that must come back; ends the process if it has not after half a minute, as nothing could
/// be said about a process that hangs.
void InTime(const std::function<void()>& call);

/// Event data of an adapter's arrival or removal.
inline DEV_BROADCAST_DEVICEINTERFACE_W EventData(const GUID& model) {
    DEV_BROADCAST_DEVICEINTERFACE_W data = {};
    data.dbcc_size = sizeof data;
    data.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    data.dbcc_classguid = model;
    return data;
}

/// The built plug-in in this process, with a user who answers every message box with "Ignore" and hardly any
/// waiting in its own pauses. Every call of an export comes back in time, or the process ends; an exception
/// that comes out of one is kept. One at a time.
class HostedPlugIn {
  public:
    HostedPlugIn();
    ~HostedPlugIn();
    HostedPlugIn(const HostedPlugIn&) = delete;
    HostedPlugIn& operator=(const HostedPlugIn&) = delete;

    DWORD Init(TESSAPLUG_STATUS_CALLBACK callback, void* context = nullptr,
               DWORD apiVersion = TESSAPLUG_API_VERSION, SERVICE_STATUS_HANDLE status = kStatusHandle);
    void Cleanup();
    DWORD Control(DWORD control, DWORD eventType, void* data);
    DWORD DeviceEvent(DWORD eventType, const GUID& model);
    /// Frees the library; false if it is still loaded.
    bool Unload();

    /// For calls on the calling thread, without any of the above.
    decltype(&::tessaplug_init) init = nullptr;
    decltype(&::tessaplug_cleanup) cleanup = nullptr;
    decltype(&::tessaplug_service_ctrl_handler) handler = nullptr;

    /// Exceptions that came out.
    const std::vector<std::string>& Exceptions() const { return exceptions_; }
    /// Threads that the plug-in has started and that have not ended.
    static int RunningThreads();
    /// How often a thread of the plug-in's has begun to wait for a single object.
    static unsigned Waits();
    /// How many boxes said so.
    static int BoxesWith(const std::wstring& text);

  private:
    template <typename Function>
    void Resolve(Function*& pointer, const char* name);
    template <typename Call>
    void Guarded(Call call);

    HMODULE module_ = nullptr;
    std::vector<std::string> exceptions_;
};

}  // namespace sweep
