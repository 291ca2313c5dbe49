#include <windows.h>

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "command.h"
#include "event_log_stand_in.h"

// Whom the stand-in's event log tells of what is written, and when.
namespace {

using namespace event_log_stand_in;
using test_support::Eventually;

/// An event, registered for the test's log, and a thread that waits for it.
class NotificationOfTheLog : public EventLogOfTheTest {
  protected:
    ~NotificationOfTheLog() override {
        ends_ = true;
        ::SetEvent(event_);
        if (waiter_.joinable()) waiter_.join();
        ::CloseEventLog(log_);  // before its event
        ::CloseHandle(event_);
        log_ = nullptr;
    }
    void Register() { ASSERT_TRUE(::NotifyChangeEventLog(log_, event_)); }
    void StartToWait() {
        waiter_ = std::thread([this] {
            for (;;) {
                ::WaitForSingleObject(event_, INFINITE);
                if (ends_) return;
                ::ResetEvent(event_);
                ++told_;
            }
        });
        ::Sleep(300);  // until it waits
    }
    bool IsTold(int times) const {
        return Eventually([&] { return told_ == times; });
    }
    /// Whether as many are told, and no more in half a second.
    bool StaysTold(int times) const {
        ::Sleep(500);
        return told_ == times;
    }

    const HANDLE event_ = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<bool> ends_ = false;
    std::atomic<int> told_ = 0;
    std::thread waiter_;
};

class SetNotification : public NotificationOfTheLog {
    const EventLogSetting sets_{wine_gap::kNotificationSets, 1};
};

}  // namespace

TEST_F(NotificationOfTheLog, PulsesTheEventForAThreadThatWaits) {
    Register();
    StartToWait();
    Append(1);
    EXPECT_TRUE(IsTold(1));
}

TEST_F(NotificationOfTheLog, ThreadThatDoesNotWaitMissesThePulse) {
    Register();
    Append(1);
    ::Sleep(500);
    StartToWait();
    Append(1);  // in the quiet five seconds of that pulse
    EXPECT_TRUE(StaysTold(0));
}

TEST_F(NotificationOfTheLog, PulsesNoMoreThanOnceInFiveSecondsAndForgetsWhatIsWrittenInThem) {
    Register();
    StartToWait();
    Append(1);
    ASSERT_TRUE(IsTold(1)) << told_;
    Append(1);
    ::Sleep(3000);
    Append(1);
    ::Sleep(2200);
    EXPECT_EQ(told_, 1) << "also when the five seconds are over";
    Append(1);
    EXPECT_TRUE(IsTold(2));
}

TEST_F(SetNotification, SetsTheEventWithEveryRecord) {
    Register();
    for (int i = 0; i < 3; ++i) {
        Append(1);
        EXPECT_EQ(::WaitForSingleObject(event_, 10000), static_cast<DWORD>(WAIT_OBJECT_0)) << i;
        EXPECT_EQ(::WaitForSingleObject(event_, 0), static_cast<DWORD>(WAIT_OBJECT_0)) << "it stays set";
        ::ResetEvent(event_);
    }
}

TEST_F(SetNotification, IsOfTheHandlesLogOnly) {
    Register();
    EXPECT_EQ(wine_gap::EventLogFile(L"Application").Append({EventOf(L"elsewhere")}), 0u);
    EXPECT_EQ(::WaitForSingleObject(event_, 300), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(SetNotification, ClearingWritesNoRecordAndIsNotTold) {
    Append(1);
    Register();
    EXPECT_TRUE(::ClearEventLogW(log_, nullptr));
    EXPECT_EQ(::WaitForSingleObject(event_, 300), static_cast<DWORD>(WAIT_TIMEOUT));
    Append(1);
    EXPECT_EQ(::WaitForSingleObject(event_, 10000), static_cast<DWORD>(WAIT_OBJECT_0));
}

TEST_F(SetNotification, EndsWhenTheHandleIsClosed) {
    Register();
    ::CloseEventLog(log_);
    Append(1);
    EXPECT_EQ(::WaitForSingleObject(event_, 300), static_cast<DWORD>(WAIT_TIMEOUT));
    log_ = nullptr;
}

TEST_F(SetNotification, EndsWhenTheServiceIsStartedAgain) {
    Register();
    const EventLogSetting restarts(wine_gap::kServiceRestarts, 1);
    Append(1);
    EXPECT_EQ(::WaitForSingleObject(event_, 300), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(NotificationOfTheLog, NeedsAHandleOfALogAndAnEvent) {
    EXPECT_EQ(ErrorOf(::NotifyChangeEventLog(nullptr, event_)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ErrorOf(::NotifyChangeEventLog(log_, nullptr)), DWORD{ERROR_INVALID_HANDLE});
}
