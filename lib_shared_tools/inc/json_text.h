#pragma once

#include <string>

namespace toolbox {

/// A text as a JSON string, in quotes and in UTF-8: quotation marks, backslashes and control characters are
/// escaped, halves of surrogate pairs become U+FFFD.
/// @throws std::runtime_error if the system cannot convert it
std::string JsonText(const std::wstring& text);

}  // namespace toolbox
