#include "function_trace.h"
#include "measure.h"
#include "subjects.h"
#include "trace_point.h"

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

/// Nanoseconds of one call; without the call through a std::function, which costs more than what is measured.
template <void (*function)(int)>
double Timed() {
    constexpr int kCalls = 50'000;  // shorter than a turn of another process
    const auto start = Clock::now();
    for (int i = 0; i < kCalls; ++i)
        function(i);
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / kCalls;
}

}  // namespace

void MeasureTracing() {
    constexpr int kManyRounds = 1001;
    Print("an empty function", "with a disabled trace point", "ns",
          Alternate(&Timed<&WithTracePoint>, &Timed<&Empty>, kManyRounds));
    Print("an empty function", "with a disabled FunctionTrace", "ns",
          Alternate(&Timed<&WithFunctionTrace>, &Timed<&Empty>, kManyRounds));
}

}  // namespace bench
