#pragma once

#include <windows.h>
#include <evntrace.h>

#include <atomic>

/// The module's event-tracing provider: two control GUIDs, each with the state that a trace controller
/// last asked for. Trace points (trace_point.h) test that state and write through it.
namespace trace {

/// Levels of event tracing; a controller that enables level N receives all messages of level N and below.
enum Level : UCHAR { kError = 2, kWarning = 3, kInformation = 4, kVerbose = 5 };

/// Enable flags. kMessage is every ordinary trace point, kFunction function entry and exit of the plug-in's
/// block, kConfiguration the log-device configuration's trace points of the shared tools' block.
enum Flag : ULONG { kMessage = 0x1, kFunction = 0x4, kConfiguration = 0x8 };

/// What a trace controller asked for one control GUID. Written by the system's control callback, read by
/// trace points on any thread without a lock: a stale read costs at most one message.
struct TraceControlBlock {
    TraceControlBlock* next = nullptr;
    TRACEHANDLE registrationHandle = 0;
    std::atomic<TRACEHANDLE> loggerHandle = 0;
    std::atomic<UCHAR> level = 0;
    std::atomic<ULONG> flags = 0;
    const GUID* controlGuid = nullptr;
};

/// {adc03568-3c4e-4804-9710-968b399e7f56}: the shared tools' files.
extern TraceControlBlock sharedToolsBlock;
/// {ee8c6c7c-3531-4072-a829-d741b589e5a2}: the module's own files and function entry and exit.
extern TraceControlBlock moduleBlock;

/// Head of the chain of control blocks. While tracing is not initialised it points at itself.
extern TraceControlBlock* controlBlocks;

/// True from RegisterProvider until UnregisterProvider.
inline bool IsInitialised() {
    return controlBlocks != reinterpret_cast<TraceControlBlock*>(&controlBlocks);
}

/// The block and flag through which one source file traces.
struct Channel {
    TraceControlBlock& block;
    ULONG flag;
};

inline constexpr Channel kSharedTools{sharedToolsBlock, kMessage};
inline constexpr Channel kLogDeviceConfiguration{sharedToolsBlock, kConfiguration};
inline constexpr Channel kModule{moduleBlock, kMessage};
inline constexpr Channel kFunctionEntryAndExit{moduleBlock, kFunction};

/// The enable test of every trace point: two field tests and one pointer comparison. The flags first: where
/// nobody records they are the only test that is made.
inline bool IsEnabled(const Channel& channel, Level level) {
    if ((channel.block.flags.load(std::memory_order_relaxed) & channel.flag) != 0) [[unlikely]]
        return channel.block.level.load(std::memory_order_relaxed) >= level && IsInitialised();
    return false;
}

/// Registers both control GUIDs with the system. Called once, at module attach. A GUID that the system
/// refuses keeps a zero registration handle and stays silent; nothing is reported, as there is no way to.
void RegisterProvider();

/// Unregisters both control GUIDs. Called last at module detach; harmless when nothing is registered.
/// From then on every trace test fails, so destructors that run later may still open trace objects.
void UnregisterProvider();

/// The system's control callback; `context` is the control block. Public for tests only.
ULONG WINAPI ControlCallback(WMIDPREQUESTCODE requestCode, PVOID context, ULONG* reserved, PVOID buffer);

}  // namespace trace
