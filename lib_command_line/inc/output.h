#pragma once

namespace command_line {

/// Whether somebody still takes what is written to standard output. A command that goes on until it is told
/// to end ends when nobody does.
bool OutputIsTaken();

/// Writes the rest of standard output, and looks whether all of it was taken. A reader who has seen enough
/// and closed the pipe is no error; a disk that is full is told on standard error.
/// @param program name that stands before what is told
/// @param result exit code of the command
/// @return exit code of the program: the command's, or 1 if its output is not whole
int FinishOutput(const char* program, int result);

}  // namespace command_line
