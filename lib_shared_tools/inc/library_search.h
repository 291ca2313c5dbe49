#pragma once

#include <windows.h>

#include <mutex>
#include <string>

namespace operating_system {

/// Limits where libraries are searched, for the rest of the process, to System32 and the folders that were
/// added by name. The current folder and PATH are open to anybody, and a service runs with all rights: a
/// library planted there must not be found. Called before anything is loaded.
void LimitLibrarySearch();

/// A folder that is searched for libraries, before System32, in a process whose search is limited. Whoever
/// may write there decides what the process runs. For any thread.
class SearchedFolder {
  public:
    SearchedFolder() = default;
    ~SearchedFolder();
    SearchedFolder(const SearchedFolder&) = delete;
    SearchedFolder& operator=(const SearchedFolder&) = delete;

    /// Searches this folder and no longer the one before; again and again the same one does nothing but to
    /// look whether it exists by now.
    /// @param folder full path; empty for none
    /// @return whether anything has changed: the folder or what has come of it
    bool Set(const std::wstring& folder);

    std::wstring Folder() const;
    /// Why the folder is not searched; 0 if it is or if there is none.
    DWORD Error() const;

  private:
    mutable std::mutex lock_;  // guards the members below
    std::wstring folder_;
    DWORD error_ = ERROR_SUCCESS;
    DLL_DIRECTORY_COOKIE cookie_ = nullptr;
};

}  // namespace operating_system
