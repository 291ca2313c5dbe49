#include "log_file.h"

#include "protected_folder.h"

namespace host {
namespace {

std::wstring FolderOf(const std::wstring& path) {
    return path.substr(0, path.rfind(L'\\'));
}

bool IsSamePath(const std::wstring& left, const std::wstring& right) {
    return ::CompareStringOrdinal(left.c_str(), -1, right.c_str(), -1, TRUE) == CSTR_EQUAL;
}

}  // namespace

void LogFile::Open(const std::wstring& path, const LogLimits& limits) {
    file_.reset();
    path_.clear();
    const std::wstring folder = FolderOf(path);
    if (IsSamePath(folder, operating_system::ProductDataFolder()))
        operating_system::EnsureProtectedFolder(folder);
    else
        operating_system::EnsureTrustedFolder(folder);
    path_ = path;
    limits_ = limits;
    rotateAt_ = limits.size;
    OpenFile();
}

void LogFile::OpenFile() {
    file_.reset(operating_system::OpenWithoutLinks(path_, FILE_APPEND_DATA,
                                                   FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_ALWAYS));
    LARGE_INTEGER size = {};
    size_ = ::GetFileSizeEx(file_.get(), &size) ? static_cast<ULONGLONG>(size.QuadPart) : 0;
}

void LogFile::Append(const std::string& text) {
    if (path_.empty()) return;
    if (size_ > 0 && size_ + text.size() > rotateAt_) Rotate();
    try {
        if (!file_) OpenFile();
    } catch (const operating_system::PathRefused&) {
        return;  // somebody has put a link there, or has the file open alone
    }
    DWORD written = 0;
    ::WriteFile(file_.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    size_ += written;
}

bool LogFile::PutAside() const {
    const auto numbered = [this](DWORD number) { return path_ + L"." + std::to_wstring(number); };
    if (limits_.keep == 0) return ::DeleteFileW(path_.c_str()) != FALSE;
    for (DWORD number = limits_.keep; number > 1; --number)
        ::MoveFileExW(numbered(number - 1).c_str(), numbered(number).c_str(), MOVEFILE_REPLACE_EXISTING);
    return ::MoveFileExW(path_.c_str(), numbered(1).c_str(), MOVEFILE_REPLACE_EXISTING) != FALSE;
}

void LogFile::Rotate() {
    file_.reset();
    if (PutAside()) {
        size_ = 0;
        rotateAt_ = limits_.size;
        return;
    }
    // Somebody looks at it with a program that does not let it be renamed: it grows on, and not every line
    // tries again.
    constexpr ULONGLONG kPart = 8;
    rotateAt_ = size_ + limits_.size / kPart;
}

}  // namespace host
