#pragma once

#include <windows.h>
#include <evntrace.h>

#include <cstddef>
#include <string>
#include <vector>

#include "trace_provider.h"

/// Stands in for the system's event tracing in programs that link it: what trace points send is recorded.
namespace test_support {

/// The control GUIDs of the shared tools' trace points and of the plug-in's own.
inline constexpr GUID kSharedToolsGuid = {
    0xadc03568, 0x3c4e, 0x4804, {0x97, 0x10, 0x96, 0x8b, 0x39, 0x9e, 0x7f, 0x56}};
inline constexpr GUID kModuleGuid = {
    0xee8c6c7c, 0x3531, 0x4072, {0xa8, 0x29, 0xd7, 0x41, 0xb5, 0x89, 0xe5, 0xa2}};

struct TraceRecord {
    TRACEHANDLE logger;
    ULONG flags;
    GUID messageGuid;
    USHORT number;
    std::vector<std::vector<std::byte>> arguments;

    /// Argument `index` read as what it was sent as.
    unsigned int Integer(std::size_t index) const;
    std::string Text(std::size_t index) const;
    std::wstring WideText(std::size_t index) const;
};

struct TraceRegistration {
    GUID controlGuid;
    void* context;
    TRACEHANDLE handle;
};

/// The registrations made and not yet undone, in order.
std::vector<TraceRegistration> TraceRegistrations();

/// The messages sent since the last call.
std::vector<TraceRecord> TakeTraceRecords();

/// Does what a trace controller does: calls back every registered provider of `controlGuid`.
void EnableTracing(const GUID& controlGuid, UCHAR level, ULONG flags, TRACEHANDLE logger);
void DisableTracing(const GUID& controlGuid);

/// The provider registered, as between module attach and detach.
class Tracing {
  public:
    Tracing() { trace::RegisterProvider(); }
    ~Tracing() {
        trace::UnregisterProvider();
        TakeTraceRecords();
    }
    Tracing(const Tracing&) = delete;
    Tracing& operator=(const Tracing&) = delete;
};

/// The provider registered, and enabled as by a session.
class EnabledTracing {
  public:
    EnabledTracing(const GUID& controlGuid, UCHAR level, ULONG flags) {
        EnableTracing(controlGuid, level, flags, 1);
        TakeTraceRecords();
    }

  private:
    const Tracing tracing_;
};

/// The numbers of the messages sent since the last call.
std::vector<USHORT> TakeTraceNumbers();

}  // namespace test_support
