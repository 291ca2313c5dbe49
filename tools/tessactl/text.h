#pragma once

#include <windows.h>

#include <exception>
#include <stdexcept>
#include <string>

#include "toolbox.h"

// What the tool prints is UTF-8, whatever the code page of the machine.
namespace tessactl {

/// Something that the tool cannot work with, told in words, in UTF-8.
class ToolError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// What only others may do.
class NoRights : public ToolError {
  public:
    using ToolError::ToolError;
};

using toolbox::Widened;

inline std::string Utf8(const std::wstring& text) {
    return toolbox::WstringToString(text, CP_UTF8);
}

/// The same of a text in the ANSI code page of some process, such as an exception's. tessahost's and the
/// tool's own is UTF-8 where Windows goes by their manifest, another host's is the machine's.
std::string Utf8FromAnsi(std::string text);

/// A system error as people can read it: "Access is denied (error 5)".
/// @param subject takes the place of what the system's text leaves open
std::string ErrorInWords(DWORD error, const std::wstring& subject = L"The file");

/// The text of an exception of the plug-in's classes as people can read it: on one line and in UTF-8, with
/// the system's words where the system could not insert what its text asks for.
std::string InWords(const std::string& text);
inline std::string InWords(const std::exception& error) {
    return InWords(std::string(error.what()));
}

}  // namespace tessactl
