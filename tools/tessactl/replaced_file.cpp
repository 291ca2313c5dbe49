#include "replaced_file.h"

#include <windows.h>

#include "protected_folder.h"
#include "text.h"
#include "unique_handle.h"

namespace tessactl {
namespace {

/// Not through a link: this runs with all rights, and the folder may be anybody's.
UniqueKernelHandle OpenNew(const std::wstring& path) {
    try {
        return UniqueKernelHandle(
            operating_system::OpenWithoutLinks(path, GENERIC_WRITE | DELETE, 0, OPEN_ALWAYS));
    } catch (const operating_system::PathRefused& refused) {
        throw ToolError(Utf8(refused.Text()));
    }
}

/// What an earlier run that was cut off left there is written over.
/// @return a system error code
DWORD Write(HANDLE file, const std::string& content) {
    DWORD written = 0;
    if (!::SetEndOfFile(file) ||
        !::WriteFile(file, content.data(), static_cast<DWORD>(content.length()), &written, nullptr))
        return ::GetLastError();
    return written == content.length() ? ERROR_SUCCESS : ERROR_DISK_FULL;
}

/// Readers that do not share the right to delete, as most programs, hold this up for the moment of their
/// reading.
/// @return a system error code
DWORD Replace(const std::wstring& from, const std::wstring& to) {
    constexpr DWORD kStepMs = 50;
    constexpr DWORD kLongestMs = 2000;
    for (DWORD waited = 0;; waited += kStepMs) {
        if (::MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING)) return ERROR_SUCCESS;
        const DWORD error = ::GetLastError();
        const bool mayBeARead = error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION;
        if (!mayBeARead || waited >= kLongestMs) return error;
        ::Sleep(kStepMs);
    }
}

}  // namespace

void ReplaceFileContent(const std::wstring& file, const std::string& content) {
    const std::wstring path = file + L".new";
    UniqueKernelHandle opened = OpenNew(path);
    DWORD error = Write(opened.get(), content);
    opened.reset();
    if (error == ERROR_SUCCESS) error = Replace(path, file);
    if (error == ERROR_SUCCESS) return;
    ::DeleteFileW(path.c_str());
    throw ToolError(Utf8(file) + " cannot be written: " + ErrorInWords(error, file));
}

}  // namespace tessactl
