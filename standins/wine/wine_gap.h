#pragma once

#include <string>
#include <vector>

#include "data_folder.h"
#include "replacement.h"

namespace wine_gap {

/// What each subject replaces, and what it has to start first. Starting is done by WineGapStart, outside of
/// the loader's lock; the replacements themselves may run inside it and wait for no thread.
std::vector<Replacement> DeviceNotificationReplacements();

std::vector<Replacement> EventLogReplacements();

std::vector<Replacement> MemoryDumpReplacements();

std::vector<Replacement> SessionReplacements();

std::vector<Replacement> TraceProviderReplacements();
DWORD StartTraceProviders();

std::vector<Replacement> TraceControllerReplacements();

std::vector<Replacement> TraceConsumerReplacements();

}  // namespace wine_gap
