#include "win_api.h"

#include <aclapi.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <string>

#include "module_hooks.h"
#include "system_calls.h"
#include "text_of.h"
#include "unique_handle.h"
#include "win_convenience.h"
#include "windows_api_excp.h"

using modul_exception::CWindowsApiExcp;
using test_support::TextOf;
using windows_api::CDbgHlp;
using windows_api::CWtsapi32;

namespace {

/// Fails to load a library or to find a function; counts what is loaded.
class FakeLoader : public windows_api::CKernel32 {
  public:
    bool libraryIsMissing = false;
    std::string missingFunction;
    bool freeFails = false;
    int loaded = 0;

    HMODULE LoadLibraryW(const wchar_t* fileName) override {
        if (libraryIsMissing) {
            ::SetLastError(ERROR_MOD_NOT_FOUND);
            return nullptr;
        }
        ++loaded;
        return CKernel32::LoadLibraryW(fileName);
    }
    FARPROC GetProcAddress(HMODULE module, const char* name) override {
        if (missingFunction != name) return CKernel32::GetProcAddress(module, name);
        ::SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    BOOL FreeLibrary(HMODULE module) override {
        --loaded;
        CKernel32::FreeLibrary(module);
        return freeFails ? FALSE : TRUE;
    }
};

class RunTimeLibraries : public testing::Test {
  protected:
    std::shared_ptr<FakeLoader> loader_ = std::make_shared<FakeLoader>();
};

}  // namespace

TEST_F(RunTimeLibraries, MissingLibraryIsNamedInTheHint) {
    loader_->libraryIsMissing = true;
    const std::string dbgHlp = TextOf<CWindowsApiExcp>([&] { CDbgHlp{loader_}; });
    EXPECT_TRUE(dbgHlp.starts_with("FAILED! LoadLibraryW! LE(126): ")) << dbgHlp;
    EXPECT_TRUE(dbgHlp.ends_with(" Hint: Loading dbghelp.dll\n")) << dbgHlp;
    const std::string wtsapi = TextOf<CWindowsApiExcp>([&] { CWtsapi32{loader_}; });
    EXPECT_TRUE(wtsapi.ends_with(" Hint: Loading Wtsapi32.dll\n")) << wtsapi;
}

TEST_F(RunTimeLibraries, MissingFunctionIsNamedAndTheLibraryFreed) {
    for (const char* name : {"WTSSendMessageW", "WTSEnumerateSessionsW", "WTSFreeMemory"}) {
        loader_->missingFunction = name;
        const std::string text = TextOf<CWindowsApiExcp>([&] { CWtsapi32{loader_}; });
        EXPECT_TRUE(text.starts_with("FAILED! GetProcAddress! LE(127): ")) << text;
        EXPECT_TRUE(text.ends_with(std::string(" Hint: ") + name + "\n")) << text;
        EXPECT_EQ(loader_->loaded, 0);
    }
    loader_->missingFunction = "MiniDumpWriteDump";
    EXPECT_TRUE(TextOf<CWindowsApiExcp>([&] { CDbgHlp{loader_}; }).ends_with(" Hint: MiniDumpWriteDump\n"));
    EXPECT_EQ(loader_->loaded, 0);
}

TEST_F(RunTimeLibraries, UnloadTwiceIsHarmless) {
    CDbgHlp dbgHlp(loader_);
    dbgHlp.UnloadLib();
    dbgHlp.UnloadLib();
    EXPECT_EQ(loader_->loaded, 0);
    CWtsapi32 wtsapi(loader_);
    wtsapi.UnloadLib();
    wtsapi.UnloadLib();
    EXPECT_EQ(loader_->loaded, 0);
}

TEST_F(RunTimeLibraries, DestructionFreesTheLibraryAndIgnoresAFailure) {
    loader_->freeFails = true;
    {
        const CDbgHlp dbgHlp(loader_);
    }
    EXPECT_EQ(loader_->loaded, 0);
}

TEST_F(RunTimeLibraries, CallAfterUnloadIsAssertedAndFails) {
    const test_support::ModuleHooks hooks;
    CDbgHlp dbgHlp(loader_);
    dbgHlp.UnloadLib();
    EXPECT_FALSE(dbgHlp.MiniDumpWriteDump(nullptr, 0, nullptr, MiniDumpNormal, nullptr, nullptr, nullptr));
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"hInst_ != NULL", L"MiniDumpWriteDump_ != NULL"}));
}

TEST_F(RunTimeLibraries, CallOfASessionFunctionAfterUnloadIsAssertedAndFails) {
    const test_support::ModuleHooks hooks;
    CWtsapi32 wtsapi(loader_);
    wtsapi.UnloadLib();
    EXPECT_FALSE(wtsapi.WTSSendMessageW(nullptr, 0, nullptr, 0, nullptr, 0, 0, 0, nullptr, FALSE));
    EXPECT_FALSE(wtsapi.WTSEnumerateSessionsW(nullptr, 0, 1, nullptr, nullptr));
    wtsapi.WTSFreeMemory(nullptr);
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"hInst_ != NULL", L"WTSSendMessageW_ != NULL", L"hInst_ != NULL",
                                         L"WTSEnumerateSessionsW_ != NULL", L"hInst_ != NULL",
                                         L"WTSFreeMemory_ != NULL"}));
}

