#include <windows.h>
#include <wtsapi32.h>

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "machine_sessions.h"
#include "message_window.h"
#include "wine_gap_fixture.h"

// The sessions of the machine and the message boxes in them.
namespace {

using test_support::Answer;
using test_support::FindMessageBox;
using test_support::MachineSessions;
using test_support::WaitForMessageBox;

constexpr DWORD kTimedOut = 32000;
constexpr DWORD kNotWaitedFor = 32001;

struct Listed {
    DWORD number;
    WTS_CONNECTSTATE_CLASS state;
    std::wstring name;
    bool operator==(const Listed&) const = default;
};

std::vector<Listed> List() {
    WTS_SESSION_INFOW* sessions = nullptr;
    DWORD count = 0;
    EXPECT_TRUE(::WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions, &count));
    std::vector<Listed> listed;
    for (DWORD i = 0; i < count; ++i)
        listed.push_back({sessions[i].SessionId, sessions[i].State, sessions[i].pWinStationName});
    ::WTSFreeMemory(sessions);
    return listed;
}

const Listed kServices = {0, WTSDisconnected, L"Services"};

class Sessions : public WineGap {
  protected:
    static DWORD EnumerationError(HANDLE server, DWORD reserved, DWORD version, WTS_SESSION_INFOW** list,
                                  DWORD* count) {
        return ::WTSEnumerateSessionsW(server, reserved, version, list, count) ? 0 : ::GetLastError();
    }
    static constexpr DWORD kInvalidParameter = ERROR_INVALID_PARAMETER;
};

/// A box with the title of the test.
class BoxInASession : public WineGap {
  protected:
    struct Result {
        bool isShown;
        DWORD answer;  ///< or the error
    };
    static Result Send(DWORD session, DWORD style = MB_OK, DWORD timeout = 0, bool wait = true) {
        wchar_t title[] = L"wine_gap_test";
        wchar_t message[] = L"Is this seen?";
        DWORD response = 0;
        if (::WTSSendMessageW(WTS_CURRENT_SERVER_HANDLE, session, title, sizeof title - 2, message,
                              sizeof message - 2, style, timeout, &response, wait ? TRUE : FALSE))
            return {true, response};
        return {false, ::GetLastError()};
    }
    static bool NothingIsSeen() {
        ::Sleep(500);
        return FindMessageBox(kTitle) == nullptr;
    }
    static void AnswerIt(WORD button = IDOK) {
        const HWND box = WaitForMessageBox(kTitle);
        ASSERT_NE(box, nullptr);
        EXPECT_TRUE(Answer(box, button));
    }
    static constexpr wchar_t kTitle[] = L"wine_gap_test";
};

}  // namespace

TEST_F(Sessions, AreThatOfTheServicesAndOneActiveIfNothingElseIsSaid) {
    EXPECT_EQ(List(), (std::vector<Listed>{kServices, {1, WTSActive, L"Console"}}));
}

TEST_F(Sessions, OfAMachineWithNobodyLoggedOnHaveTheLogOnScreen) {
    const MachineSessions machine({L"1 connected"});
    EXPECT_EQ(List(), (std::vector<Listed>{kServices, {1, WTSConnected, L"Console"}}));
}

TEST_F(Sessions, ThatIsLockedIsActiveAllTheSame) {
    const MachineSessions machine({L"3 locked"});
    EXPECT_EQ(List(), (std::vector<Listed>{kServices, {3, WTSActive, L"Console"}}));
}

TEST_F(Sessions, OfTwoUsersComeInTheirOrder) {
    const MachineSessions machine({L"4 disconnected", L"9 active", L"2 active"});
    EXPECT_EQ(
        List(),
        (std::vector<Listed>{
            kServices, {4, WTSDisconnected, L""}, {9, WTSActive, L"Console"}, {2, WTSActive, L"RDP-Tcp#2"}}));
}

TEST_F(Sessions, OfAUserWhoLogsOnLaterIsSeenByTheNextCall) {
    const MachineSessions machine({});
    EXPECT_EQ(List(), (std::vector<Listed>{kServices}));
    machine.Become({L"1 active"});
    EXPECT_EQ(List(), (std::vector<Listed>{kServices, {1, WTSActive, L"Console"}}));
    std::vector<std::wstring> many;
    for (int i = 1; i <= 200; ++i)
        many.push_back(std::to_wstring(i) + L" disconnected");
    machine.Become(many);
    EXPECT_EQ(List().size(), 201u) << "however many there are";
}

