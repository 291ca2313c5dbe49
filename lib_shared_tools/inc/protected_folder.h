#pragma once

#include <windows.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "win_api.h"

/// Files that programs with all rights write where anybody may make folders. Whoever gets there first could
/// have such a program write into any file of the machine through a link, so nothing is written through one,
/// and nothing in a folder that belongs to somebody without administrator's rights.
namespace operating_system {

using Kernel32Pointer = std::shared_ptr<windows_api::CKernel32>;

/// A folder or file that is not used. what() is narrowed; Text() is whole.
class PathRefused : public std::runtime_error {
  public:
    explicit PathRefused(const std::wstring& text);
    const std::wstring& Text() const { return text_; }

  private:
    std::wstring text_;
};

/// Where this product keeps its files: the folder "Tessaplug" of the system's ProgramData folder. It is not
/// taken from the environment, which the user of a process may set.
/// @throws modul_exception::CWindowsApiExcp if the system does not know it
std::wstring ProductDataFolder();

/// Makes the folder, with full rights for SYSTEM and the administrators and none for anybody else, if it is
/// not there. One that is there has to be a folder, no link, of a trusted owner: SYSTEM, the administrators,
/// TrustedInstaller, or the running account if that is an administrator. If anybody else may write in it, its
/// rights are set as those of a new one. Meant for folders that belong to this product alone.
/// @throws PathRefused with the reason in words
void EnsureProtectedFolder(const std::wstring& folder,
                           const Kernel32Pointer& kernel32 = std::make_shared<windows_api::CKernel32>());

/// The same for a folder that somebody has chosen: missing folders are made in the same way, also those above
/// it; of an existing one link and owner are looked at, and its rights stay as they are.
/// @throws PathRefused with the reason in words
void EnsureTrustedFolder(const std::wstring& folder,
                         const Kernel32Pointer& kernel32 = std::make_shared<windows_api::CKernel32>());

/// Makes sure that a file that somebody else is going to open by its name (the system, for a recording) is
/// missing or an ordinary file with one name. Meaningful in a protected folder, where nobody else can change
/// it afterwards.
/// @throws PathRefused with the reason in words
void RequireNoLink(const std::wstring& file,
                   const Kernel32Pointer& kernel32 = std::make_shared<windows_api::CKernel32>());

/// Opens or creates a file, but not through a link, symbolic or hard. What stands at its path has to be an
/// ordinary file of a disk.
/// @param access e.g. FILE_APPEND_DATA
/// @param disposition OPEN_ALWAYS, OPEN_EXISTING or CREATE_NEW; the others would change a file before it is
/// looked at
/// @return never null; the caller closes it
/// @throws PathRefused with the reason in words
HANDLE OpenWithoutLinks(const std::wstring& file, DWORD access, DWORD shareMode, DWORD disposition,
                        const Kernel32Pointer& kernel32 = std::make_shared<windows_api::CKernel32>());

}  // namespace operating_system
