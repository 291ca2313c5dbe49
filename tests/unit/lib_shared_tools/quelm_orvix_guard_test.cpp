// What the configuration library does to those who call it, and to those who call at the same time.

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "configuration_library_location.h"
#include "exception_history.h"
#include "module_hooks.h"
#include "quelm_orvix.h"
#include "text_of.h"
#include "trace_recorder.h"
#include "unique_handle.h"
#include "windows_api_excp.h"

using modul_exception::CWindowsApiExcp;
using quelm::Q5orvix;
using test_support::ConfigurationLibraryLocation;
using test_support::FaultyLibrary;
using test_support::ModuleHooks;
using test_support::TextOf;

namespace {

bool LibraryIsLoaded() {
    return ::GetModuleHandleW(L"q5orvix64x.dll") != nullptr;
}

wchar_t buffer[16];
DWORD length = 16;

/// The function that the exception history names for the last exception.
std::string LastThrowingFunction() {
    const auto& history = modul_exception::exceptionHistory;
    return history.records[(history.writeIndex + history.kCapacity - 1) % history.kCapacity].function;
}

struct Operation {
    const char* name;
    std::function<void(Q5orvix&)> call;
};

const std::vector<Operation> kCalls = {
    {"LogDeviceExists()", [](Q5orvix& library) { library.LogDeviceExists(L"d", 0); }},
    {"LogDeviceGetValue()", [](Q5orvix& library) { library.LogDeviceGetValue(L"d", L"p", buffer, &length); }},
    {"LogDeviceSetNdiValue()", [](Q5orvix& library) { library.LogDeviceSetNdiValue(L"d", L"p", L"true"); }},
    {"TemplateGetEnum()",
     [](Q5orvix& library) { library.TemplateGetEnum(L"DefaultLogDevices", 0, buffer, &length); }},
};

void Misbehave(const wchar_t* where, const wchar_t* kind = L"") {
    ::SetEnvironmentVariableW(L"Q5ORVIX_WHERE", where);
    ::SetEnvironmentVariableW(L"Q5ORVIX_RAISES", kind);
}

/// Of each kind that a library can raise, by the name that it knows it by.
class RaisingLibrary : public testing::TestWithParam<const wchar_t*> {
  protected:
    ConfigurationLibraryLocation location_{FaultyLibrary(L"raises")};
    Q5orvix library_;
};

INSTANTIATE_TEST_SUITE_P(Kinds, RaisingLibrary,
                         testing::Values(L"access violation", L"breakpoint", L"guard page",
                                         L"software exception", L"another C++ exception",
                                         L"standard exception", L"unknown exception"));

/// A system whose loader lets pass what a library raises when it is initialised or cleaned up.
class RaisingKernel32 : public windows_api::CKernel32 {
  public:
    HMODULE LoadLibraryW(const wchar_t* fileName) override {
        onLoad();
        return CKernel32::LoadLibraryW(fileName);
    }
    BOOL FreeLibrary(HMODULE module) override {
        const BOOL isFreed = CKernel32::FreeLibrary(module);
        onFree();
        return isFreed;
    }

    std::function<void()> onLoad = [] {};
    std::function<void()> onFree = [] {};
};

const std::vector<std::function<void()>> kFaults = {
    [] { ::RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr); },
    [] { ::RaiseException(0xE06D7363, 0, 0, nullptr); },
    [] { throw std::runtime_error("thrown by the library"); },
    [] { throw 42; },
};

const std::string kLoadFailed = "FAILED! LoadLibraryW()! LE(1114): ";  // its initialisation failed

/// One operation inside the library, until a test lets it go on.
class BlockingLibrary : public testing::Test {
  protected:
    BlockingLibrary() { ::SetEnvironmentVariableW(L"Q5ORVIX_WHERE", L"call"); }

