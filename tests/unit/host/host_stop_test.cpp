#include <windows.h>
#include <winsvc.h>

#include <gtest/gtest.h>
#include <string>

#include "host_service.h"

using test_support::CommandResult;
using test_support::Eventually;

namespace {

/// Stops of tessahost.exe with plug-ins whose clean-up takes its time, or never returns.
class HostStop : public host_test::HostService {
  protected:
    static DWORD Occurrences(const std::string& text, const std::string& part) {
        DWORD count = 0;
        for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
            ++count;
        return count;
    }
    /// Without waiting for its end.
    static void RequestStop() {
        const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        const SC_HANDLE service = ::OpenServiceW(manager, L"tessahost_unit_test", SERVICE_STOP);
        SERVICE_STATUS status = {};
        EXPECT_TRUE(::ControlService(service, SERVICE_CONTROL_STOP, &status)) << ::GetLastError();
        ::CloseServiceHandle(service);
        ::CloseServiceHandle(manager);
    }
    bool IsStopping() const {
        return Eventually([this] {
            return Run(L"status --json").output.find("\"state\":\"STOP_PENDING\"") != std::string::npos;
        });
    }
};

}  // namespace

TEST_F(HostStop, ThatTakesItsTimeIsReportedWithRisingCheckPoints) {
    Install(L"plug_in_slow_in_cleanup.dll");
    EXPECT_EQ(Run(L"start").exitCode, 0u);
    const CommandResult stopped = Run(L"stop");
    EXPECT_EQ(stopped.exitCode, 0u) << stopped.output;
    for (const char* step : {"1", "2", "3", "4"})
        EXPECT_TRUE(LogHas(std::string("STOP_PENDING   check point ") + step + ", wait hint 5000 ms"))
            << HostLog();
    EXPECT_NE(stopped.output.find("STOP_PENDING   check point 3"), std::string::npos) << stopped.output;
    EXPECT_TRUE(EndedWith(0, 0));
}

TEST_F(HostStop, ThatHangsIsEndedByForceAtItsLimit) {
    Install(L"plug_in_hangs_in_cleanup.dll", L"--stop-timeout 5");
    EXPECT_EQ(Run(L"start").exitCode, 0u);
    const ULONGLONG begin = ::GetTickCount64();
    const CommandResult stopped = Run(L"stop");
    const ULONGLONG took = ::GetTickCount64() - begin;
    EXPECT_EQ(stopped.exitCode, 9u) << stopped.output;
    EXPECT_NE(stopped.output.find("the service's process was ended"), std::string::npos) << stopped.output;
    EXPECT_GE(took, 4900u);
    EXPECT_LT(took, 15000u);
    EXPECT_TRUE(LogHas("The plug-in's clean-up has not returned within 5 s: ")) << HostLog();
    EXPECT_TRUE(LogHas("STOP_PENDING   check point 5")) << HostLog();
    EXPECT_FALSE(LogHas("STOP_PENDING   check point 6")) << HostLog();
    EXPECT_TRUE(EndedWith(ERROR_SERVICE_SPECIFIC_ERROR, 2)) << Run(L"status --json").output;
    EXPECT_EQ(Run(L"start").exitCode, 0u) << "it starts again";
    EXPECT_EQ(Run(L"uninstall").exitCode, 0u) << "and can be removed, also by force";
}

TEST_F(HostStop, SecondOneWaitsForTheFirst) {
    Install(L"plug_in_hangs_in_cleanup.dll", L"--stop-timeout 8");
    EXPECT_EQ(Run(L"start").exitCode, 0u);
    RequestStop();
    EXPECT_TRUE(IsStopping());
    const CommandResult second = Run(L"stop");
    EXPECT_EQ(second.exitCode, 9u) << second.output;
    EXPECT_NE(second.output.find("STOP_PENDING"), std::string::npos) << second.output;
    EXPECT_EQ(Occurrences(HostLog(), "Stop requested"), 1u);
}

TEST_F(HostStop, OfAStartThatWasRefusedHasTheLimitToo) {
    Install(L"plug_in_refuses_and_hangs.dll", L"--stop-timeout 5");
    EXPECT_EQ(Run(L"start").exitCode, 1u);
    EXPECT_TRUE(LogHas("The plug-in refused to start")) << HostLog();
    EXPECT_TRUE(EndedWith(ERROR_SERVICE_SPECIFIC_ERROR, 2));
}
