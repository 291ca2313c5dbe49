#pragma once

#include <string>
#include <vector>

/// The product's files on the machine, beyond what the installer itself knows of them.
namespace installer {

/// Copies the product's files, if there are any, into a folder beside theirs, for RestoreFiles. Windows
/// Installer takes back what it did with files by itself; this is for one that does not.
/// @param folder the product's folder, with a backslash at its end
/// @throws std::runtime_error with the reason; no copy stays then
void KeepFiles(const std::wstring& folder);

/// Puts the files back of which KeepFiles has made copies, and removes these. Without copies it does nothing.
/// @throws std::runtime_error with the reason; the copies stay then
void RestoreFiles(const std::wstring& folder);

/// Removes the copies of KeepFiles.
void ForgetFiles(const std::wstring& folder) noexcept;

/// Makes the product's programs and libraries files that nobody holds, so that they can be replaced or
/// removed at once: each is renamed, which is possible while it is in use (the event-log service may hold the
/// plug-in as the file of its messages for as long as the machine runs), and a copy takes its place. What was
/// renamed is removed, by the system's next start if it is still in use.
/// @param folder the product's folder, with a backslash at its end; files that are missing are passed over
/// @throws std::runtime_error with the reason, in UTF-8; the file in question is as it was
void ReleaseFiles(const std::wstring& folder);

/// Removes the product's folder if it is empty; if files that were renamed are still in use in it, the
/// system's next start does.
void RemoveFolder(const std::wstring& folder);

/// Removes the host's log files, those that were put aside included, and their folder if nothing else is in
/// it.
void RemoveLogs(const std::wstring& log);

/// Removes the plug-in's event source, unless it is that of another folder.
void RemoveEventSource(const std::wstring& folder);

/// Memory dumps and recordings, which are kept: the full paths.
std::vector<std::wstring> DumpsAndRecordings(const std::wstring& logFolder);

}  // namespace installer
