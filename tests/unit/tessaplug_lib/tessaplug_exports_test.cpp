#include <windows.h>
#include <dbt.h>

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "process_census.h"
#include "program_folder.h"
#include "tessaplug.h"
#include "unique_handle.h"

// The built tessaplug.dll, driven as a host drives it. Windows accepts a made-up service status handle no
// further than the registration for notifications; the start is undone then, which serves these tests as
// well.
namespace {

using test_support::HandleCount;
using test_support::LoadedModules;
using test_support::ThreadCount;

std::wstring PlugInPath() {
    return test_support::ProgramFolder() + L"tessaplug.dll";
}

class PlugIn {
  public:
    PlugIn() : module_(::LoadLibraryW(PlugInPath().c_str())) {
        Resolve(init, "tessaplug_init");
        Resolve(cleanup, "tessaplug_cleanup");
        Resolve(handler, "tessaplug_service_ctrl_handler");
    }

    HMODULE module() const { return module_.get(); }
    decltype(&::tessaplug_init) init = nullptr;
    decltype(&::tessaplug_cleanup) cleanup = nullptr;
    decltype(&::tessaplug_service_ctrl_handler) handler = nullptr;

  private:
    template <typename Function>
    void Resolve(Function*& pointer, const char* name) {
        pointer = reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(module_.get(), name)));
        EXPECT_NE(pointer, nullptr) << name;
    }
    UniqueModule module_;
};

int reports = 0;
void WINAPI CountReports(void*, SERVICE_STATUS*) {
    ++reports;
}
void WINAPI ThrowingCallback(void*, SERVICE_STATUS*) {
    throw 42;
}

const auto kStatusHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(0x51);

std::vector<std::string> ExportedNames(HMODULE module) {
    const auto* base = reinterpret_cast<const BYTE*>(module);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const auto* table = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(
        base + nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
    const auto* names = reinterpret_cast<const DWORD*>(base + table->AddressOfNames);
    std::vector<std::string> result;
    for (DWORD i = 0; i < table->NumberOfNames; ++i)
        result.emplace_back(reinterpret_cast<const char*>(base + names[i]));
    return result;
}

}  // namespace

// In a process of its own, as the worker is left running in the unloaded library. The first test: later ones
// take the instance lock, which stays with this process.
TEST(PlugInExports, UnloadWithoutCleanupNeverWaitsForTheWorker) {
    const auto unload = [] {
        DWORD started = 0;
        {
            const PlugIn plugIn;
            started = plugIn.init(TESSAPLUG_API_VERSION, kStatusHandle, &CountReports, nullptr, 0);
        }
        const bool closed =
            ::OpenMutexW(SYNCHRONIZE, FALSE, L"Global\\NX4120_MTX__{16FBF2EA-4B2A-4A48-98A0-0E4C66BD1459}") ==
            nullptr;
        std::_Exit(started == 1 && closed && ::GetModuleHandleW(L"tessaplug.dll") == nullptr ? 0 : 1);
    };
    EXPECT_EXIT(unload(), testing::ExitedWithCode(0), "");
}

TEST(PlugInExports, AreExactlyThree) {
    const PlugIn plugIn;
    EXPECT_EQ(ExportedNames(plugIn.module()), (std::vector<std::string>{"tessaplug_cleanup", "tessaplug_init",
                                                                        "tessaplug_service_ctrl_handler"}));
}

TEST(PlugInExports, RefuseBadArguments) {
    const PlugIn plugIn;
    EXPECT_EQ(plugIn.init(TESSAPLUG_API_VERSION, kStatusHandle, nullptr, nullptr, 0), 0u);
    EXPECT_EQ(plugIn.init(TESSAPLUG_API_VERSION, nullptr, &CountReports, nullptr, 0), 0u);
    EXPECT_EQ(plugIn.init(1, kStatusHandle, &CountReports, nullptr, 0), 0u);
    EXPECT_EQ(plugIn.init(TESSAPLUG_API_VERSION, kStatusHandle, &CountReports, nullptr, 1), 0u);
    EXPECT_EQ(reports, 0);
}

