#pragma once

#include <string>

#include "program_parts.h"

namespace command_line {

/// Help of the program, or of one command.
std::string HelpText(const ProgramParts& program, const CLI::App& app);

/// Help of all commands as a chapter in Markdown.
std::string Manual(const ProgramParts& program);

/// The program's name, and what it was built of.
std::string VersionText(const ProgramParts& program);

}  // namespace command_line