TEST(Wrappers, HandTheSecurityOfAFolderOn) {
    const test_support::SystemCallsOfTest systemCalls;
    static SECURITY_ATTRIBUTES* given = nullptr;
    test_support::systemCalls.createDirectoryW = [](LPCWSTR, LPSECURITY_ATTRIBUTES security) -> BOOL {
        given = security;
        return TRUE;
    };
    SECURITY_ATTRIBUTES security = {};
    EXPECT_TRUE(windows_api::CKernel32().CreateDirectoryW(L"C:\\folder", &security));
    EXPECT_EQ(given, &security);
}

TEST(Wrappers, ReturnTheSystemsResultAndLeaveItsLastError) {
    windows_api::CKernel32 kernel32;
    EXPECT_FALSE(kernel32.CloseHandle(nullptr));
    EXPECT_EQ(kernel32.GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(kernel32.CreateFileW(L"C:\\no such folder\\file", GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0,
                                   nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    windows_api::Advapi32 advapi32;
    HKEY key = nullptr;
    EXPECT_EQ(advapi32.RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"no such key", 0, KEY_READ, &key),
              ERROR_FILE_NOT_FOUND);
}

TEST(Wrappers, HandEventArgumentsOn) {
    windows_api::CKernel32 kernel32;
    const std::wstring name = L"tessaplug_test_" + std::to_wstring(::GetCurrentProcessId());
    const UniqueKernelHandle manual(kernel32.CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
    const UniqueKernelHandle automatic(kernel32.CreateEventW(nullptr, FALSE, TRUE, nullptr));
    EXPECT_TRUE(UniqueKernelHandle(::OpenEventW(SYNCHRONIZE, FALSE, name.c_str())));

    EXPECT_EQ(kernel32.WaitForSingleObject(automatic.get(), 0), WAIT_OBJECT_0) << "initially set";
    EXPECT_EQ(kernel32.WaitForSingleObject(automatic.get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(kernel32.WaitForSingleObject(manual.get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_TRUE(kernel32.SetEvent(manual.get()));
    EXPECT_EQ(kernel32.WaitForSingleObject(manual.get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(kernel32.WaitForSingleObject(manual.get(), 0), WAIT_OBJECT_0) << "it stays set";

    const HANDLE both[] = {automatic.get(), manual.get()};
    EXPECT_EQ(kernel32.WaitForMultipleObjects(2, both, FALSE, 0), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(kernel32.WaitForMultipleObjects(2, both, TRUE, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_TRUE(kernel32.ResetEvent(manual.get()));
    EXPECT_EQ(kernel32.WaitForMultipleObjects(2, both, FALSE, 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST(Wrappers, WaitAsLongAsTheyAreTold) {
    windows_api::CKernel32 kernel32;
    const UniqueKernelHandle timer(::CreateWaitableTimerW(nullptr, TRUE, nullptr));
    LARGE_INTEGER due = {};
    due.QuadPart = -200000;  // in 20 ms
    ASSERT_TRUE(::SetWaitableTimer(timer.get(), &due, 0, nullptr, nullptr, FALSE));
    EXPECT_EQ(kernel32.WaitForSingleObject(timer.get(), 10000), WAIT_OBJECT_0);
}

TEST(Wrappers, HandFileArgumentsOn) {
    windows_api::CKernel32 kernel32;
    wchar_t folder[MAX_PATH] = {};
    const DWORD room = kernel32.GetTempPathW(0, nullptr);
    ASSERT_EQ(kernel32.GetTempPathW(room, folder), room - 1) << "all of the room is used";
    const std::wstring name =
        std::wstring(folder) + L"wrappers_" + std::to_wstring(::GetCurrentProcessId()) + L".tmp";
    const UniqueKernelHandle file(kernel32.CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE,
                                                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                                       CREATE_NEW, FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    ASSERT_TRUE(file);
    EXPECT_TRUE(UniqueKernelHandle(kernel32.CreateFileW(
        name.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, 0, nullptr)))
        << "shared";
    EXPECT_FALSE(UniqueKernelHandle(
        kernel32.CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr)))
        << "it is there already";
}

TEST(DefaultSecurity, OpensAnObjectToEveryUser) {
    SECURITY_ATTRIBUTES attributes;
    SECURITY_DESCRIPTOR descriptor;
    windows_api::GetDefaultSecurity(attributes, descriptor);

    EXPECT_EQ(attributes.nLength, 24u);
    EXPECT_EQ(attributes.lpSecurityDescriptor, &descriptor);
    EXPECT_FALSE(attributes.bInheritHandle);
    BOOL present = FALSE;
    BOOL defaulted = TRUE;
    ACL* list = reinterpret_cast<ACL*>(1);
    ASSERT_TRUE(::GetSecurityDescriptorDacl(&descriptor, &present, &list, &defaulted));
    EXPECT_TRUE(present);
    EXPECT_EQ(list, nullptr);
    EXPECT_FALSE(defaulted);
}

TEST(DefaultSecurity, FailureIsAFailedCallWithItsHint) {
    const test_support::SystemCallsOfTest systemCalls;
    const auto text = [] {
        return TextOf<CWindowsApiExcp>([] {
            SECURITY_ATTRIBUTES attributes;
            SECURITY_DESCRIPTOR descriptor;
            windows_api::GetDefaultSecurity(attributes, descriptor);
        });
    };
    test_support::systemCalls.setSecurityDescriptorDacl = [](PSECURITY_DESCRIPTOR, BOOL, PACL, BOOL) -> BOOL {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    };
    EXPECT_TRUE(text().starts_with("FAILED! SetSecurityDescriptorDacl()! LE(5): ")) << text();
    EXPECT_TRUE(text().ends_with(" Hint: Invalid Rights?\n")) << text();
    test_support::systemCalls.initializeSecurityDescriptor = [](PSECURITY_DESCRIPTOR,
                                                                DWORD revision) -> BOOL {
        EXPECT_EQ(revision, 1u);
        ::SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    };
    EXPECT_TRUE(text().starts_with("FAILED! InitializeSecurityDescriptor()! LE(5): ")) << text();
    EXPECT_TRUE(text().ends_with(" Hint: Invalid Rights?\n")) << text();
}

TEST(SystemFolders, AreAskedForByTheirIdentifiersAndFreed) {
    const test_support::SystemCallsOfTest systemCalls;
    static wchar_t path[] = L"X:\\folder";
    static GUID asked;
    static int freed = 0;
    test_support::systemCalls.shGetKnownFolderPath = [](REFKNOWNFOLDERID folder, DWORD flags, HANDLE token,
                                                        PWSTR* result) -> HRESULT {
        EXPECT_EQ(flags, 0u);
        EXPECT_EQ(token, nullptr);
        asked = folder;
        *result = path;
        return S_OK;
    };
    test_support::systemCalls.coTaskMemFree = [](void* memory) {
        if (memory == path) ++freed;
    };
    EXPECT_EQ(windows_api::GetSystem32Directory(), L"X:\\folder");
    EXPECT_EQ(asked.Data1, 0x1AC14E77u);
    EXPECT_EQ(windows_api::GetSysWoW64Directory(), L"X:\\folder");
    EXPECT_EQ(asked.Data1, 0xD65231B0u);
    EXPECT_EQ(freed, 2);
}

TEST(SystemFolders, SuccessWithoutAPathIsAsserted) {
    const test_support::SystemCallsOfTest systemCalls;
    const test_support::ModuleHooks hooks;
    test_support::systemCalls.shGetKnownFolderPath = [](REFKNOWNFOLDERID, DWORD, HANDLE,
                                                        PWSTR* result) -> HRESULT {
        *result = nullptr;
        return S_OK;
    };
    EXPECT_EQ(windows_api::GetSystem32Directory(), L"");
    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"ppszPath != nullptr"}));
}

TEST(SystemFolders, AreTheSystemsOwn) {
    wchar_t folder[MAX_PATH] = {};
    ::GetSystemDirectoryW(folder, MAX_PATH);
    EXPECT_EQ(::_wcsicmp(windows_api::GetSystem32Directory().c_str(), folder), 0);
    ::GetSystemWow64DirectoryW(folder, MAX_PATH);
    EXPECT_EQ(::_wcsicmp(windows_api::GetSysWoW64Directory().c_str(), folder), 0);
}

TEST(SystemFolders, UnknownFolderIsAFailedCall) {
    const std::string text = TextOf<CWindowsApiExcp>([] { windows_api::GetSysDirInternal({}); });
    EXPECT_TRUE(text.starts_with("FAILED! SHGetKnownFolderPath()! ReturnValue(")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: \n")) << text;
}

TEST(ModuleFileName, IsTheFullPath) {
    const std::wstring path = windows_api::GetModuleFileNameW(nullptr);
    EXPECT_TRUE(path.ends_with(L"win_api_tests.exe"));
    EXPECT_EQ(path[1], L':');
}

TEST(ModuleFileName, IsWholeHoweverLong) {
    const test_support::SystemCallsOfTest systemCalls;
    static const std::wstring path(999, L'x');
    test_support::systemCalls.getModuleFileNameW = [](HMODULE, LPWSTR buffer, DWORD size) -> DWORD {
        const std::size_t copied = std::min<std::size_t>(size - 1, path.length());
        path.copy(buffer, copied);
        buffer[copied] = L'\0';
        return size > path.length() ? static_cast<DWORD>(path.length()) : size;  // cut off: the room
    };
    EXPECT_EQ(windows_api::GetModuleFileNameW(nullptr), path);
}

TEST(ModuleFileName, OfNoModuleIsAFailedCall) {
    EXPECT_TRUE(TextOf<CWindowsApiExcp>([] {
                    windows_api::GetModuleFileNameW(reinterpret_cast<HMODULE>(0x10));
                }).starts_with("FAILED! GetModuleFileNameW()! LE("));
}
