// A station object that lives in this process, and what it throws and raises.

#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "module_hooks.h"
#include "scripted_station.h"
#include "statmgr_wrapper.h"
#include "structured_exception.h"
#include "text_of.h"

using korvane::StationManager;
using operating_system::ForeignException;
using test_support::ModuleHooks;
using test_support::ScriptedStation;
using test_support::TextOf;

namespace {

bool HasCom() {
    APTTYPE type = APTTYPE_CURRENT;
    APTTYPEQUALIFIER qualifier = APTTYPEQUALIFIER_NONE;
    return ::CoGetApartmentType(&type, &qualifier) == S_OK;
}

/// The code of the foreign exception that an action throws; 0 if it throws none.
template <typename Action>
DWORD ForeignCodeOf(Action action) {
    try {
        action();
    } catch (const ForeignException& exception) {
        return exception.code;
    }
    return 0;
}

void Fault(DWORD code) {
    ::RaiseException(code, 0, 0, nullptr);
}

class FaultyStation : public testing::TestWithParam<DWORD> {
  protected:
    FaultyStation() {
        station_->Add(1, "PC Station");
        station_->Add(2, "NX4120");
        station_->Add(3, "NX4120");
    }
    ~FaultyStation() override {
        stationManager_.reset();
        station_.reset();
        EXPECT_FALSE(HasCom()) << "COM is given back";
    }

    void ExpectThatItWorks() {
        station_->journal.clear();
        EXPECT_NO_THROW(stationManager_->StopCpBy("NX4120"));
        EXPECT_EQ(station_->journal.size(), 4u);
        EXPECT_TRUE(stationManager_->HasPluggedComponentes());
    }

    std::unique_ptr<ScriptedStation> station_ = std::make_unique<ScriptedStation>();
    std::unique_ptr<StationManager> stationManager_ = std::make_unique<StationManager>();
};

INSTANTIATE_TEST_SUITE_P(Codes, FaultyStation,
                         testing::Values(EXCEPTION_ACCESS_VIOLATION, EXCEPTION_BREAKPOINT, 0xE0000001u,
                                         0xE06D7363u));

}  // namespace

TEST_P(FaultyStation, WhileItIsMadeIsAnUnknownExceptionAndTheNextAttemptWorks) {
    station_->onCreate = [](REFIID) { Fault(GetParam()); };
    EXPECT_EQ(ForeignCodeOf([&] { stationManager_->Initialize(); }), GetParam());
    station_->onCreate = [](REFIID) {};
    stationManager_->Initialize();
    ExpectThatItWorks();
}

TEST_P(FaultyStation, WhileItsSetupSupportIsMadeHasTheTextOfAnyOtherException) {
    station_->onCreate = [](REFIID iid) {
        if (IsEqualIID(iid, __uuidof(ISetupSupport))) Fault(GetParam());
    };
    EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager_->Initialize(); }),
              "Unhandled exception in StationManagerImpl-CTOR");
    station_->onCreate = [](REFIID) {};
    stationManager_->Initialize();
    ExpectThatItWorks();
}

TEST_P(FaultyStation, WhileItIsReadIsAnUnknownExceptionAndTheNextCallWorks) {
    stationManager_->Initialize();
    station_->onGetData = [] { Fault(GetParam()); };
    EXPECT_EQ(ForeignCodeOf([&] { stationManager_->StopCpBy("NX4120"); }), GetParam());
    EXPECT_EQ(ForeignCodeOf([&] { stationManager_->HasPluggedComponentes(); }), GetParam());
    station_->onGetData = [] {};
    ExpectThatItWorks();
}

TEST_P(FaultyStation, WhileItStopsAComponentIsAnUnknownExceptionAndTheNextCallWorks) {
    stationManager_->Initialize();
    station_->onStop = [] { Fault(GetParam()); };
    EXPECT_EQ(ForeignCodeOf([&] { stationManager_->StopCpBy("NX4120"); }), GetParam());
    station_->onStop = [] {};
    station_->onAddEntry = [] { Fault(GetParam()); };
    EXPECT_EQ(ForeignCodeOf([&] { stationManager_->StopCpBy("NX4120"); }), GetParam());
    station_->onAddEntry = [] {};
    ExpectThatItWorks();
}

