#include "station_manager.h"

#include <windows.h>

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "command.h"
#include "component_store.h"
#include "process_list.h"
#include "watched_run.h"

// The station manager as a COM server of its own process, and its command line.
namespace {

using station_manager::Component;
using station_manager::ComponentStore;
using station_manager::Diagnostic;
using station_manager::kStopped;
using station_manager::MakeComponent;
using test_support::ProcessRuns;
using test_support::ProgramEnds;
using test_support::RunCommand;

constexpr wchar_t kProgram[] = L"stationmgr.exe";

template <typename Interface>
HRESULT Create(Interface** object) {
    return ::CoCreateInstance(__uuidof(PCStation), nullptr, CLSCTX_LOCAL_SERVER, __uuidof(Interface),
                              reinterpret_cast<void**>(object));
}

class StationManagerProgram : public testing::Test {
  protected:
    StationManagerProgram() {
        store_.Wipe();
        RunCommand(L"stationmgr.exe unregister");
        ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    }
    ~StationManagerProgram() override {
        ::CoUninitialize();
        EXPECT_TRUE(ProgramEnds(kProgram)) << "nobody uses it any more";
        RunCommand(L"stationmgr.exe unregister");
        store_.Wipe();
    }
    static void Register() { ASSERT_EQ(RunCommand(L"stationmgr.exe register").exitCode, 0u); }

    ComponentStore store_;
};

}  // namespace

TEST(ProgramEnds, OneThatHangsIsEndedForTheTestsBehindIt) {
    const test_support::StartedProgram program(L"hangs.exe");
    ASSERT_TRUE(test_support::Eventually([] { return ProcessRuns(L"hangs.exe"); }));
    EXPECT_FALSE(ProgramEnds(L"hangs.exe"));
    EXPECT_TRUE(program.WaitFor(5000));
    EXPECT_TRUE(ProgramEnds(L"hangs.exe"));
}

TEST_F(StationManagerProgram, IsReachedWhileItIsRegistered) {
    ISetupSupport* setup = nullptr;
    EXPECT_EQ(Create(&setup), REGDB_E_CLASSNOTREG);
    Register();
    ASSERT_EQ(Create(&setup), S_OK);
    EXPECT_TRUE(ProcessRuns(kProgram));
    setup->Release();
    EXPECT_TRUE(ProgramEnds(kProgram)) << "the last client is gone";
    EXPECT_EQ(RunCommand(L"stationmgr.exe unregister").exitCode, 0u);
    EXPECT_EQ(Create(&setup), REGDB_E_CLASSNOTREG);
}

TEST_F(StationManagerProgram, AnswersWithItsRecords) {
    Register();
    const std::vector<Component> components = {MakeComponent(1, "PC Station", "Station"),
                                               MakeComponent(2, std::string(64, 'X'), "Full", 0x205)};
    store_.SetComponents(components);
    ISetupSupport* setup = nullptr;
    ASSERT_EQ(Create(&setup), S_OK);
    VARIANT data;
    ::VariantInit(&data);

    ASSERT_EQ(setup->GetData(STATION_CONFIG_DATA, &data), S_OK);

    ASSERT_EQ(data.vt, VT_ARRAY | VT_UI1);
    ASSERT_EQ(data.parray->rgsabound[0].cElements, 4680u);
    EXPECT_EQ(std::memcmp(data.parray->pvData, components.data(), 4680), 0);
    ::VariantClear(&data);
    EXPECT_TRUE(FAILED(setup->GetData(99, &data)));
    setup->Release();
}

TEST_F(StationManagerProgram, EmptyListIsAnEmptyArray) {
    Register();
    ISetupSupport* setup = nullptr;
    ASSERT_EQ(Create(&setup), S_OK);
    VARIANT data;
    ::VariantInit(&data);
    ASSERT_EQ(setup->GetData(STATION_CONFIG_DATA, &data), S_OK);
    EXPECT_EQ(data.parray->rgsabound[0].cElements, 0u);
    ::VariantClear(&data);
    setup->Release();
}

