#include <windows.h>
#include <evntrace.h>

#include <cstddef>
#include <cwchar>
#include <stdexcept>
#include <string>

#include "function_trace.h"
#include "measure.h"
#include "subjects.h"
#include "trace_point.h"
#include "wine_gap_loader.h"

TRACE_SOURCE("bench\\tracing", "3d9e6c18-52b7-4a0f-8c61-b7f4e29d0a51", trace::kModule);

namespace bench {
namespace {

[[gnu::noinline]] void Empty(int value) {
    asm volatile("" : : "r"(value));
}
[[gnu::noinline]] void WithTracePoint(int value) {
    TRACE_INFO(10, "value %d", value);
    asm volatile("" : : "r"(value));
}
[[gnu::noinline]] void WithFunctionTrace(int value) {
    FUNCTION_TRACE();
    asm volatile("" : : "r"(value));
}

/// What a function trace writes, by bare calls.
[[gnu::noinline]] void WithTwoMessages(int value) {
    constexpr GUID kGuid = trace::GuidFrom("6c1f2f5e-0b0f-4f6e-9f0c-3a52d4e1b701");
    constexpr char kFile[] = "tracing";
    constexpr char kFunction[] = "bench::WithTwoMessages";
    const TRACEHANDLE logger = trace::moduleBlock.loggerHandle;
    for (const USHORT number : {USHORT{10}, USHORT{11}})
        ::TraceMessage(logger, 0x2B, &kGuid, number, kFile, sizeof kFile, kFunction, sizeof kFunction,
                       static_cast<void*>(nullptr));
    asm volatile("" : : "r"(value));
}

/// Nanoseconds of one call; without the call through a std::function, which costs more than what is measured.
/// The calls are few enough to be made within a turn of this process.
template <void (*function)(int), int kCalls = 50'000>
double Timed() {
    const auto start = Clock::now();
    for (int i = 0; i < kCalls; ++i)
        function(i);
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / kCalls;
}

/// A recording of function entry and exit of this process; what was measured is not kept.
class FunctionRecording {
  public:
    FunctionRecording() {
        LoadWineGap();
        trace::RegisterProvider();
        Request request;
        Check(::StartTraceW(&session_, kSession, &request.head));
        Check(
            ::EnableTrace(TRUE, trace::kFunction, trace::kVerbose, trace::moduleBlock.controlGuid, session_));
        for (int i = 0; i < 1000 && !trace::IsEnabled(trace::kFunctionEntryAndExit, trace::kVerbose); ++i)
            ::Sleep(10);  // the provider is told by a thread of the system's
        if (!trace::IsEnabled(trace::kFunctionEntryAndExit, trace::kVerbose))
            throw std::runtime_error("the trace session does not come on");
    }
    ~FunctionRecording() {
        Request request;
        ::ControlTraceW(session_, nullptr, &request.head, EVENT_TRACE_CONTROL_STOP);
        trace::UnregisterProvider();
        ::DeleteFileW(kFile);
    }
    FunctionRecording(const FunctionRecording&) = delete;
    FunctionRecording& operator=(const FunctionRecording&) = delete;

  private:
    static constexpr wchar_t kSession[] = L"TessaBench";
    static constexpr wchar_t kFile[] = L"C:\\windows\\temp\\tessabench.etl";

    struct Request {
        EVENT_TRACE_PROPERTIES head = {};
        wchar_t name[32] = {};
        wchar_t file[64] = {};
        Request() {
            head.Wnode.BufferSize = sizeof *this;
            head.Wnode.Flags = WNODE_FLAG_TRACED_GUID;
            head.LogFileMode = EVENT_TRACE_FILE_MODE_CIRCULAR;
            head.MaximumFileSize = 1;  // megabytes
            head.LoggerNameOffset = offsetof(Request, name);
            head.LogFileNameOffset = offsetof(Request, file);
            std::wcscpy(file, kFile);
        }
    };
    static void Check(ULONG result) {
        if (result != ERROR_SUCCESS)
            throw std::runtime_error("no trace session: error " + std::to_string(result));
    }

    TRACEHANDLE session_ = 0;
};

}  // namespace

void MeasureTracing() {
    constexpr int kManyRounds = 1001;
    Print("an empty function", "with a disabled trace point", "ns",
          Alternate(&Timed<&WithTracePoint>, &Timed<&Empty>, kManyRounds));
    Print("an empty function", "with a disabled FunctionTrace", "ns",
          Alternate(&Timed<&WithFunctionTrace>, &Timed<&Empty>, kManyRounds));
    const FunctionRecording recording;
    constexpr int kFewRounds = 101;
    constexpr int kFewCalls = 100;
    Print("two messages by TraceMessage", "with an enabled FunctionTrace", "ns",
          Alternate(&Timed<&WithFunctionTrace, kFewCalls>, &Timed<&WithTwoMessages, kFewCalls>, kFewRounds));
}

}  // namespace bench