TEST(PlugInExports, CleanupAndControlsWithoutInitReturnQuietly) {
    const PlugIn plugIn;
    plugIn.cleanup();
    EXPECT_EQ(plugIn.handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, nullptr, nullptr), 0u);
    EXPECT_EQ(plugIn.handler(SERVICE_CONTROL_STOP, 0, nullptr, nullptr), 0u);
    plugIn.cleanup();
}

TEST(PlugInExports, ExceptionOfTheHostsCallbackNeverReachesTheHost) {
    const PlugIn plugIn;
    EXPECT_EQ(plugIn.init(TESSAPLUG_API_VERSION, kStatusHandle, &ThrowingCallback, nullptr, 0), 0u);
    plugIn.cleanup();
}

TEST(PlugInExports, LeaveNoHandleThreadOrModuleBehind) {
    {
        const PlugIn warmUp;
    }  // what the system loads once for the process stays out of the comparison
    const auto cycle = [] {
        const PlugIn plugIn;
        plugIn.init(TESSAPLUG_API_VERSION, kStatusHandle, &CountReports, nullptr, 0);
        plugIn.handler(SERVICE_CONTROL_DEVICEEVENT, DBT_DEVICEARRIVAL, nullptr, nullptr);
        plugIn.cleanup();
    };
    cycle();
    const auto modules = LoadedModules();
    const std::size_t threads = ThreadCount();
    const std::size_t handles = HandleCount();

    constexpr std::size_t kCycles = 20;
    for (std::size_t i = 0; i < kCycles; ++i)
        cycle();

    EXPECT_EQ(std::ranges::count(LoadedModules(), L"tessaplug.dll"), 0);
    // The first cycle took the instance lock, which stays with the process; the others are refused by it. The
    // system opens a few things for itself, once, at a time of its own; a leak would show with every cycle.
    EXPECT_LT(LoadedModules().size(), modules.size() + kCycles);
    EXPECT_LT(ThreadCount(), threads + kCycles);
    EXPECT_LT(HandleCount(), handles + kCycles);
}

TEST(PlugInImports, AreWindowsOwnLibrariesOnly) {
    const PlugIn plugIn;
    const auto* base = reinterpret_cast<const BYTE*>(plugIn.module());
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const auto* import = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(
        base + nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
    const std::vector<std::string> windowsOwn = {"ADVAPI32.dll", "KERNEL32.dll", "msvcrt.dll", "OLEAUT32.dll",
                                                 "ole32.dll",    "SHELL32.dll",  "USER32.dll"};
    int count = 0;
    for (; import->Name != 0; ++import, ++count) {
        const std::string name = reinterpret_cast<const char*>(base + import->Name);
        EXPECT_NE(std::ranges::find(windowsOwn, name), windowsOwn.end()) << name;
    }
    EXPECT_GT(count, 0);
}

TEST(PlugInMessageTable, HasASentenceForEveryEvent) {
    const PlugIn plugIn;
    for (const DWORD id :
         {TESSAPLUG_EVENT_STARTED, TESSAPLUG_EVENT_NOT_RUNNING, TESSAPLUG_EVENT_START_FAILED}) {
        wchar_t text[1024] = {};
        const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS,
                                              plugIn.module(), id, 0, text, ARRAYSIZE(text), nullptr);
        EXPECT_GT(length, 20u) << std::hex << id;
        EXPECT_NE(std::wstring(text).find(L"adapter"), std::wstring::npos) << std::hex << id;
    }
}

TEST(PlugInVersion, IsInTheFile) {
    const std::wstring path = PlugInPath();
    DWORD ignored = 0;
    std::vector<BYTE> data(::GetFileVersionInfoSizeW(path.c_str(), &ignored));
    ASSERT_FALSE(data.empty());
    ASSERT_TRUE(::GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(data.size()), data.data()));
    void* text = nullptr;
    UINT length = 0;
    ASSERT_TRUE(::VerQueryValueW(data.data(), L"\\StringFileInfo\\040904B0\\FileVersion", &text, &length));
    EXPECT_STREQ(static_cast<const wchar_t*>(text), L"V21.00.00.00_52.50.00.04");
}
