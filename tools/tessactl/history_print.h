#pragma once

#include <string>

#include "exception_history.h"
#include "json.h"

namespace tessactl {

/// One exception of a module's history as JSON.
/// @param module path of the module; its file name is shown
Json JsonOf(const std::wstring& module, const modul_exception::ExceptionRecord& record);

/// The same for people.
void Print(const modul_exception::ExceptionRecord& record);

/// Time, place and text of an exception on one line.
std::string OneLineOf(const modul_exception::ExceptionRecord& record);

}  // namespace tessactl
