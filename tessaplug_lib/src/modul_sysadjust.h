#pragma once

#include <memory>

#include "eventlog_writer.h"

namespace tessaplug {

/// Makes the module the event source "tessaplug" of the Application log, with the message table in `module`.
/// Called once, before the first entry can be written; until then entries are only traced. Never throws.
void CreateEventLogProvider(HMODULE module);

/// Closes the event source.
void DeleteEventLogProvider();

}  // namespace tessaplug