TEST_F(StationManagerProgram, StopsAndStartsComponents) {
    Register();
    store_.SetComponents({MakeComponent(2, "NX4120", "Line 1")});
    IComponentControl* control = nullptr;
    ASSERT_EQ(Create(&control), S_OK);
    EXPECT_EQ(control->StopComponent(2, 0), S_OK);
    EXPECT_EQ(store_.Components().front().status, static_cast<ULONG>(kStopped));
    EXPECT_EQ(control->StartComponent(2, 0), S_OK);
    EXPECT_EQ(store_.Components().front().status, 0x201u);
    EXPECT_EQ(control->StopComponent(3, 0), HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
    control->Release();
}

TEST_F(StationManagerProgram, KeepsTheNewestDiagnostics) {
    Register();
    IDiagnostics* diagnostics = nullptr;
    ASSERT_EQ(Create(&diagnostics), S_OK);
    EXPECT_EQ(diagnostics->AddEntry(165, 0xA523, 1, 0x02000000), S_OK);
    diagnostics->Release();
    std::vector<Diagnostic> entries = store_.Diagnostics();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].area, 165);
    EXPECT_EQ(entries[0].code, 0xA523);
    EXPECT_EQ(entries[0].value, 1);
    EXPECT_EQ(entries[0].detail, 0x02000000u);

    for (DWORD i = 0; i < 70; ++i)
        store_.AddDiagnostic(1, 2, 3, i);
    entries = store_.Diagnostics();
    ASSERT_EQ(entries.size(), ComponentStore::kMostDiagnostics);
    EXPECT_EQ(entries.front().detail, 6u);
    EXPECT_EQ(entries.back().detail, 69u);
}

TEST_F(StationManagerProgram, StaysForAClientWhenAnotherGoes) {
    Register();
    IUnknown* kept = nullptr;
    ASSERT_EQ(Create(&kept), S_OK);
    const std::vector<DWORD> processes = test_support::ProcessesOf(kProgram);
    for (int i = 0; i < 3; ++i) {
        IDiagnostics* diagnostics = nullptr;
        ASSERT_EQ(Create(&diagnostics), S_OK);
        EXPECT_EQ(diagnostics->AddEntry(165, 0xA523, 1, 0), S_OK);
        diagnostics->Release();
    }
    ::Sleep(500);  // long enough for one that ends
    EXPECT_EQ(test_support::ProcessesOf(kProgram), processes);
    kept->Release();
}

TEST_F(StationManagerProgram, SurvivesAClientThatVanishes) {
    Register();
    ASSERT_EQ(RunCommand(L"vanishing_client.exe").exitCode, 0u);
    ISetupSupport* setup = nullptr;
    ASSERT_EQ(Create(&setup), S_OK);
    setup->Release();
    EXPECT_TRUE(ProgramEnds(kProgram)) << "it does not wait for the dead";
}

TEST_F(StationManagerProgram, ListIsShownAndEdited) {
    EXPECT_EQ(RunCommand(L"stationmgr.exe init").exitCode, 0u);
    EXPECT_EQ(RunCommand(L"stationmgr.exe add 5 OTHER \"Line 5\"").exitCode, 0u);
    EXPECT_EQ(RunCommand(L"stationmgr.exe stop 5").exitCode, 0u);
    EXPECT_EQ(RunCommand(L"stationmgr.exe remove 3").exitCode, 0u);
    EXPECT_EQ(RunCommand(L"stationmgr.exe list").output,
              " 1  PC Station    Station           running\n"
              " 2  NX4120        NX4120 line 1     running\n"
              " 5  OTHER         Line 5            stopped\n");
    EXPECT_EQ(RunCommand(L"stationmgr.exe start 5").exitCode, 0u);
    EXPECT_NE(RunCommand(L"stationmgr.exe list --json")
                  .output.find("{\"virtualDevice\":5,\"catalogueEntry\":\"OTHER\",\"name\":\"Line 5\","
                               "\"state\":\"running\"}]"),
              std::string::npos);
}

TEST_F(StationManagerProgram, RefusalsSayWhatToDo) {
    EXPECT_EQ(RunCommand(L"stationmgr.exe init").exitCode, 0u);
    EXPECT_EQ(RunCommand(L"stationmgr.exe remove 9").output,
              "stationmgr: 9: there is no such component; see stationmgr list\n");
    EXPECT_EQ(RunCommand(L"stationmgr.exe add 2 A B").output,
              "stationmgr: add: this virtual device is taken; see stationmgr list\n");
    EXPECT_EQ(RunCommand(L"stationmgr.exe add 100 A B").exitCode, 2u);
    EXPECT_EQ(RunCommand(L"stationmgr.exe nonsense").exitCode, 2u);
    EXPECT_EQ(RunCommand(L"stationmgr.exe").exitCode, 2u);
}
