#include <windows.h>

#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

#include "component_store.h"
#include "machine_sessions.h"
#include "message_window.h"
#include "station.h"
#include "wine_gap_loader.h"

// A failed assertion, told to the person at the screen by a running service.
namespace {

using adapter_control::Plug;
using adapter_control::Unplug;
using station_manager::ComponentStore;
using station_manager::MakeComponent;
using test_support::Answer;
using test_support::FindMessageBox;
using test_support::kFatalErrorTitle;
using test_support::MachineSessions;
using test_support::MessageOf;
using test_support::RunCommand;
using test_support::WaitForMessageBox;

/// A station whose station manager has more components than there can be: the next removal asserts.
class StationThatAsserts : public system_tests::Station {
  protected:
    StationThatAsserts() {
        std::vector<station_manager::Component> components;
        for (LONG i = 1; i <= 33; ++i)
            components.push_back(MakeComponent(i, "OTHER", "Other"));
        components_.SetComponents(components);
        RunCommand(L"stationmgr.exe register");
        Plug(nx4120_);
        StartService();
    }
    ~StationThatAsserts() override {
        RunCommand(L"stationmgr.exe unregister");
        components_.Wipe();
    }
    ComponentStore components_;
};

}  // namespace

TEST_F(StationThatAsserts, TellsWhatFailedAndGoesOnIfItMay) {
    Unplug(nx4120_);

    const HWND box = WaitForMessageBox(kFatalErrorTitle);
    ASSERT_NE(box, nullptr);
    const std::wstring text = MessageOf(box);
    EXPECT_TRUE(text.starts_with(L"ModulName: tessaplug.dll\nBuild Date: ")) << text.c_str();
    EXPECT_NE(text.find(L"\nFile: lib_statmgr_wrp\\src\\statmgr_wrapper\nLine: "), std::wstring::npos);
    EXPECT_NE(text.find(L"\n\nresvec.size() <= MAX_COMP_VMDID\n\nAbort:\tdebugger gets invoked."),
              std::wstring::npos);
    EXPECT_TRUE(AllAre(L"NX4120", L"visible")) << "the removal waits for the answer";
    EXPECT_TRUE(Answer(box, IDIGNORE));

    EXPECT_TRUE(AllBecome(L"NX4120", L"hidden"));
    Plug(nx4120_);
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible")) << "the worker goes on";
}

TEST_F(StationThatAsserts, GoesOnWhenNobodyIsThereToAsk) {
    for (const wchar_t* nobody : {L"1 connected", L"1 disconnected"}) {
        const MachineSessions machine({nobody});
        Unplug(nx4120_);
        EXPECT_TRUE(AllBecome(L"NX4120", L"hidden"));
        EXPECT_EQ(FindMessageBox(kFatalErrorTitle), nullptr);
        Plug(nx4120_);
        EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
    }
}

TEST_F(StationThatAsserts, AsksAUserWhoHasLoggedOnSinceTheLastTime) {
    const MachineSessions machine({});
    Unplug(nx4120_);
    EXPECT_TRUE(AllBecome(L"NX4120", L"hidden"));
    Plug(nx4120_);
    EXPECT_TRUE(AllBecome(L"NX4120", L"visible"));
    machine.Become({L"1 active"});
    Unplug(nx4120_);
    const HWND box = WaitForMessageBox(kFatalErrorTitle);
    ASSERT_NE(box, nullptr);
    EXPECT_TRUE(Answer(box, IDIGNORE));
    EXPECT_TRUE(AllBecome(L"NX4120", L"hidden"));
}

TEST_F(StationThatAsserts, WaitsForAUserWhoHasLockedHisSession) {
    const MachineSessions machine({L"1 locked"});
    Unplug(nx4120_);
    ::Sleep(1000);
    EXPECT_EQ(FindMessageBox(kFatalErrorTitle), nullptr);
    EXPECT_TRUE(AllAre(L"NX4120", L"visible")) << "the removal waits for the answer";
    machine.Become({L"1 active"});
    const HWND box = WaitForMessageBox(kFatalErrorTitle);
    ASSERT_NE(box, nullptr);
    EXPECT_TRUE(Answer(box, IDIGNORE));
    EXPECT_TRUE(AllBecome(L"NX4120", L"hidden"));
}

// The user is another process, as ever: in this one no thread may come to life while the loader is at work.
TEST(FatalError, DuringLibraryUnloadIsToldToo) {
    ASSERT_EQ(LoadWineGap(), IsWine());
    const HMODULE library = ::LoadLibraryW(L"asserts_at_unload.dll");
    ASSERT_NE(library, nullptr);
    DWORD answered = 99;
    std::thread user([&answered] {
        answered = RunCommand(L"answers_box.exe \"Fatal Error: asserts_at_unload.dll !!!\" " +
                              std::to_wstring(IDIGNORE))
                       .exitCode;
    });
    ::Sleep(500);  // until the user's process runs
    EXPECT_TRUE(::FreeLibrary(library));
    user.join();
    EXPECT_EQ(answered, 0u);
    EXPECT_EQ(::GetModuleHandleW(L"asserts_at_unload.dll"), nullptr);
}
