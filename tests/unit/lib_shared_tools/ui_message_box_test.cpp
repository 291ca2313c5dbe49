#include "ui_message_box.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "module_hooks.h"
#include "structured_exception.h"
#include "text_of.h"
#include "windows_api_excp.h"

using modul_exception::CWindowsApiExcp;
using operating_system::SystemMessageBox;
using test_support::ModuleHooks;
using test_support::TextOf;

namespace {

/// Sessions as the test says; what was sent is kept.
struct Desk {
    std::vector<WTS_SESSION_INFOW> sessions = {{7, nullptr, WTSActive}};
    bool nullList = false;
    bool refuseList = false;
    bool refuseMessage = false;
    std::function<void()> onList;
    std::function<void()> onFree;
    std::function<void()> onMessage;
    int loaded = 0;
    int listsInUse = 0;
    DWORD session = 0;
    std::wstring title;
    std::wstring message;
    DWORD style = 0;
};

class FakeWts : public windows_api::CWtsapi32 {
  public:
    explicit FakeWts(Desk& desk) : desk_(desk) { ++desk_.loaded; }
    ~FakeWts() override { --desk_.loaded; }

    BOOL WTSEnumerateSessionsW(HANDLE server, DWORD reserved, DWORD version, WTS_SESSION_INFOW** sessions,
                               DWORD* count) override {
        EXPECT_EQ(server, nullptr);
        EXPECT_EQ(reserved, 0u);
        EXPECT_EQ(version, 1u);
        if (desk_.onList) desk_.onList();
        if (desk_.refuseList) return Fail();
        ++desk_.listsInUse;
        *sessions = desk_.nullList ? nullptr : desk_.sessions.data();
        *count = static_cast<DWORD>(desk_.sessions.size());
        return TRUE;
    }
    void WTSFreeMemory(void* memory) override {
        EXPECT_EQ(memory, desk_.sessions.data());
        --desk_.listsInUse;
        if (desk_.onFree) desk_.onFree();
    }
    BOOL WTSSendMessageW(HANDLE server, DWORD session, wchar_t* title, DWORD titleSize, wchar_t* message,
                         DWORD messageSize, DWORD style, DWORD timeout, DWORD* response, BOOL wait) override {
        EXPECT_EQ(server, nullptr);
        EXPECT_EQ(timeout, 0u);
        EXPECT_TRUE(wait);
        desk_.session = session;
        desk_.title.assign(title, titleSize / sizeof(wchar_t));
        desk_.message.assign(message, messageSize / sizeof(wchar_t));
        desk_.style = style;
        if (desk_.onMessage) desk_.onMessage();
        if (desk_.refuseMessage) return Fail();
        *response = IDRETRY;
        return TRUE;
    }

  private:
    static BOOL Fail() {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    Desk& desk_;
};

void RaiseForeignException() {
    constexpr DWORD kCppExceptionOfAnotherRunTime = 0xE06D7363;
    ::RaiseException(kCppExceptionOfAnotherRunTime, 0, 0, nullptr);
}

[[gnu::noinline]] void ReadFromNull() {
    static_cast<void>(*static_cast<volatile int*>(nullptr));  // NOLINT: the fault is what is tested
}

class MessageBoxOfASession : public testing::Test {
  protected:
    Desk desk_;
    SystemMessageBox box_{[this] { return std::make_unique<FakeWts>(desk_); }};
};

}  // namespace

TEST_F(MessageBoxOfASession, IsShownAndItsAnswerReturned) {
    EXPECT_EQ(box_.Show(L"fenlu3", L"no voltage", MB_ICONINFORMATION), static_cast<DWORD>(IDRETRY));
    EXPECT_EQ(desk_.session, 7u);
    EXPECT_EQ(desk_.title, L"fenlu3");
    EXPECT_EQ(desk_.message, L"no voltage");
    EXPECT_EQ(desk_.style, 64u);
    EXPECT_EQ(desk_.listsInUse, 0);
}

TEST_F(MessageBoxOfASession, MissingTextsAreSaid) {
    box_.Show(nullptr, nullptr, 0);
    EXPECT_EQ(desk_.title, L"(null)");
    EXPECT_EQ(desk_.message, L"(null)");
}

TEST_F(MessageBoxOfASession, GoesToTheFirstActiveOne) {
    desk_.sessions = {{0, nullptr, WTSDisconnected}, {9, nullptr, WTSActive}, {3, nullptr, WTSActive}};
    box_.Show(L"t", L"m", 0);
    EXPECT_EQ(desk_.session, 9u);
}

TEST_F(MessageBoxOfASession, NobodyLoggedOnIsTold) {
    desk_.sessions = {{0, nullptr, WTSDisconnected}, {1, nullptr, WTSListen}};
    EXPECT_EQ(TextOf<std::runtime_error>([&] { box_.Show(L"t", L"m", 0); }), "No Session is WTSActive");
    EXPECT_EQ(desk_.listsInUse, 0) << "the list is released all the same";
    desk_.sessions.clear();
    EXPECT_EQ(TextOf<std::invalid_argument>([&] { box_.Show(L"t", L"m", 0); }), "NumOfSessions == 0");
}

TEST_F(MessageBoxOfASession, MissingListIsAsserted) {
    desk_.nullList = true;
    const ModuleHooks hooks;
    EXPECT_THROW(box_.Show(L"t", L"m", 0), std::runtime_error);
    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"WtsSession != NULL"}));
}

TEST_F(MessageBoxOfASession, RefusalsNameTheCall) {
    desk_.refuseMessage = true;
    EXPECT_TRUE(TextOf<CWindowsApiExcp>([&] {
                    box_.Show(L"t", L"m", 0);
                }).starts_with("FAILED! WTSSendMessageW()! LE(5): "));
    desk_.refuseList = true;
    EXPECT_TRUE(TextOf<CWindowsApiExcp>([&] {
                    box_.Show(L"t", L"m", 0);
                }).starts_with("FAILED! WTSEnumerateSessionsW()! LE(5): "));
}

TEST_F(MessageBoxOfASession, LibraryIsLoadedWithTheFirstAndReleased) {
    EXPECT_EQ(desk_.loaded, 0);
    box_.Show(L"t", L"m", 0);
    box_.Show(L"t", L"m", 0);
    EXPECT_EQ(desk_.loaded, 1);
    box_.UnLoadWtsLib();
    EXPECT_EQ(desk_.loaded, 0);
    box_.Show(L"t", L"m", 0);
    EXPECT_EQ(desk_.loaded, 1);
}

TEST_F(MessageBoxOfASession, WhatTheSessionLibraryRaisesIsAnException) {
    using operating_system::ForeignException;
    for (const auto& raise : {&RaiseForeignException, &ReadFromNull}) {
        desk_.onList = raise;
        EXPECT_THROW(box_.Show(L"title", L"text", MB_OK), ForeignException);
        desk_.onList = nullptr;
        desk_.onMessage = raise;
        EXPECT_THROW(box_.Show(L"title", L"text", MB_OK), ForeignException);
        EXPECT_EQ(desk_.listsInUse, 0) << "the list of sessions is given back";
        desk_.onMessage = nullptr;
        desk_.onFree = raise;
        EXPECT_EQ(box_.Show(L"title", L"text", MB_OK), static_cast<DWORD>(IDRETRY)) << "its box was shown";
        desk_.onFree = nullptr;
        EXPECT_EQ(box_.Show(L"title", L"text", MB_OK), static_cast<DWORD>(IDRETRY)) << "the next one works";
    }
}
