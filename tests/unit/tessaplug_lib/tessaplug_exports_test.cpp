#include <windows.h>
#include <dbt.h>

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <utility>
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

// The tables of an image need not be aligned.
#define READS_AN_IMAGE __attribute__((no_sanitize("alignment")))

/// A function that the plug-in imports, replaced for as long as this lives.
class ReplacedImport {
  public:
    ReplacedImport(HMODULE module, const std::string& name, void* replacement) : slot_(Slot(module, name)) {
        if (slot_ == nullptr) {
            ADD_FAILURE() << name << " is not imported";
            return;
        }
        original_ = Write(replacement);
    }
    ~ReplacedImport() {
        if (slot_ != nullptr) Write(original_);
    }
    ReplacedImport(const ReplacedImport&) = delete;
    ReplacedImport& operator=(const ReplacedImport&) = delete;

  private:
    READS_AN_IMAGE static void** Slot(HMODULE module, const std::string& name) {
        auto* base = reinterpret_cast<BYTE*>(module);
        const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
        const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
        const auto* library = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(
            base + nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
        for (; library->Name != 0; ++library) {
            const auto* names = reinterpret_cast<const ULONGLONG*>(base + library->OriginalFirstThunk);
            for (std::size_t i = 0; names[i] != 0; ++i) {
                if ((names[i] & IMAGE_ORDINAL_FLAG64) != 0) continue;
                const auto* import = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names[i]);
                if (name == reinterpret_cast<const char*>(&import->Name))
                    return reinterpret_cast<void**>(base + library->FirstThunk) + i;
            }
        }
        return nullptr;
    }
    READS_AN_IMAGE void* Write(void* function) {
        DWORD former = 0;
        ::VirtualProtect(slot_, sizeof *slot_, PAGE_READWRITE, &former);
        void* replaced = *slot_;
        *slot_ = function;
        ::VirtualProtect(slot_, sizeof *slot_, former, &former);
        return replaced;
    }

    void** slot_;
    void* original_ = nullptr;
};

HANDLE WINAPI NoEvent(SECURITY_ATTRIBUTES*, BOOL, BOOL, const wchar_t*) {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}
HANDLE WINAPI RaisingCreateEvent(SECURITY_ATTRIBUTES*, BOOL, BOOL, const wchar_t*) {
    ::RaiseException(0xE06D7363, 0, 0, nullptr);
    return nullptr;
}
BOOL WINAPI RaisingUnregister(HDEVNOTIFY) {
    ::RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr);
    return FALSE;
}

/// The failed assertions that the plug-in tells a debugger of.
class ToldAssertions {
  public:
    explicit ToldAssertions(HMODULE module)
        : listening_(module, "OutputDebugStringW", reinterpret_cast<void*>(&Listen)) {
        texts.clear();
    }

    static inline std::vector<std::wstring> texts;

  private:
    static void WINAPI Listen(const wchar_t* text) { texts.emplace_back(text); }
    ReplacedImport listening_;
};

std::vector<std::wstring> Told(const std::wstring& expression, int line) {
    return {L"tessaplug: assertion failed: " + expression + L", tessaplug_lib\\src\\tessaplug(" +
            std::to_wstring(line) + L")\n"};
}

int reports = 0;
void WINAPI CountReports(void*, SERVICE_STATUS*) {
    ++reports;
}

const auto kStatusHandle = reinterpret_cast<SERVICE_STATUS_HANDLE>(0x51);

