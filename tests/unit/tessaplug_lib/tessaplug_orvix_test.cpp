#include "tessaplug_orvix.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "command.h"
#include "exception_history.h"
#include "module_hooks.h"
#include "process_census.h"
#include "program_folder.h"
#include "text_of.h"
#include "trace_recorder.h"
#include "win_convenience.h"
#include "windows_api_excp.h"

using modul_exception::CWindowsApiExcp;
using quelm::TvorPanel;
using test_support::HandleCount;
using test_support::ModuleHooks;
using test_support::ProgramFolder;
using test_support::TextOf;

namespace {

const std::wstring kCommandLine = L"C:\\windows\\syswow64\\q5panels.exe -silent -force -ci";
const auto kProcess = reinterpret_cast<HANDLE>(0x11);
const auto kThread = reinterpret_cast<HANDLE>(0x22);

std::string BytesOf(const STARTUPINFOW& startup) {
    return {reinterpret_cast<const char*>(&startup), sizeof startup};
}

/// Starts a process that exists only here.
class FakeKernel32 : public windows_api::CKernel32 {
  public:
    BOOL CreateProcessW(const wchar_t* application, wchar_t* commandLine,
                        SECURITY_ATTRIBUTES* processSecurity, SECURITY_ATTRIBUTES* threadSecurity,
                        BOOL inheritHandles, DWORD flags, void* environment, const wchar_t* folder,
                        STARTUPINFOW* startup, PROCESS_INFORMATION* process) override {
        EXPECT_EQ(application, nullptr);
        EXPECT_EQ(processSecurity, nullptr);
        EXPECT_EQ(threadSecurity, nullptr);
        EXPECT_FALSE(inheritHandles);
        EXPECT_EQ(flags, 0u);
        EXPECT_EQ(environment, nullptr);
        EXPECT_EQ(folder, nullptr);
        STARTUPINFOW expected = {};
        expected.cb = 104;
        EXPECT_EQ(BytesOf(*startup), BytesOf(expected));
        startedLine = commandLine;
        *process = started;
        ::SetLastError(ERROR_ACCESS_DENIED);
        return createResult;
    }
    DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) override {
        waits.push_back({handle, milliseconds});
        onWait();
        ::SetLastError(ERROR_INVALID_HANDLE);
        return waitResult;
    }
    BOOL CloseHandle(HANDLE handle) override {
        closed.push_back(handle);
        return closeResult;
    }

    BOOL createResult = TRUE;
    PROCESS_INFORMATION started = {kProcess, kThread, 1, 2};
    DWORD waitResult = WAIT_OBJECT_0;
    std::function<void()> onWait = [] {};
    BOOL closeResult = TRUE;
    std::wstring startedLine;
    std::vector<std::pair<HANDLE, DWORD>> waits;
    std::vector<HANDLE> closed;
};

/// The function that the exception history names for the last exception.
std::string LastThrowingFunction() {
    const auto& history = modul_exception::exceptionHistory;
    return history.records[(history.writeIndex + history.kCapacity - 1) % history.kCapacity].function;
}

class Panel : public testing::Test {
  protected:
    std::shared_ptr<FakeKernel32> kernel32_ = std::make_shared<FakeKernel32>();
    TvorPanel panel_{kernel32_};
    const std::vector<HANDLE> bothHandles_ = {kProcess, kThread};
};

/// Places a program as the installation's panel; takes it away again.
class InstalledPanel {
  public:
    explicit InstalledPanel(const std::wstring& program) {
        ::CopyFileW((ProgramFolder() + program).c_str(), path_.c_str(), FALSE);
    }
    /// Waits for the end of one that still runs.
    ~InstalledPanel() {
        EXPECT_TRUE(test_support::Eventually([this] { return ::DeleteFileW(path_.c_str()) != 0; }));
    }
    InstalledPanel(const InstalledPanel&) = delete;
    InstalledPanel& operator=(const InstalledPanel&) = delete;

  private:
    std::wstring path_ = windows_api::GetSysWoW64Directory() + L"\\q5panels.exe";
};

}  // namespace

TEST_F(Panel, IsTakenFromThe32BitSystemFolderAndWaitedForOnce) {
    panel_.CallSilent();

    EXPECT_EQ(::_wcsicmp(kernel32_->startedLine.c_str(), kCommandLine.c_str()), 0) << "not quoted";
    EXPECT_EQ(kernel32_->waits, (std::vector<std::pair<HANDLE, DWORD>>{{kProcess, 10000}}));
    EXPECT_EQ(kernel32_->closed, bothHandles_);
}

TEST_F(Panel, ThatTakesTooLongIsTold) {
    kernel32_->waitResult = WAIT_TIMEOUT;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { panel_.CallSilent(); }),
              "Waiting for Tvor-Panel-Process -> WAIT_TIMEOUT");
    EXPECT_EQ(kernel32_->closed, bothHandles_);
}

TEST_F(Panel, AbandonedWaitIsTold) {
    kernel32_->waitResult = WAIT_ABANDONED;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { panel_.CallSilent(); }),
              "Waiting for Tvor-Panel-Process -> WAIT_ABANDONED");
    EXPECT_EQ(kernel32_->closed, bothHandles_);
}

TEST_F(Panel, FailedWaitNamesTheCall) {
    kernel32_->waitResult = WAIT_FAILED;
    const std::string text = TextOf<CWindowsApiExcp>([&] { panel_.CallSilent(); });
    EXPECT_TRUE(text.starts_with("FAILED! WaitForSingleObject()! LE(6): ")) << text;
    EXPECT_TRUE(text.ends_with(" Hint: \n")) << text;
    EXPECT_EQ(kernel32_->closed, bothHandles_);
}

