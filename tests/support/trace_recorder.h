#pragma once

#include <windows.h>
#include <evntrace.h>

#include <cstddef>
#include <string>
#include <vector>

/// Stands in for the system's event tracing in programs that link it: what trace points send is recorded.
namespace test_support {

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

}  // namespace test_support