READS_AN_IMAGE std::vector<std::string> ExportedNames(HMODULE module) {
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

/// How a host's callback can throw.
class ExceptionOfTheHostsCallback : public testing::TestWithParam<TESSAPLUG_STATUS_CALLBACK> {};

INSTANTIATE_TEST_SUITE_P(Kinds, ExceptionOfTheHostsCallback,
                         testing::Values([](void*, SERVICE_STATUS*) { throw 42; },
                                         [](void*, SERVICE_STATUS*) {
                                             ::RaiseException(0xE06D7363, 0, 0, nullptr);
                                         },
                                         [](void*, SERVICE_STATUS*) { ::DebugBreak(); },
                                         [](void*, SERVICE_STATUS*) {
                                             *static_cast<volatile int*>(nullptr) =
                                                 0;  // NOLINT: the fault is what is tested
                                         }));

TEST_P(ExceptionOfTheHostsCallback, IsAssertedAndNeverReachesTheHost) {
    const PlugIn plugIn;
    const ToldAssertions told(plugIn.module());
    EXPECT_EQ(plugIn.init(TESSAPLUG_API_VERSION, kStatusHandle, GetParam(), nullptr, 0), 0u);
    EXPECT_EQ(ToldAssertions::texts, Told(L"!\"SEH during Init()\"", 67));
    // The next call of each export, on another thread: a lock left taken would keep it.
    std::thread([&plugIn] {
        EXPECT_EQ(plugIn.init(TESSAPLUG_API_VERSION, kStatusHandle, &CountReports, nullptr, 0), 0u);
        EXPECT_EQ(plugIn.handler(SERVICE_CONTROL_STOP, 0, nullptr, nullptr), 0u);
        plugIn.cleanup();
    }).join();
}

TEST(PlugInExports, AssertAnExceptionOfTheCleanup) {
    const PlugIn plugIn;
    ASSERT_EQ(plugIn.init(TESSAPLUG_API_VERSION, kStatusHandle, &CountReports, nullptr, 0), 1u);
    {
        const ReplacedImport raising(plugIn.module(), "UnregisterDeviceNotification",
                                     reinterpret_cast<void*>(&RaisingUnregister));
        const ToldAssertions told(plugIn.module());
        plugIn.cleanup();
        EXPECT_EQ(ToldAssertions::texts, Told(L"!\"SEH during Init()\"", 83));
    }
    std::thread([&plugIn] { plugIn.cleanup(); }).join();
}

/// The first export call makes the service object; each export tells in its own way that it could not.
class FirstExportCall
    : public testing::TestWithParam<HANDLE(WINAPI*)(SECURITY_ATTRIBUTES*, BOOL, BOOL, const wchar_t*)> {
  protected:
    template <typename Call>
    static std::vector<std::wstring> AssertionsOf(Call call) {
        const PlugIn plugIn;
        {
            const ReplacedImport failing(plugIn.module(), "CreateEventW",
                                         reinterpret_cast<void*>(GetParam()));
            const ToldAssertions told(plugIn.module());
            call(plugIn);
        }
        // On another thread: the lock that guards the making is free again.
        std::thread([&plugIn] {
            EXPECT_EQ(plugIn.handler(SERVICE_CONTROL_STOP, 0, nullptr, nullptr), 0u);
        }).join();
        return ToldAssertions::texts;
    }
};

INSTANTIATE_TEST_SUITE_P(Kinds, FirstExportCall, testing::Values(&NoEvent, &RaisingCreateEvent));

TEST_P(FirstExportCall, ThatFailsIsAssertedWithTheExportsLine) {
    EXPECT_EQ(AssertionsOf([](const PlugIn& plugIn) {
                  EXPECT_EQ(plugIn.init(TESSAPLUG_API_VERSION, kStatusHandle, &CountReports, nullptr, 0), 0u);
              }),
              Told(L"!\"SEH during Init()\"", 67));
    EXPECT_EQ(AssertionsOf([](const PlugIn& plugIn) { plugIn.cleanup(); }),
              Told(L"!\"SEH during Init()\"", 83));
    EXPECT_EQ(AssertionsOf([](const PlugIn& plugIn) {
                  EXPECT_EQ(plugIn.handler(SERVICE_CONTROL_STOP, 0, nullptr, nullptr), 0xFFFFFFFFu);
              }),
              Told(L"!\"SEH service_ctrl_handler()\"", 111));
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
    for (const DWORD id : {TESSAPLUG_EVENT_STARTED, TESSAPLUG_EVENT_NOT_RUNNING,
                           TESSAPLUG_EVENT_MONITOR_ENDED, TESSAPLUG_EVENT_START_FAILED}) {
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
