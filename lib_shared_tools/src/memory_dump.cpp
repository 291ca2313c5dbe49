#include "memory_dump.h"

#include <cstdio>
#include <cwchar>
#include <exception>
#include <iterator>
#include <utility>

#include "function_trace.h"
#include "modul_assert.h"
#include "structured_exception.h"
#include "trace_point.h"

TRACE_SOURCE("lib_shared_tools\\src\\memory_dump", "5c0e8a72-f3b1-4d69-a417-8e2d6b9c0f53",
             trace::kSharedTools);

namespace operating_system {
namespace {

constexpr std::size_t kPathBufferSize = 521;
constexpr wchar_t kFallbackFolder[] = L"c:\\";

bool IsValid(HANDLE file) {
    FUNCTION_TRACE();
    return file != nullptr && file != INVALID_HANDLE_VALUE;
}

/// The fault whose exception information becomes the dump's. A call of its own: the compiler guards calls
/// only.
[[gnu::noinline]] void Fault() {
    static volatile int* volatile nowhere = nullptr;
    *nowhere = 0;
}

}  // namespace

MemoryDump::MemoryDump(std::shared_ptr<windows_api::CKernel32> kernel32, DebugHelperFactory loadDebugHelper)
    : kernel32_(std::move(kernel32)), loadDebugHelper_(std::move(loadDebugHelper)) {
    FUNCTION_TRACE();
}

MemoryDump::~MemoryDump() {
    FUNCTION_TRACE();
}

bool MemoryDump::Create(const std::wstring& name) {
    FUNCTION_TRACE();
    const NonRecursiveLock::Guard guard(lock_);
    if (!guard) return false;
    result_ = false;
    try {
        if (!LoadDebugHelperDll()) return false;
        dumpFileName_ = CreateAbsolutDumpFileName(name);
        TRACE_VERBOSE(10, "Dump file %S", dumpFileName_);
        if (hasExternalContext_)
            SaveExceptionToDump(nullptr);
        else
            CaptureContext(this);
    } catch (const std::exception& error) {
        TRACE_ERROR(11, "No dump: %s", error.what());
    } catch (...) {
        TRACE_ERROR(23, "No dump");
    }
    UnLoadDebugHelperDll();
    return result_;
}

/// No object with a destructor may be in it.
int MemoryDump::CaptureContext(MemoryDump* dump) {
    __try {
        Fault();
    } __except (dump->SaveExceptionToDump(GetExceptionInformation())) {
        return 1;
    }
    return 0;
}

bool MemoryDump::LoadDebugHelperDll() {
    FUNCTION_TRACE();
    MODUL_ASSERT(dbgHelp_ == nullptr);
    try {
        dbgHelp_ = CallForeign(loadDebugHelper_);
    } catch (const std::exception& error) {
        TRACE_ERROR(12, "No dump: %s", error.what());
    } catch (const ForeignException& exception) {
        TRACE_ERROR(24, "No dump: the debug helper raises 0x%x", exception.code);
    }
    return dbgHelp_ != nullptr;
}

void MemoryDump::UnLoadDebugHelperDll() {
    FUNCTION_TRACE();
    auto unload = [this] { dbgHelp_.reset(); };
    if (const DWORD code = CallGuarded(unload))
        TRACE_WARNING(25, "Unloading the debug helper raises 0x%x", code);
}

int MemoryDump::SaveExceptionToDump(EXCEPTION_POINTERS* exceptionInformation) {
    FUNCTION_TRACE();
    if (dumpFileName_.empty() || dumpFileName_.length() >= kPathBufferSize) {
        TRACE_ERROR(13, "No dump: a file name of %llu characters", dumpFileName_.length());
        return EXCEPTION_EXECUTE_HANDLER;
    }
    const HANDLE file =
        kernel32_->CreateFileW(dumpFileName_.c_str(), GENERIC_READ | GENERIC_WRITE,
                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (!IsValid(file)) {
        TRACE_ERROR(14, "No dump: %S cannot be made, LE(%u)", dumpFileName_, kernel32_->GetLastError());
        return EXCEPTION_EXECUTE_HANDLER;
    }
    TRACE_ERROR(15, "Writing the dump %S", dumpFileName_);
    result_ = WriteDumpToDisk(exceptionInformation, file);
    if (!kernel32_->CloseHandle(file))
        TRACE_WARNING(16, "CloseHandle(%p) failed, LE(%u)", file, kernel32_->GetLastError());
    return EXCEPTION_EXECUTE_HANDLER;
}

bool MemoryDump::WriteDumpToDisk(EXCEPTION_POINTERS* exceptionInformation, HANDLE file) {
    FUNCTION_TRACE();
    if (!IsValid(file) || dbgHelp_ == nullptr) {
        TRACE_ERROR(17, "No dump: no file, or no debug helper");
        return false;
    }
    MINIDUMP_EXCEPTION_INFORMATION exception = {::GetCurrentThreadId(), exceptionInformation, TRUE};
    BOOL written = FALSE;
    auto write = [&] {
        written = dbgHelp_->MiniDumpWriteDump(::GetCurrentProcess(), ::GetCurrentProcessId(), file,
                                              MiniDumpWithFullMemory, &exception, nullptr, nullptr);
    };
    // What is raised here would pass through the filter that this runs in, and leave lock and file behind.
    if (const DWORD code = CallGuarded(write)) {
        TRACE_ERROR(26, "MiniDumpWriteDump() raises 0x%x", code);
        return false;
    }
    if (written != TRUE) {
        TRACE_ERROR(18, "MiniDumpWriteDump() failed, LE(%u)", kernel32_->GetLastError());
        return false;
    }
    TRACE_ERROR(19, "The dump is written");
    return true;
}

std::wstring MemoryDump::CreateAbsolutDumpFileName(const std::wstring& name) const {
    FUNCTION_TRACE();
    std::wstring folder = GetSystemTempPath();
    if (!IsDumpDirWriteable(folder))
        folder = kFallbackFolder;
    else if (!folder.ends_with(L'\\'))
        folder += L'\\';
    return folder + CreateDumpFileName(name);
}

std::wstring MemoryDump::GetSystemTempPath() const {
    FUNCTION_TRACE();
    wchar_t path[kPathBufferSize] = {};
    const DWORD length = kernel32_->GetTempPathW(kPathBufferSize, path);
    if (length > 0 && length < kPathBufferSize) return path;
    TRACE_ERROR(20, "GetTempPathW() failed, LE(%u)", kernel32_->GetLastError());
    return kFallbackFolder;
}

bool MemoryDump::IsDumpDirWriteable(const std::wstring& folder) const {
    FUNCTION_TRACE();
    if (kernel32_->CreateDirectoryW(folder.c_str(), nullptr)) {
        TRACE_INFO(21, "%S created", folder);
        return true;
    }
    const DWORD error = kernel32_->GetLastError();
    if (error == ERROR_ALREADY_EXISTS) return true;
    if (error != ERROR_PATH_NOT_FOUND) TRACE_ERROR(22, "%S cannot be written, LE(%u)", folder, error);
    return false;
}

std::wstring MemoryDump::CreateDumpFileName(const std::wstring& name) {
    FUNCTION_TRACE();
    constexpr std::size_t kTimeLength = 12;
    constexpr std::size_t kLongest = 261;
    std::wstring stem = L"(too_long)_";
    if (name.empty())
        stem = L"(no_name)_";
    else if (name.length() + kTimeLength < kLongest)
        stem = name + L"_";
    SYSTEMTIME now = {};
    ::GetLocalTime(&now);
    wchar_t time[32] = {};
    std::swprintf(time, std::size(time), L"%d%.2d%.2d-%.2d%.2d%.2d.dmp", now.wYear, now.wMonth, now.wDay,
                  now.wHour, now.wMinute, now.wSecond);
    const std::wstring composed = stem + time;
    return composed.length() < kLongest ? composed : L"INVALID_DUMPNAME.dmp";
}

}  // namespace operating_system