TEST_P(FaultyStation, WhileItIsAskedForAnInterfaceIsAnUnknownExceptionAndTheNextCallWorks) {
    stationManager_->Initialize();
    for (const IID& faulty : {__uuidof(IComponentControl), __uuidof(IDiagnostics)}) {
        station_->onQuery = [&faulty](REFIID iid) {
            if (IsEqualIID(iid, faulty)) Fault(GetParam());
        };
        EXPECT_EQ(ForeignCodeOf([&] { stationManager_->StopCpBy("NX4120"); }), GetParam());
    }
    station_->onQuery = [](REFIID) {};
    ExpectThatItWorks();
}

TEST_P(FaultyStation, WhileItIsAskedForTheReasonOfARefusalIsARefusal) {
    stationManager_->Initialize();
    station_->refused = {2, 3};
    station_->onQuery = [](REFIID iid) {
        if (IsEqualIID(iid, __uuidof(ISupportErrorInfo))) Fault(GetParam());
    };
    EXPECT_NO_THROW(stationManager_->StopCpBy("NX4120"));
    EXPECT_EQ(station_->journal.size(), 4u);
    station_->refused.clear();
    station_->journal.clear();
    ExpectThatItWorks();
}

TEST_P(FaultyStation, WhileItIsReleasedIsAssertedAsAnyOtherExceptionAndReleasedOnce) {
    stationManager_->Initialize();
    stationManager_->StopCpBy("NX4120");
    const ModuleHooks hooks;
    int releases = 0;
    station_->onRelease = [&releases] {
        ++releases;
        Fault(GetParam());
    };
    stationManager_.reset();
    station_->onRelease = [] {};
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"!\"Unhandled exception in StationManagerImpl-DTOR\""}));
    EXPECT_EQ(releases, 4) << "setup support, component control, diagnostics and the station object";
}

TEST_P(FaultyStation, ThatThrowsWhileItIsReleasedIsAssertedAndReleasedOnce) {
    stationManager_->Initialize();
    stationManager_->StopCpBy("NX4120");
    const ModuleHooks hooks;
    int releases = 0;
    station_->onRelease = [&releases] {
        ++releases;
        throw _com_error(RPC_E_DISCONNECTED);
    };
    stationManager_.reset();
    station_->onRelease = [] {};
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"!\"COM-Exception in CStatMgrImpl\""}));
    EXPECT_EQ(releases, 4);
}

TEST_F(FaultyStation, ThatReturnsAnArrayWhichIsNoneIsAnUnknownException) {
    stationManager_->Initialize();
    station_->onAnswer = [](VARIANT& data) { data.parray = reinterpret_cast<SAFEARRAY*>(0x10); };
    EXPECT_EQ(ForeignCodeOf([&] { stationManager_->HasPluggedComponentes(); }), EXCEPTION_ACCESS_VIOLATION);
    station_->onAnswer = [](VARIANT& data) { data.parray->pvData = nullptr; };
    EXPECT_EQ(ForeignCodeOf([&] { stationManager_->HasPluggedComponentes(); }), EXCEPTION_ACCESS_VIOLATION);
    station_->onAnswer = [](VARIANT&) {};
    ExpectThatItWorks();
}

TEST_F(FaultyStation, ThatFailsHalfWayThroughItsAnswerLeavesItToNobody) {
    stationManager_->Initialize();
    station_->onAnswer = [](VARIANT& data) {
        data.parray = reinterpret_cast<SAFEARRAY*>(0x10);
        Fault(EXCEPTION_ACCESS_VIOLATION);
    };
    EXPECT_EQ(ForeignCodeOf([&] { stationManager_->HasPluggedComponentes(); }), EXCEPTION_ACCESS_VIOLATION);
    station_->onAnswer = [](VARIANT&) {};
    ExpectThatItWorks();
}

TEST_F(FaultyStation, ThatThrowsWhileItIsMadeHasTheTextOfAnyOtherException) {
    station_->onCreate = [](REFIID iid) {
        if (IsEqualIID(iid, __uuidof(ISetupSupport))) throw 42;
    };
    EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager_->Initialize(); }),
              "Unhandled exception in StationManagerImpl-CTOR");
}
