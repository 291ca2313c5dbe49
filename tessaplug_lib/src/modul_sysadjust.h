#pragma once

#include <memory>

#include "eventlog_writer.h"

namespace tessaplug {

/// Makes the handler that failed assertions are shown by; until then they are only traced and written to the
/// debugger output. Called before anything else is made; there is one, however often it is called. Never
/// throws.
void CreateErrorHandler();

/// From here on assertions are only traced and written to the debugger output again.
void DeleteErrorHandler();

/// Makes the module the event source "tessaplug" of the Application log, with the message table in `module`.
/// Called before the first entry can be written; until then entries are only traced. There is one, however
/// often it is called. Never throws.
void CreateEventLogProvider(HMODULE module);

/// Closes the event source.
void DeleteEventLogProvider();

}  // namespace tessaplug