TEST_F(Sessions, AreListedForThisServerAndVersionOneOnly) {
    WTS_SESSION_INFOW* list = nullptr;
    DWORD count = 0;
    EXPECT_EQ(EnumerationError(reinterpret_cast<HANDLE>(0x1234), 0, 1, &list, &count),
              static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(EnumerationError(nullptr, 1, 1, &list, &count), kInvalidParameter);
    EXPECT_EQ(EnumerationError(nullptr, 0, 0, &list, &count), kInvalidParameter);
    EXPECT_EQ(EnumerationError(nullptr, 0, 2, &list, &count), kInvalidParameter);
    EXPECT_EQ(EnumerationError(nullptr, 0, 1, nullptr, &count), kInvalidParameter);
    EXPECT_EQ(EnumerationError(nullptr, 0, 1, &list, nullptr), kInvalidParameter);
}

TEST_F(BoxInASession, IsAWindowAndReturnsTheAnswer) {
    std::thread user([] {
        const HWND box = WaitForMessageBox(kTitle);
        EXPECT_EQ(test_support::MessageOf(box), L"Is this seen?");
        EXPECT_TRUE(Answer(box, IDNO));
    });
    const Result result = Send(1, MB_YESNO);
    user.join();
    EXPECT_TRUE(result.isShown);
    EXPECT_EQ(result.answer, static_cast<DWORD>(IDNO));
}

TEST_F(BoxInASession, ThatCrashesIsNoAnswer) {
    std::thread crash([] {
        DWORD processId = 0;
        ::GetWindowThreadProcessId(WaitForMessageBox(kTitle), &processId);
        const HANDLE process = ::OpenProcess(PROCESS_TERMINATE, FALSE, processId);
        EXPECT_TRUE(::TerminateProcess(process, 0xC0000005));
        ::CloseHandle(process);
    });
    EXPECT_FALSE(Send(1).isShown);
    crash.join();
}

TEST_F(BoxInASession, WithATimeOutEndsByItself) {
    const Result result = Send(1, MB_OK, 1);
    EXPECT_TRUE(result.isShown);
    EXPECT_EQ(result.answer, kTimedOut);
    EXPECT_EQ(FindMessageBox(kTitle), nullptr);
}

TEST_F(BoxInASession, ThatIsNotWaitedForReturnsAtOnceAndStays) {
    const Result result = Send(1, MB_OK, 0, false);
    EXPECT_TRUE(result.isShown);
    EXPECT_EQ(result.answer, kNotWaitedFor);
    AnswerIt();
}

TEST_F(BoxInASession, ThatIsNotWaitedForEndsWithItsTimeOut) {
    EXPECT_EQ(Send(1, MB_OK, 1, false).answer, kNotWaitedFor);
    ASSERT_NE(WaitForMessageBox(kTitle), nullptr);
    EXPECT_TRUE(test_support::Eventually([] { return FindMessageBox(kTitle) == nullptr; }));
}

TEST_F(BoxInASession, ThatIsUnknownIsRefused) {
    const Result result = Send(77);
    EXPECT_FALSE(result.isShown);
    EXPECT_EQ(result.answer, static_cast<DWORD>(ERROR_CTX_WINSTATION_NOT_FOUND));
}

TEST_F(BoxInASession, NeedsTextsAnAnswerAndThisServer) {
    wchar_t text[] = L"wine_gap_test";
    DWORD response = 0;
    const auto error = [](HANDLE server, wchar_t* title, wchar_t* message, DWORD* answer) {
        return ::WTSSendMessageW(server, 1, title, 2, message, 2, MB_OK, 1, answer, TRUE) ? 0
                                                                                          : ::GetLastError();
    };
    EXPECT_EQ(error(reinterpret_cast<HANDLE>(0x1234), text, text, &response),
              static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(error(nullptr, nullptr, text, &response), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(error(nullptr, text, nullptr, &response), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(error(nullptr, text, text, nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST_F(BoxInASession, ThatIsLockedWaitsUntilItIsUnlockedAndThenForTheAnswer) {
    const MachineSessions machine({L"1 locked"});
    Result result = {};
    std::thread caller([&result] { result = Send(1); });
    EXPECT_TRUE(NothingIsSeen());
    machine.Become({L"1 active"});
    AnswerIt();
    caller.join();
    EXPECT_TRUE(result.isShown);
    EXPECT_EQ(result.answer, static_cast<DWORD>(IDOK));
}

TEST_F(BoxInASession, ThatIsLockedTimesOutUnseen) {
    const MachineSessions machine({L"1 locked"});
    EXPECT_EQ(Send(1, MB_OK, 1).answer, kTimedOut);
}

TEST_F(BoxInASession, OfAUserWhoIsAwayWaitsForHimAndNobodyElseSeesIt) {
    const MachineSessions machine({L"1 active", L"2 disconnected"});
    Result result = {};
    std::thread caller([&result] { result = Send(2); });
    EXPECT_TRUE(NothingIsSeen());
    machine.Become({L"1 disconnected", L"2 active"});
    AnswerIt();
    caller.join();
    EXPECT_EQ(result.answer, static_cast<DWORD>(IDOK));
}

TEST_F(BoxInASession, ThatEndsIsNoAnswer) {
    const MachineSessions machine({L"1 active"});
    Result result = {};
    std::thread caller([&result] { result = Send(1); });
    EXPECT_NE(WaitForMessageBox(kTitle), nullptr);
    machine.Become({L"1 connected"});
    EXPECT_NE(FindMessageBox(kTitle), nullptr) << "the session is still there";
    machine.Become({});
    caller.join();
    EXPECT_FALSE(result.isShown);
    EXPECT_EQ(result.answer, static_cast<DWORD>(ERROR_CTX_WINSTATION_NOT_FOUND));
}
