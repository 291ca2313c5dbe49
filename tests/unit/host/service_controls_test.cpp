#include "service_controls.h"

#include <gtest/gtest.h>
#include <string>

using host::AcceptedControls;
using host::StopReason;

TEST(ServiceControls, StopShutdownAndPreshutdownEndTheService) {
    EXPECT_STREQ(StopReason(SERVICE_CONTROL_STOP), L"Stop requested");
    EXPECT_STREQ(StopReason(SERVICE_CONTROL_SHUTDOWN), L"The machine shuts down");
    EXPECT_STREQ(StopReason(SERVICE_CONTROL_PRESHUTDOWN), L"The machine is going to shut down");
    for (const int control : {SERVICE_CONTROL_PAUSE, SERVICE_CONTROL_INTERROGATE, SERVICE_CONTROL_DEVICEEVENT,
                              SERVICE_CONTROL_POWEREVENT})
        EXPECT_EQ(StopReason(static_cast<DWORD>(control)), nullptr);
}

TEST(ServiceControls, AreTakenWhileTheServiceRunsOnly) {
    EXPECT_NE(AcceptedControls(SERVICE_RUNNING) & SERVICE_ACCEPT_PRESHUTDOWN, 0u);
    for (const int state : {SERVICE_STOPPED, SERVICE_START_PENDING, SERVICE_STOP_PENDING})
        EXPECT_EQ(AcceptedControls(static_cast<DWORD>(state)), 0u);
}
