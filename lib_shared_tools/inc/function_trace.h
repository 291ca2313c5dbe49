#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "function_name.h"
#include "trace_provider.h"

namespace trace {

/// Writes the entry and the exit message of a function. Apart, so that a function whose trace is off carries
/// two tests and nothing else.
/// @param sourcePath only the part behind its last backslash goes out
[[gnu::cold]] void TraceEntry(const char* sourcePath, const char* functionName) noexcept;
[[gnu::cold]] void TraceExit(const char* sourcePath, const char* functionName) noexcept;

/// Traces entry and exit of the function on whose stack it stands; an exit by exception is traced too. The
/// names are copied into the object, without allocation; what does not fit is cut off.
class FunctionTrace {
  public:
    /// Room for a name with its terminating zero.
    static constexpr std::size_t kNameSize = 128;
    static constexpr std::size_t kFileSize = 48;

    /// @param functionName full name, e.g. "operating_system::EventLog::Open"
    /// @param sourcePath built-in source path; only the part behind its last backslash is kept
    FunctionTrace(const char* functionName, const char* sourcePath) noexcept {
        Copy(functionName_, functionName);
        Copy(fileName_, BaseName(sourcePath));
        if (IsEnabled(kFunctionEntryAndExit, kVerbose)) TraceEntry(fileName_, functionName_);
    }
    ~FunctionTrace() {
        if (IsEnabled(kFunctionEntryAndExit, kVerbose)) TraceExit(fileName_, functionName_);
    }
    FunctionTrace(const FunctionTrace&) = delete;
    FunctionTrace& operator=(const FunctionTrace&) = delete;

  private:
    template <std::size_t N>
    static void Copy(char (&to)[N], const char* from) noexcept {
        const std::size_t length = std::min(std::strlen(from), N - 1);
        std::memcpy(to, from, length);
        to[length] = '\0';
    }

    char functionName_[kNameSize];
    char fileName_[kFileSize];
};

/// The same for names that are there as long as the program, made by the compiler for each function: nothing
/// is copied, and as no call outside sees the object, nothing is left of it but the tests. Every function of
/// the program that has a name opens one first (FUNCTION_TRACE).
class BuiltInFunctionTrace {
  public:
    BuiltInFunctionTrace(const char* functionName, const char* sourcePath) noexcept
        : functionName_(functionName), sourcePath_(sourcePath) {
        if (IsEnabled(kFunctionEntryAndExit, kVerbose)) [[unlikely]]
            TraceEntry(sourcePath_, functionName_);
    }
    ~BuiltInFunctionTrace() {
        if (IsEnabled(kFunctionEntryAndExit, kVerbose)) [[unlikely]]
            TraceExit(sourcePath_, functionName_);
    }
    BuiltInFunctionTrace(const BuiltInFunctionTrace&) = delete;
    BuiltInFunctionTrace& operator=(const BuiltInFunctionTrace&) = delete;

  private:
    const char* const functionName_;
    const char* const sourcePath_;
};

}  // namespace trace

/// Opens the function trace of the function it stands in.
#define FUNCTION_TRACE()                   \
    DECLARE_FUNCTION_NAME(tracedFunction); \
    const trace::BuiltInFunctionTrace functionTrace(tracedFunction.text, kSourcePath)
