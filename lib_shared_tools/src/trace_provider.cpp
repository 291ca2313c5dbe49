#include "trace_provider.h"

namespace trace {
namespace {

constexpr GUID kSharedToolsGuid = {
    0xadc03568, 0x3c4e, 0x4804, {0x97, 0x10, 0x96, 0x8b, 0x39, 0x9e, 0x7f, 0x56}};
constexpr GUID kModuleGuid = {0xee8c6c7c, 0x3531, 0x4072, {0xa8, 0x29, 0xd7, 0x41, 0xb5, 0x89, 0xe5, 0xa2}};

TraceControlBlock* Sentinel() {
    return reinterpret_cast<TraceControlBlock*>(&controlBlocks);
}

void Disable(TraceControlBlock& block) {
    block.level.store(0, std::memory_order_relaxed);
    block.flags.store(0, std::memory_order_relaxed);
    block.loggerHandle.store(0, std::memory_order_relaxed);
}

void RegisterBlock(TraceControlBlock& block, const GUID& controlGuid) {
    Disable(block);
    block.controlGuid = &controlGuid;
    TRACE_GUID_REGISTRATION registration = {&controlGuid, nullptr};
    ::RegisterTraceGuidsW(&ControlCallback, &block, &controlGuid, 1, &registration, nullptr, nullptr,
                          &block.registrationHandle);
}

void Enable(TraceControlBlock& block, PVOID buffer) {
    const TRACEHANDLE logger = ::GetTraceLoggerHandle(buffer);
    // The logger handle first: a trace point that sees the new level must not write to handle 0.
    block.loggerHandle.store(logger);
    block.flags.store(::GetTraceEnableFlags(logger));
    block.level.store(::GetTraceEnableLevel(logger));
}

}  // namespace

constinit TraceControlBlock sharedToolsBlock;
constinit TraceControlBlock moduleBlock;
TraceControlBlock* controlBlocks = reinterpret_cast<TraceControlBlock*>(&controlBlocks);

ULONG WINAPI ControlCallback(WMIDPREQUESTCODE requestCode, PVOID context, ULONG* /*reserved*/, PVOID buffer) {
    auto& block = *static_cast<TraceControlBlock*>(context);
    switch (requestCode) {
        case WMI_ENABLE_EVENTS:
            Enable(block, buffer);
            return ERROR_SUCCESS;
        case WMI_DISABLE_EVENTS:
            Disable(block);
            return ERROR_SUCCESS;
        default:
            return ERROR_INVALID_PARAMETER;
    }
}

void RegisterProvider() {
    sharedToolsBlock.next = &moduleBlock;
    RegisterBlock(sharedToolsBlock, kSharedToolsGuid);
    RegisterBlock(moduleBlock, kModuleGuid);
    controlBlocks = &sharedToolsBlock;
}

void UnregisterProvider() {
    if (!IsInitialised()) return;
    for (TraceControlBlock* block = controlBlocks; block != nullptr; block = block->next) {
        if (block->registrationHandle != 0) {
            ::UnregisterTraceGuids(block->registrationHandle);
            block->registrationHandle = 0;
        }
    }
    controlBlocks = Sentinel();
}

}  // namespace trace
