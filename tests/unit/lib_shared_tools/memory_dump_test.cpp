#include "memory_dump.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "system_calls.h"
#include "trace_recorder.h"
#include "windows_api_excp.h"

using operating_system::MemoryDump;

namespace {

constexpr DWORD kMessageGuidOfMemoryDump = 0x5c0e8a72;  // its first part

/// A file system that exists only here.
class FakeKernel32 : public windows_api::CKernel32 {
  public:
    DWORD GetTempPathW(DWORD length, wchar_t* buffer) override {
        EXPECT_EQ(length, 521u);
        const std::wstring text = tempLength ? L"X:\\not meant\\" : temp;
        text.copy(buffer, 520);
        buffer[std::min<std::size_t>(text.length(), 520)] = L'\0';
        ::SetLastError(ERROR_GEN_FAILURE);
        return tempLength.value_or(static_cast<DWORD>(temp.length()));
    }
    BOOL CreateDirectoryW(const wchar_t* path, SECURITY_ATTRIBUTES* security) override {
        EXPECT_EQ(path, temp);
        EXPECT_EQ(security, nullptr);
        ::SetLastError(directoryError);
        return directoryError == ERROR_SUCCESS;
    }
    HANDLE CreateFileW(const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                       DWORD disposition, DWORD flags, HANDLE templateFile) override {
        EXPECT_EQ(access, GENERIC_READ | GENERIC_WRITE);
        EXPECT_EQ(share, static_cast<DWORD>(FILE_SHARE_READ | FILE_SHARE_WRITE));
        EXPECT_EQ(security, nullptr);
        EXPECT_EQ(disposition, static_cast<DWORD>(CREATE_ALWAYS));
        EXPECT_EQ(flags, 0u);
        EXPECT_EQ(templateFile, nullptr);
        created = name;
        return file;
    }
    BOOL CloseHandle(HANDLE handle) override {
        EXPECT_EQ(handle, file);
        ++closed;
        return closeResult;
    }

    std::wstring temp = L"C:\\temp\\";
    std::optional<DWORD> tempLength;
    DWORD directoryError = ERROR_ALREADY_EXISTS;
    HANDLE file = reinterpret_cast<HANDLE>(0x33);
    BOOL closeResult = TRUE;
    std::wstring created;
    int closed = 0;
};

struct Written {
    DWORD code = 0;
    DWORD threadId = 0;
    int count = 0;
    BOOL result = TRUE;
    DWORD raise = 0;
    std::function<void()> meanwhile = [] {};
    int loaded = 0;
};

class FakeDebugHelper : public windows_api::CDbgHlp {
  public:
    explicit FakeDebugHelper(Written& written) : written_(written) { ++written_.loaded; }
    ~FakeDebugHelper() override { --written_.loaded; }
    BOOL MiniDumpWriteDump(HANDLE process, DWORD processId, HANDLE file, MINIDUMP_TYPE type,
                           MINIDUMP_EXCEPTION_INFORMATION* exception,
                           MINIDUMP_USER_STREAM_INFORMATION* streams,
                           MINIDUMP_CALLBACK_INFORMATION* callback) override {
        EXPECT_EQ(process, ::GetCurrentProcess());
        EXPECT_EQ(processId, ::GetCurrentProcessId());
        EXPECT_EQ(file, reinterpret_cast<HANDLE>(0x33));
        EXPECT_EQ(type, 2) << "with full memory";
        EXPECT_EQ(exception->ClientPointers, TRUE);
        EXPECT_EQ(streams, nullptr);
        EXPECT_EQ(callback, nullptr);
        written_.code = exception->ExceptionPointers->ExceptionRecord->ExceptionCode;
        written_.threadId = exception->ThreadId;
        ++written_.count;
        if (written_.raise != 0) ::RaiseException(written_.raise, 0, 0, nullptr);
        const auto action = written_.meanwhile;  // which may replace itself
        action();
        return written_.result;
    }

  private:
    Written& written_;
};

class Dump : public testing::Test {
  protected:
    std::wstring NameAfter(const std::wstring& module) {
        dump_.Create(module);
        const std::wstring path = dump_.GetMemoryDumpAbsFileName();
        return path.substr(path.rfind(L'\\') + 1);
    }
    std::shared_ptr<FakeKernel32> kernel32_ = std::make_shared<FakeKernel32>();
    Written written_;
    MemoryDump dump_{kernel32_, [this] { return std::make_unique<FakeDebugHelper>(written_); }};
};

bool Matches(const std::wstring& text, const wchar_t* pattern) {
    return std::regex_match(text, std::wregex(pattern));
}

}  // namespace

TEST_F(Dump, CapturesADeliberateFaultOfTheCallingThread) {
    EXPECT_TRUE(dump_.Create(L"module.dll"));
    EXPECT_EQ(written_.count, 1);
    EXPECT_EQ(written_.code, static_cast<DWORD>(EXCEPTION_ACCESS_VIOLATION));
    EXPECT_EQ(written_.threadId, ::GetCurrentThreadId());
    EXPECT_EQ(kernel32_->closed, 1);
    EXPECT_EQ(written_.loaded, 0) << "the helper is unloaded";
    EXPECT_EQ(kernel32_->created, dump_.GetMemoryDumpAbsFileName());
}

