#include <windows.h>

#include <gtest/gtest.h>

#include "adapter_control.h"
#include "host_service.h"
#include "unique_handle.h"

using test_support::CommandResult;
using test_support::ProgramFolder;

namespace {

/// tessahost.exe with a plug-in that never returns from an event, as while a message box is open there.
class HostWithABlockedPlugIn : public host_test::HostService {
  protected:
    HostWithABlockedPlugIn() {
        adapter_control::Install(nx4120_, ProgramFolder() + L"adapters.inf");
        adapter_control::Unplug(nx4120_);
    }
    ~HostWithABlockedPlugIn() override { adapter_control::Unplug(nx4120_); }

    /// Starts it and plugs an adapter in.
    void Block(const std::wstring& plugIn, const std::wstring& options) {
        ASSERT_EQ(Install(plugIn, options).exitCode, 0u);
        const CommandResult started = Run(L"start");
        ASSERT_EQ(started.exitCode, 0u) << started.output << HostLog();
        test_support::WaitUntilDeviceEventsCome();
        adapter_control::Plug(nx4120_);
        ASSERT_EQ(::WaitForSingleObject(blocks_.get(), 10000), DWORD{WAIT_OBJECT_0}) << HostLog();
    }

    const adapter_control::Model& nx4120_ = *adapter_control::FindModel(L"NX4120");
    const UniqueKernelHandle blocks_{::CreateEventW(nullptr, FALSE, FALSE, L"Global\\plug_in_blocks")};
};

}  // namespace

TEST_F(HostWithABlockedPlugIn, StopsAtOnce) {
    Block(L"plug_in_blocks_in_handler.dll", L"--stop-timeout 60");
    adapter_control::Unplug(nx4120_);
    EXPECT_TRUE(test_support::Eventually([this] { return LogHas("Device event 0x8004"); }))
        << "later events reach the host";
    const ULONGLONG begin = ::GetTickCount64();
    const CommandResult stopped = Run(L"stop");
    EXPECT_EQ(stopped.exitCode, 0u) << stopped.output;
    EXPECT_LT(::GetTickCount64() - begin, 5000u);
    EXPECT_TRUE(LogHas("The plug-in stays loaded: a thread is still in it")) << HostLog();
    EXPECT_TRUE(EndedWith(0, 0));
    EXPECT_EQ(Run(L"start").exitCode, 0u) << "it starts again";
}

TEST_F(HostWithABlockedPlugIn, IsEndedByForceAtItsLimitIfTheCleanUpHangsToo) {
    Block(L"plug_in_blocks_in_handler_and_cleanup.dll", L"--stop-timeout 5");
    const ULONGLONG begin = ::GetTickCount64();
    const CommandResult stopped = Run(L"stop");
    const ULONGLONG took = ::GetTickCount64() - begin;
    EXPECT_EQ(stopped.exitCode, 9u) << stopped.output;
    EXPECT_GE(took, 4900u);
    EXPECT_LT(took, 15000u);
    EXPECT_TRUE(EndedWith(ERROR_SERVICE_SPECIFIC_ERROR, 2));
}
