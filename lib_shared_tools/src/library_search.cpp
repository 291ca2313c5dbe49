#include "library_search.h"

#include <utility>

#include "function_trace.h"
#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\library_search", "5b0c7e92-d14f-4f86-a3e8-20c9b6175fd4",
             trace::kSharedTools);

namespace operating_system {

void LimitLibrarySearch() {
    FUNCTION_TRACE();
    if (!::SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32 | LOAD_LIBRARY_SEARCH_USER_DIRS))
        TRACE_ERROR(10, "The library search is not limited, LE(%u)", ::GetLastError());
    // The programs that are started do not search the current folder either; PATH they do.
    ::SetDllDirectoryW(L"");
}

SearchedFolder::~SearchedFolder() {
    FUNCTION_TRACE();
    if (cookie_ != nullptr) ::RemoveDllDirectory(cookie_);
}

bool SearchedFolder::Set(const std::wstring& folder) {
    FUNCTION_TRACE();
    const std::lock_guard guard(lock_);
    if (folder == folder_ && error_ == ERROR_SUCCESS) return false;
    // The new one first: a library that is being loaded meanwhile finds one or the other.
    const DLL_DIRECTORY_COOKIE added = folder.empty() ? nullptr : ::AddDllDirectory(folder.c_str());
    const DWORD error = folder.empty() || added != nullptr ? ERROR_SUCCESS : ::GetLastError();
    const DLL_DIRECTORY_COOKIE former = std::exchange(cookie_, added);
    if (former != nullptr) ::RemoveDllDirectory(former);
    const bool hasChanged = folder != folder_ || error != error_;
    if (hasChanged) TRACE_INFO(11, "Libraries are searched in \"%S\", error %u", folder, error);
    folder_ = folder;
    error_ = error;
    return hasChanged;
}

std::wstring SearchedFolder::Folder() const {
    FUNCTION_TRACE();
    const std::lock_guard guard(lock_);
    return folder_;
}

DWORD SearchedFolder::Error() const {
    FUNCTION_TRACE();
    const std::lock_guard guard(lock_);
    return error_;
}

}  // namespace operating_system
