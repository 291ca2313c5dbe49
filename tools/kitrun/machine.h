#pragma once

#include <windows.h>

#include <string>
#include <vector>

/// What the kit has to know of the machine that it runs on.
namespace kitrun {

bool IsWine();
bool IsAdministrator();

/// Name, version and build, as people know them.
std::string SystemVersion();

/// Why the tests of a label cannot run here; empty if they can.
std::string LeftOutBecause(const std::string& label);

/// What on this machine belongs to a real station, which the tests would change; none if there is nothing.
/// What stands in the kit's own folder, or is the same as its file, is not of a station.
/// @param programs the kit's programs, with a backslash at its end
std::vector<std::string> PartsOfAStation(const std::wstring& programs);

std::string Utf8(const std::wstring& text);

/// A text of the registry of the machine; empty if there is none.
std::wstring MachineValue(const std::wstring& key, const wchar_t* value);

/// Of a file; empty if it cannot be read.
std::string ContentOf(const std::wstring& path);

bool FileExists(const std::wstring& path);

}  // namespace kitrun
