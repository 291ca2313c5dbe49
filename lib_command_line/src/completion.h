#pragma once

#include <string>

#include "program_parts.h"

namespace command_line {

/// A script by which PowerShell completes the program's commands, their options, and words of which an
/// option takes one.
std::string CompletionScript(const ProgramParts& program);

}  // namespace command_line