TEST_F(Panel, UnknownWaitResultIsAssertedToo) {
    kernel32_->waitResult = 77;
    const ModuleHooks hooks;
    EXPECT_THROW(panel_.CallSilent(), CWindowsApiExcp);
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"!\"INVALID Case for WaitForSingleObject()\""}));
}

TEST_F(Panel, ThatCannotBeStartedIsNeitherWaitedForNorClosed) {
    kernel32_->createResult = FALSE;
    const std::string text = TextOf<CWindowsApiExcp>([&] { panel_.CallSilent(); });
    EXPECT_TRUE(text.starts_with("FAILED! CreateProcessW()! LE(5): ")) << text;
    EXPECT_TRUE(kernel32_->waits.empty());
    EXPECT_TRUE(kernel32_->closed.empty());
}

TEST_F(Panel, ExceptionOfAnyKindWhileWaitingPassesUnchangedAfterTheHandlesAreClosed) {
    kernel32_->onWait = [] { throw 42; };
    EXPECT_THROW(panel_.CallSilent(), int);
    EXPECT_EQ(kernel32_->closed, bothHandles_);
}

TEST_F(Panel, WithoutAProcessHandleIsAssertedAndWaitedFor) {
    kernel32_->started.hProcess = nullptr;
    const ModuleHooks hooks;
    panel_.CallSilent();
    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"hProcess != NULL"}));
    EXPECT_EQ(kernel32_->waits.size(), 1u);
}

TEST_F(Panel, IsTracedFromStartToEnd) {
    const test_support::EnabledTracing tracing(test_support::kModuleGuid, trace::kVerbose, trace::kMessage);
    panel_.CallSilent();
    EXPECT_EQ(test_support::TakeTraceNumbers(), (std::vector<USHORT>{10, 11, 13, 14}));
    test_support::EnableTracing(test_support::kModuleGuid, trace::kInformation, trace::kMessage, 1);
    panel_.CallSilent();
    EXPECT_TRUE(test_support::TakeTraceNumbers().empty());
}

TEST_F(Panel, FailuresAreTracedByTheirLevels) {
    kernel32_->waitResult = WAIT_TIMEOUT;
    kernel32_->closeResult = FALSE;
    const test_support::EnabledTracing tracing(test_support::kModuleGuid, trace::kWarning, trace::kMessage);
    EXPECT_THROW(panel_.CallSilent(), std::runtime_error);
    EXPECT_EQ(test_support::TakeTraceNumbers(), (std::vector<USHORT>{12, 15, 15}));
    test_support::EnableTracing(test_support::kModuleGuid, trace::kError, trace::kMessage, 1);
    EXPECT_THROW(panel_.CallSilent(), std::runtime_error);
    EXPECT_EQ(test_support::TakeTraceNumbers(), (std::vector<USHORT>{12}));
}

TEST_F(Panel, ThrowsAreFiledUnderTheirMethods) {
    kernel32_->waitResult = WAIT_TIMEOUT;
    EXPECT_THROW(panel_.CallSilent(), std::runtime_error);
    EXPECT_EQ(LastThrowingFunction(), "quelm::TvorPanel::WaitUntilTvorPanelFinished");
    kernel32_->createResult = FALSE;
    EXPECT_THROW(panel_.CallSilent(), CWindowsApiExcp);
    EXPECT_EQ(LastThrowingFunction(), "quelm::TvorPanel::CallSilent");
}

TEST_F(Panel, HandlesThatCannotBeClosedAreNoFailure) {
    kernel32_->closeResult = FALSE;
    EXPECT_NO_THROW(panel_.CallSilent());
    EXPECT_EQ(kernel32_->closed, bothHandles_);
}

TEST(RealPanel, ThatIsMissingIsToldWithItsCommandLine) {
    const std::string text = TextOf<CWindowsApiExcp>([] { TvorPanel().CallSilent(); });
    EXPECT_TRUE(text.starts_with("FAILED! CreateProcessW()! LE(2): ")) << text;
    EXPECT_TRUE(text.ends_with("\\q5panels.exe -silent -force -ci\n")) << text;
}

TEST(RealPanel, ThatEndsAtOnceLeavesNoHandle) {
    const InstalledPanel installed(L"ends_at_once.exe");
    TvorPanel panel;
    panel.CallSilent();
    const std::size_t before = HandleCount();
    for (int i = 0; i < 3; ++i)
        panel.CallSilent();
    EXPECT_EQ(HandleCount(), before);
}

TEST(RealPanel, ThatHangsIsWaitedForTenSecondsAndLeftRunning) {
    TvorPanel panel;
    EXPECT_THROW(panel.CallSilent(),
                 std::exception);  // what the system opens once stays out of the comparison
    const InstalledPanel installed(L"hangs.exe");
    const std::size_t before = HandleCount();
    const ULONGLONG start = ::GetTickCount64();

    EXPECT_THROW(panel.CallSilent(), std::runtime_error);

    EXPECT_GE(::GetTickCount64() - start, 9900u);
    EXPECT_EQ(HandleCount(), before);
    const HANDLE goOn = ::OpenEventW(EVENT_MODIFY_STATE, FALSE, L"Global\\TESSA_TEST_GO_ON");
    ASSERT_NE(goOn, nullptr) << "it still runs";
    ::SetEvent(goOn);
    ::CloseHandle(goOn);
}
