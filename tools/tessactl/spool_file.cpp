#include "spool_file.h"

#include <windows.h>

#include "text.h"

namespace tessactl {
namespace {

[[noreturn]] void Fail(DWORD error) {
    throw ToolError("The temporary folder cannot keep what is being written: " + ErrorInWords(error));
}

UniqueKernelHandle MakeFile() {
    wchar_t folder[MAX_PATH + 1] = {};
    if (::GetTempPathW(ARRAYSIZE(folder), folder) == 0) Fail(::GetLastError());
    static unsigned int count = 0;
    const std::wstring path = std::wstring(folder) + L"tessactl-" + std::to_wstring(::GetCurrentProcessId()) +
                              L"-" + std::to_wstring(::GetTickCount64()) + L"-" + std::to_wstring(++count) +
                              L".tmp";
    UniqueKernelHandle file(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE, 0, nullptr,
                                          CREATE_NEW, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE,
                                          nullptr));
    if (!file) Fail(::GetLastError());
    return file;
}

}  // namespace

void SpoolFile::Write(const std::string& text) {
    memory_ += text;
    if (memory_.size() > mostInMemory_) Spill();
}

void SpoolFile::Spill() {
    if (!file_) file_ = MakeFile();
    DWORD written = 0;
    if (!::WriteFile(file_.get(), memory_.data(), static_cast<DWORD>(memory_.size()), &written, nullptr))
        Fail(::GetLastError());
    if (written != memory_.size()) Fail(ERROR_DISK_FULL);
    memory_.clear();
}

void SpoolFile::CopyTo(std::ostream& output) {
    constexpr LARGE_INTEGER kNowhere = {};
    constexpr std::size_t kStep = 64 << 10;
    if (file_ && !::SetFilePointerEx(file_.get(), kNowhere, nullptr, FILE_BEGIN)) Fail(::GetLastError());
    std::string part(kStep, '\0');
    DWORD read = 0;
    do {
        read = 0;
        if (file_ && !::ReadFile(file_.get(), part.data(), static_cast<DWORD>(part.size()), &read, nullptr))
            Fail(::GetLastError());
        output.write(part.data(), static_cast<std::streamsize>(read));
    } while (read > 0 && output);
    output << memory_;
    // Behind the end again, where more is written; a reader that has gone left it in the middle.
    if (file_) ::SetFilePointerEx(file_.get(), kNowhere, nullptr, FILE_END);
}

}  // namespace tessactl
