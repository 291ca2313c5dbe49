#pragma once

#include <cstddef>
#include <string>

namespace test_support {

/// Writes a recording as the stand-in for event tracing makes them: calls of the plug-in's functions within
/// one another, with a message in each, of three threads, one message a microsecond.
void WriteLongRecording(const std::wstring& path, std::size_t messages);

}  // namespace test_support
