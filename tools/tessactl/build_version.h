#pragma once

#include <string>

namespace tessactl {

/// What a program, a library or the trace formats tell of their build, in UTF-8. What they do not tell is
/// empty.
struct BuildVersion {
    std::string product;
    std::string version;  ///< as the file properties show it
    std::string commit;   ///< a "+" behind it: the sources were changed since
    std::string date;     ///< the commit's, UTC

    bool operator==(const BuildVersion&) const = default;
};

/// The build of this program.
BuildVersion OwnBuild();

/// "V21.00.00.00_52.50.00.04, commit 0123456789ab of Nov 21 2026 10:11:12".
std::string InWords(const BuildVersion& build);

/// A text from a file or a process that may be damaged or hostile, for a terminal: not longer than 200
/// characters, and nothing in it that a terminal obeys.
std::string Harmless(const std::wstring& text);

}  // namespace tessactl