TEST_F(Dump, IsNamedAfterModuleAndLocalTime) {
    dump_.Create(L"tessaplug.dll");
    EXPECT_TRUE(Matches(kernel32_->created, L"C:\\\\temp\\\\tessaplug\\.dll_20\\d{6}-\\d{6}\\.dmp"));
}

TEST_F(Dump, NameHasTheLocalTimeWithTwoDigitsEach) {
    const test_support::SystemCallsOfTest systemCalls;
    test_support::systemCalls.getSystemTime = [](SYSTEMTIME* time) {
        *time = {2025, 12, 3, 31, 22, 59, 58, 999};
    };
    test_support::systemCalls.getLocalTime = [](SYSTEMTIME* time) { *time = {2025, 8, 5, 1, 4, 6, 3, 7}; };
    EXPECT_EQ(NameAfter(L"tessaplug.dll"), L"tessaplug.dll_20250801-040603.dmp");
    test_support::systemCalls.getLocalTime = [](SYSTEMTIME* time) {
        *time = {2025, 10, 2, 21, 14, 46, 36, 0};
    };
    EXPECT_EQ(NameAfter(L"tessaplug.dll"), L"tessaplug.dll_20251021-144636.dmp");
}

TEST_F(Dump, UnusualModuleNamesAreReplaced) {
    EXPECT_TRUE(Matches(NameAfter(L""), L"\\(no_name\\)_\\d{8}-\\d{6}\\.dmp"));
    EXPECT_TRUE(Matches(NameAfter(std::wstring(249, L'm')), L"\\(too_long\\)_\\d{8}-\\d{6}\\.dmp"));
    EXPECT_EQ(NameAfter(std::wstring(248, L'm')), L"INVALID_DUMPNAME.dmp")
        << "short enough, but not with the time";
    EXPECT_EQ(NameAfter(std::wstring(241, L'm')), L"INVALID_DUMPNAME.dmp") << "261 characters";
    EXPECT_TRUE(Matches(NameAfter(std::wstring(240, L'm')), L"m{240}_\\d{8}-\\d{6}\\.dmp"))
        << "260 characters";
}

TEST_F(Dump, GoesIntoTheTemporaryFolderOrToTheRoot) {
    kernel32_->temp = L"C:\\temp";  // without a backslash
    kernel32_->directoryError = ERROR_SUCCESS;
    dump_.Create(L"m");
    EXPECT_TRUE(kernel32_->created.starts_with(L"C:\\temp\\m_"));
    for (const DWORD error : {DWORD{ERROR_PATH_NOT_FOUND}, DWORD{ERROR_ACCESS_DENIED}}) {
        kernel32_->directoryError = error;
        dump_.Create(L"m");
        EXPECT_TRUE(kernel32_->created.starts_with(L"c:\\m_")) << error;
    }
    kernel32_->temp = L"c:\\";
    kernel32_->directoryError = ERROR_ALREADY_EXISTS;
    for (const DWORD length : {DWORD{0}, DWORD{600}}) {
        kernel32_->tempLength = length;
        dump_.Create(L"m");
        EXPECT_TRUE(kernel32_->created.starts_with(L"c:\\m_")) << length;
    }
}

TEST_F(Dump, FailuresAreReturned) {
    for (const HANDLE none : {HANDLE{nullptr}, INVALID_HANDLE_VALUE}) {
        kernel32_->file = none;
        EXPECT_FALSE(dump_.Create(L"m"));
    }
    EXPECT_EQ(written_.count, 0);
    EXPECT_EQ(kernel32_->closed, 0);
    kernel32_->file = reinterpret_cast<HANDLE>(0x33);
    for (const BOOL result : {FALSE, BOOL{2}}) {
        written_.result = result;
        EXPECT_FALSE(dump_.Create(L"m")) << "only 1 is success";
    }
    written_.result = TRUE;
    kernel32_->closeResult = FALSE;
    EXPECT_TRUE(dump_.Create(L"m")) << "a failed close is no failed dump";
    EXPECT_EQ(kernel32_->closed, 3);
}

TEST_F(Dump, SuccessOfTheOneBeforeIsForgotten) {
    EXPECT_TRUE(dump_.Create(L"m"));
    kernel32_->file = nullptr;
    EXPECT_FALSE(dump_.Create(L"m"));
}

TEST_F(Dump, PathThatIsTooLongIsNotWritten) {
    kernel32_->temp = L"C:\\" + std::wstring(515, L't');
    EXPECT_FALSE(dump_.Create(L"module"));
    EXPECT_TRUE(kernel32_->created.empty());
}