    /// True if `second` has to wait while `first` is inside the library.
    bool Waits(const std::function<void(Q5orvix&)>& first, const std::function<void(Q5orvix&)>& second) {
        constexpr DWORD kLongEnoughToComeBack = 300;
        constexpr DWORD kLimit = 20000;
        const UniqueKernelHandle done(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        // Made first: while the library is being loaded or freed, no thread can start.
        std::thread secondThread([&] {
            ::WaitForSingleObject(entered_.get(), kLimit);
            Quietly(second);
            ::SetEvent(done.get());
        });
        std::thread firstThread([&] { Quietly(first); });
        EXPECT_EQ(::WaitForSingleObject(entered_.get(), kLimit), WAIT_OBJECT_0);
        const bool waits = ::WaitForSingleObject(done.get(), kLongEnoughToComeBack) == WAIT_TIMEOUT;
        ::SetEvent(goOn_.get());
        firstThread.join();
        secondThread.join();
        return waits;
    }

    Q5orvix library_;

  private:
    void Quietly(const std::function<void(Q5orvix&)>& operation) {
        try {
            operation(library_);
        } catch (const std::exception&) {
            return;  // that it came back is what counts
        }
    }

    ConfigurationLibraryLocation location_{FaultyLibrary(L"blocks")};
    UniqueKernelHandle entered_{::CreateEventW(nullptr, TRUE, FALSE, L"Q5ORVIX_ENTERED")};
    UniqueKernelHandle goOn_{::CreateEventW(nullptr, TRUE, FALSE, L"Q5ORVIX_GO_ON")};
};

class BlockingCall : public BlockingLibrary, public testing::WithParamInterface<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(Operations, BlockingCall, testing::Range<std::size_t>(0, 4));

}  // namespace

TEST_P(RaisingLibrary, IsAssertedAndBecomesOneExceptionInEveryCallAndTheNextCallWorks) {
    library_.LoadLib();
    for (const Operation& operation : kCalls) {
        const ModuleHooks hooks;
        const std::string text = std::string("SEH! Orvix: ") + operation.name;
        Misbehave(L"call", GetParam());
        EXPECT_EQ(TextOf<std::runtime_error>([&] { operation.call(library_); }), text);
        EXPECT_EQ(hooks.AssertedExpressions(),
                  (std::vector<std::wstring>{L"!\"" + std::wstring(text.begin(), text.end()) + L"\""}));
        EXPECT_EQ(hooks.Assertions().at(0).sourcePath, L"lib_shared_tools\\src\\quelm_orvix");
        EXPECT_EQ(LastThrowingFunction() + "()", std::string("quelm::Q5orvix::") + operation.name);
        Misbehave(L"call");
        for (const Operation& next : kCalls)
            EXPECT_NO_THROW(next.call(library_)) << operation.name << " then " << next.name;
    }
    library_.UnloadLib();
    EXPECT_FALSE(LibraryIsLoaded());
}

TEST_P(RaisingLibrary, AtItsInitialisationIsAFailedLoadAndTheNextLoadWorks) {
    Misbehave(L"attach", GetParam());
    const std::string text = TextOf<CWindowsApiExcp>([&] { library_.LoadLib(); });
    EXPECT_TRUE(text.starts_with("FAILED! LoadLibraryW()! LE(")) << text;
    EXPECT_FALSE(LibraryIsLoaded());
    Misbehave(L"call");
    library_.LoadLib();
    EXPECT_EQ(library_.LogDeviceExists(L"d", 0), 0u);
}

TEST_P(RaisingLibrary, AtItsCleanUpIsNoFailureAndTheNextLoadWorks) {
    library_.LoadLib();
    Misbehave(L"detach", GetParam());
    EXPECT_NO_THROW(library_.UnloadLib());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { library_.LogDeviceExists(L"d", 0); }),
              "Q5Orvix-DLL not loaded!");
    Misbehave(L"call");
    library_.LoadLib();
    EXPECT_EQ(library_.LogDeviceExists(L"d", 0), 0u);
}

