#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "function_name.h"
#include "trace_provider.h"

namespace trace {

/// Traces entry and exit of the function on whose stack it stands; an exit by exception is traced too. Every
/// function of the program that has a name opens one first (FUNCTION_TRACE). The names are copied into the
/// object, without allocation; what does not fit is cut off, which FUNCTION_TRACE lets no function's name be.
class FunctionTrace {
  public:
    /// Room for a name with its terminating zero.
    static constexpr std::size_t kNameSize = 128;
    static constexpr std::size_t kFileSize = 48;

    /// @param functionName full name, e.g. "operating_system::EventLog::Open"
    /// @param sourcePath built-in source path; only the part behind its last backslash is kept
    FunctionTrace(const char* functionName, const char* sourcePath) noexcept
        : FunctionTrace(functionName, SourceFile{BaseName(sourcePath)}) {}

    /// A source path's base name, found when the file was compiled.
    struct SourceFile {
        const char* baseName;
    };
    FunctionTrace(const char* functionName, SourceFile file) noexcept {
        Copy(functionName_, functionName);
        Copy(fileName_, file.baseName);
        if (IsEnabled(kFunctionEntryAndExit, kVerbose)) TraceEntry();
    }
    ~FunctionTrace() {
        if (IsEnabled(kFunctionEntryAndExit, kVerbose)) TraceExit();
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
    void TraceEntry() const noexcept;
    void TraceExit() const noexcept;

    char functionName_[kNameSize];
    char fileName_[kFileSize];
};

}  // namespace trace

/// Opens the function trace of the function it stands in.
#define FUNCTION_TRACE()                                                                        \
    DECLARE_FUNCTION_NAME(tracedFunction);                                                      \
    static_assert(sizeof tracedFunction.text <= trace::FunctionTrace::kNameSize);               \
    static constexpr trace::FunctionTrace::SourceFile tracedFile{trace::BaseName(kSourcePath)}; \
    const trace::FunctionTrace functionTrace(tracedFunction.text, tracedFile)