TEST_F(Dump, PathOf520CharactersIsWritten) {
    const std::size_t rest = std::wcslen(L"m_20250801-040603.dmp");
    kernel32_->temp = L"C:\\" + std::wstring(520 - 3 - 1 - rest, L't');
    EXPECT_TRUE(dump_.Create(L"m"));
    EXPECT_EQ(kernel32_->created.length(), 520u);
    kernel32_->temp += L't';
    EXPECT_FALSE(dump_.Create(L"m"));
}

TEST_F(Dump, StructuredExceptionOfTheDebugHelperMeansNoDump) {
    for (const DWORD code : {EXCEPTION_ACCESS_VIOLATION, DWORD{0xE06D7363}}) {
        written_.raise = code;
        EXPECT_FALSE(dump_.Create(L"m"));
    }
    EXPECT_EQ(kernel32_->closed, 2) << "the file is closed";
    EXPECT_EQ(written_.loaded, 0) << "the helper is unloaded";
    written_.raise = 0;
    EXPECT_TRUE(dump_.Create(L"m")) << "the lock is released";
}

TEST_F(Dump, DebugHelperThatRaisesWhenLoadedMeansNoDump) {
    DWORD code = EXCEPTION_ACCESS_VIOLATION;
    MemoryDump dump(kernel32_, [&]() -> std::unique_ptr<windows_api::CDbgHlp> {
        if (code != 0) ::RaiseException(code, 0, 0, nullptr);
        return std::make_unique<FakeDebugHelper>(written_);
    });
    EXPECT_FALSE(dump.Create(L"m"));
    code = 0;
    EXPECT_TRUE(dump.Create(L"m")) << "the lock is released";
}

TEST_F(Dump, WhatBecomesOfItIsTraced) {
    const test_support::Tracing tracing;
    using test_support::TakeTraceRecords;
    const auto traced = [this](UCHAR level) {
        test_support::EnableTracing(test_support::kSharedToolsGuid, level, trace::kMessage, 1);
        dump_.Create(L"m");
        std::vector<int> numbers;
        for (const auto& record : TakeTraceRecords())
            if (record.messageGuid.Data1 == kMessageGuidOfMemoryDump) numbers.push_back(record.number);
        return numbers;
    };
    using Numbers = std::vector<int>;
    EXPECT_EQ(traced(trace::kError), (Numbers{15, 19}));
    EXPECT_EQ(traced(trace::kVerbose), (Numbers{10, 15, 19}));
    EXPECT_EQ(traced(trace::kInformation), (Numbers{15, 19}));
    kernel32_->directoryError = ERROR_SUCCESS;
    EXPECT_EQ(traced(trace::kInformation), (Numbers{21, 15, 19}));
    EXPECT_EQ(traced(trace::kWarning), (Numbers{15, 19}));
    kernel32_->directoryError = ERROR_PATH_NOT_FOUND;
    EXPECT_EQ(traced(trace::kInformation), (Numbers{15, 19})) << "silently";
    kernel32_->directoryError = ERROR_ACCESS_DENIED;
    EXPECT_EQ(traced(trace::kError), (Numbers{22, 15, 19}));
    kernel32_->directoryError = ERROR_ALREADY_EXISTS;
    kernel32_->closeResult = FALSE;
    EXPECT_EQ(traced(trace::kWarning), (Numbers{15, 19, 16}));
    EXPECT_EQ(traced(trace::kError), (Numbers{15, 19}));
    written_.result = FALSE;
    EXPECT_EQ(traced(trace::kError), (Numbers{15, 18}));
    kernel32_->file = nullptr;
    EXPECT_EQ(traced(trace::kError), (Numbers{14}));
    kernel32_->tempLength = 0;
    kernel32_->temp = L"c:\\";
    EXPECT_EQ(traced(trace::kError), (Numbers{20, 14}));
}

TEST_F(Dump, MissingDebugHelperMeansNoDump) {
    MemoryDump dump(kernel32_, []() -> std::unique_ptr<windows_api::CDbgHlp> {
        throw modul_exception::CWindowsApiExcp("LoadLibraryW", "Loading dbghelp.dll");
    });
    EXPECT_FALSE(dump.Create(L"m"));
    EXPECT_TRUE(kernel32_->created.empty());
    EXPECT_FALSE(dump.Create(L"m")) << "the second one is no deadlock";
}

TEST_F(Dump, NestedOneReturnsAtOnceAndOneOfAnotherThreadWaits) {
    bool nested = true;
    std::atomic<bool> otherDone = false;
    std::thread other;
    written_.meanwhile = [&] {
        written_.meanwhile = [] {};
        nested = dump_.Create(L"nested");
        other = std::thread([&] {
            dump_.Create(L"other");
            otherDone = true;
        });
        ::Sleep(200);
        EXPECT_FALSE(otherDone);
    };
    EXPECT_TRUE(dump_.Create(L"m"));
    other.join();
    EXPECT_FALSE(nested);
    EXPECT_EQ(written_.count, 2);
}