TEST(ConfigurationLibrary, WhatTheLoaderLetsPassIsAFailedLoadAndTheNextLoadWorks) {
    const ConfigurationLibraryLocation location(FaultyLibrary(L"raises"));
    Misbehave(L"call");
    const auto kernel32 = std::make_shared<RaisingKernel32>();
    Q5orvix library(kernel32);
    for (const auto& fault : kFaults) {
        kernel32->onLoad = fault;
        const std::string text = TextOf<CWindowsApiExcp>([&] { library.LoadLib(); });
        EXPECT_TRUE(text.starts_with(kLoadFailed)) << text;
        EXPECT_TRUE(text.ends_with(" Hint: q5orvix64x.dll\n")) << text;
        EXPECT_EQ(TextOf<std::runtime_error>([&] { library.LogDeviceExists(L"d", 0); }),
                  "Q5Orvix-DLL not loaded!");
    }
    kernel32->onLoad = [] {};
    library.LoadLib();
    EXPECT_EQ(library.LogDeviceExists(L"d", 0), 0u);
}

TEST(ConfigurationLibrary, WhatTheLoaderLetsPassAtTheEndIsNoFailureAndTheNextLoadWorks) {
    const ConfigurationLibraryLocation location(FaultyLibrary(L"raises"));
    Misbehave(L"call");
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kSharedToolsGuid, trace::kError, trace::kConfiguration, 1);
    const auto kernel32 = std::make_shared<RaisingKernel32>();
    for (const auto& fault : kFaults) {
        Q5orvix library(kernel32);
        library.LoadLib();
        kernel32->onFree = fault;
        test_support::TakeTraceRecords();
        EXPECT_NO_THROW(library.UnloadLib());
        const auto traced = test_support::TakeTraceRecords();
        ASSERT_FALSE(traced.empty());
        EXPECT_EQ(traced.back().number, 13) << "that it could not be freed";
        EXPECT_EQ(TextOf<std::runtime_error>([&] { library.LogDeviceExists(L"d", 0); }),
                  "Q5Orvix-DLL not loaded!");
        library.LoadLib();  // and is freed by destruction, which raises too
    }
}

TEST(ConfigurationLibrary, MissingExportOfALibraryThatCannotBeFreedIsStillTold) {
    const ConfigurationLibraryLocation location(FaultyLibrary(L"missing_export"));
    const auto kernel32 = std::make_shared<RaisingKernel32>();
    kernel32->onFree = kFaults[0];
    Q5orvix library(kernel32);
    const std::string text = TextOf<CWindowsApiExcp>([&] { library.LoadLib(); });
    EXPECT_TRUE(text.ends_with(" Hint: TemplateGetEnum\n")) << text;
}

TEST_P(BlockingCall, MakesAnotherOneWait) {
    library_.LoadLib();
    EXPECT_TRUE(Waits(kCalls[GetParam()].call, kCalls[0].call)) << kCalls[GetParam()].name << " is inside";
}

TEST_P(BlockingCall, IsWaitedForByEveryOther) {
    library_.LoadLib();
    EXPECT_TRUE(Waits(kCalls[0].call, kCalls[GetParam()].call)) << kCalls[GetParam()].name << " comes later";
}

TEST_F(BlockingLibrary, IsNotFreedWhileACallIsInside) {
    library_.LoadLib();
    HMODULE keptIfItWere = nullptr;
    ::GetModuleHandleExW(0, L"q5orvix64x.dll", &keptIfItWere);
    const UniqueModule keep(keptIfItWere);
    EXPECT_TRUE(Waits(kCalls[0].call, [](Q5orvix& library) { library.UnloadLib(); }));
}

TEST_F(BlockingLibrary, IsNotLoadedWhileACallIsInside) {
    library_.LoadLib();
    EXPECT_TRUE(Waits(kCalls[0].call, [](Q5orvix& library) { library.LoadLib(); }));
}

TEST_F(BlockingLibrary, MakesOthersWaitWhileItIsLoaded) {
    ::SetEnvironmentVariableW(L"Q5ORVIX_WHERE", L"attach");
    EXPECT_TRUE(
        Waits([](Q5orvix& library) { library.LoadLib(); }, [](Q5orvix& library) { library.UnloadLib(); }));
}

TEST_F(BlockingLibrary, MakesOthersWaitWhileItIsFreed) {
    ::SetEnvironmentVariableW(L"Q5ORVIX_WHERE", L"detach");
    library_.LoadLib();
    EXPECT_TRUE(Waits([](Q5orvix& library) { library.UnloadLib(); }, kCalls[0].call));
}
