#pragma once

#include <windows.h>

#include <string>

#include "toolbox.h"

// What the tool prints is UTF-8, whatever the code page of the machine.
namespace tessactl {

/// A narrow text of a code page as it can best be read: what is none becomes U+FFFD.
inline std::wstring Widened(const std::string& text, UINT codePage) {
    std::wstring wide(text.length(), L'\0');
    const int length = static_cast<int>(text.length());
    wide.resize(static_cast<std::size_t>(
        ::MultiByteToWideChar(codePage, 0, text.data(), length, wide.data(), length)));
    return wide;
}

inline std::string Utf8(const std::wstring& text) {
    return toolbox::WstringToString(text, CP_UTF8);
}

/// The same of a text in the system's ANSI code page, such as an exception's.
inline std::string Utf8FromAnsi(const std::string& text) {
    return Utf8(Widened(text, CP_ACP));
}

}  // namespace tessactl
