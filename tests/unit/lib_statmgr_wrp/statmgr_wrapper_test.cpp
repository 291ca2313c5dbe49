#include "statmgr_wrapper.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "module_hooks.h"
#include "scripted_station.h"
#include "text_of.h"
#include "trace_point.h"
#include "trace_recorder.h"

using korvane::ComInterface;
using korvane::CStatMgrImpl;
using korvane::StationComponentInfo;
using korvane::StationManager;
using korvane::StatMgrCfg;
using test_support::ModuleHooks;
using test_support::ScriptedStation;
using test_support::TextOf;

namespace {

using Journal = std::vector<std::string>;

const std::string kCatalogueFilled(64, 'X');

class Station : public testing::Test {
  protected:
    void Initialize() { stationManager_.Initialize(); }

    long long TimesQueried(const IID& iid) const {
        return std::ranges::count_if(station_.queried,
                                     [&iid](const IID& queried) { return IsEqualIID(queried, iid); });
    }

    ScriptedStation station_;
    StationManager stationManager_;
};

/// The station in one context only.
class StationInContext : public testing::TestWithParam<DWORD> {};
INSTANTIATE_TEST_SUITE_P(Contexts, StationInContext,
                         testing::Values(CLSCTX_INPROC_SERVER, CLSCTX_INPROC_HANDLER, CLSCTX_LOCAL_SERVER,
                                         CLSCTX_REMOTE_SERVER));

/// The message GUIDs of the files whose trace points are looked at.
constexpr GUID kWrapperFile = trace::GuidFrom("7c2e5a18-d90b-4b36-8f47-e1b3a6c05d24");

constexpr GUID kImplementationFile = trace::GuidFrom("1d7b9e40-52c6-4f8a-b1e3-6a0c8d4f2b13");

/// The trace points of a file that were passed since the last look, in order.
std::vector<USHORT> NumbersIn(const GUID& file) {
    std::vector<USHORT> numbers;
    for (const auto& record : test_support::TakeTraceRecords())
        if (IsEqualGUID(record.messageGuid, file)) numbers.push_back(record.number);
    return numbers;
}

/// The module's trace points of a level and below, without function entry and exit.
struct ModuleTracing : test_support::EnabledTracing {
    explicit ModuleTracing(UCHAR level) : EnabledTracing(test_support::kModuleGuid, level, trace::kMessage) {}
};

/// COM is there on this thread.
bool HasCom() {
    APTTYPE type = APTTYPE_CURRENT;
    APTTYPEQUALIFIER qualifier = APTTYPEQUALIFIER_NONE;
    return ::CoGetApartmentType(&type, &qualifier) == S_OK;
}

}  // namespace

TEST(StationManagerFactory, MakesOneThatIsNotInitialised) {
    const ModuleHooks hooks;
    const auto stationManager = korvane::StationManagerFactory().Create();
    EXPECT_THROW(stationManager->HasPluggedComponentes(), std::runtime_error);
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"m_isInit", L"m_isInit", L"m_pISetupSupport != NULL"}));
}

TEST(StationManager, StoppingBeforeInitialisingIsAssertedAndFails) {
    const ModuleHooks hooks;
    StationManager stationManager;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager.StopCpBy("NX4120"); }),
              "Caught COM-EXCPETION: CStatMgrImpl::GetConfigData()!");
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"m_isInit", L"m_isInit", L"m_pISetupSupport != NULL"}));
}

TEST_F(Station, StopsEveryComponentOfTheCatalogueEntryInOrder) {
    station_.Add(1, "PC Station");
    station_.Add(4, "NX4120");
    station_.Add(2, "NX4120", 0x205);
    station_.Add(5, "OTHER");
    Initialize();

    stationManager_.StopCpBy("NX4120");

    EXPECT_EQ(station_.journal, (Journal{"stop 4 0", "entry 165 0xA523 1 0x4000000", "stop 2 0",
                                         "entry 165 0xA523 1 0x2000000"}));
}

TEST_F(Station, OnlyComponentsThatMayBeStoppedAreStopped) {
    station_.Add(1, "PC Station");
    for (const ULONG status : {0x203ul, 0x200ul, 0x202ul, 0ul, 0x1201ul})
        station_.Add(2, "NX4120", status);
    Initialize();

    stationManager_.StopCpBy("NX4120");

    EXPECT_TRUE(station_.journal.empty());
}

TEST_F(Station, CatalogueEntriesAreComparedWholeAndByCase) {
    station_.Add(1, "nx4120");
    station_.Add(2, "NX4120 ");
    station_.Add(3, "NX412");
    Initialize();

    stationManager_.StopCpBy("NX4120");

    EXPECT_TRUE(station_.journal.empty());
}

TEST_F(Station, CatalogueEntryMayFillItsFieldWithoutAZero) {
    station_.Add(1, "PC Station");
    station_.Add(2, kCatalogueFilled);
    std::string("not part of it").copy(station_.components[1].szName, 14);
    Initialize();

    stationManager_.StopCpBy(kCatalogueFilled);

    EXPECT_EQ(station_.journal.front(), "stop 2 0");
}

TEST_F(Station, StationAloneOrNothingAtAllStopsNothing) {
    Initialize();
    stationManager_.StopCpBy("NX4120");
    EXPECT_FALSE(stationManager_.HasPluggedComponentes());

    station_.Add(1, "NX4120");
    stationManager_.StopCpBy("NX4120");
    EXPECT_FALSE(stationManager_.HasPluggedComponentes());
    EXPECT_TRUE(station_.journal.empty());
}

TEST_F(Station, HasComponentsFromTwoTo32Objects) {
    Initialize();
    for (LONG i = 1; i <= 33; ++i) {
        station_.Add(i, "NX4120");
        EXPECT_EQ(stationManager_.HasPluggedComponentes(), i >= 2 && i <= 32) << i;
    }
}

TEST_F(Station, MoreComponentsThanThereCanBeAreAssertedAndStopped) {
    for (LONG i = 1; i <= 33; ++i)
        station_.Add(i, i == 32 ? "NX4120" : "OTHER");
    Initialize();
    const ModuleHooks hooks;

    stationManager_.StopCpBy("NX4120");

    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"resvec.size() <= MAX_COMP_VMDID"}));
    EXPECT_EQ(station_.journal.front(), "stop 32 0");
}

TEST_F(Station, Exactly32ComponentsAreNothingSpecial) {
    for (LONG i = 1; i <= 32; ++i)
        station_.Add(i, i == 32 ? "NX4120" : "OTHER");
    Initialize();
    stationManager_.StopCpBy("NX4120");
    EXPECT_EQ(station_.journal, (Journal{"stop 32 0", "entry 165 0xA523 1 0x20000000"}));
}

TEST_F(Station, ImpossibleVirtualDevicesAreAssertedAndStopped) {
    station_.Add(0, "NX4120");
    station_.Add(33, "NX4120");
    station_.Add(-1, "NX4120");
    Initialize();
    const ModuleHooks hooks;

    stationManager_.StopCpBy("NX4120");

    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"lVmdID > 0", L"lVmdID <= LONG{MAX_COMP_VMDID}", L"lVmdID > 0"}));
    EXPECT_EQ(station_.journal,
              (Journal{"stop 0 0", "entry 165 0xA523 1 0x0", "stop 33 0", "entry 165 0xA523 1 0x21000000",
                       "stop -1 0", "entry 165 0xA523 1 0xFF000000"}));
}

TEST_F(Station, FirstAndLastVirtualDeviceAreNothingSpecial) {
    station_.Add(1, "NX4120");
    station_.Add(32, "NX4120");
    Initialize();
    stationManager_.StopCpBy("NX4120");
    EXPECT_EQ(station_.journal.size(), 4u);
}

TEST_F(Station, InterfacesAreAskedForOnceAndKept) {
    station_.Add(1, "NX4120");
    station_.Add(2, "NX4120");
    Initialize();

    stationManager_.StopCpBy("NX4120");
    stationManager_.StopCpBy("NX4120");

    EXPECT_EQ(TimesQueried(__uuidof(IComponentControl)), 1);
    EXPECT_EQ(TimesQueried(__uuidof(IDiagnostics)), 1);
}

TEST_F(Station, OutcomesAreTraced) {
    station_.Add(1, "NX4120");
    station_.Add(2, "NX4120");
    station_.refused = {2};
    Initialize();
    const ModuleTracing tracing(trace::kVerbose);

    stationManager_.StopCpBy("NX4120");

    EXPECT_EQ(NumbersIn(kWrapperFile), (std::vector<USHORT>{13, 14, 18, 18, 14, 19, 18}))
        << "what could not be stopped is no success";
}

TEST_F(Station, RefusalsAreTracedAtLevelFour) {
    station_.Add(1, "NX4120");
    station_.Add(2, "NX4120");
    station_.refused = {2};
    station_.addEntryResult = E_FAIL;
    Initialize();
    const ModuleTracing tracing(trace::kInformation);

    stationManager_.StopCpBy("NX4120");

    EXPECT_EQ(NumbersIn(kWrapperFile), (std::vector<USHORT>{13, 19, 19, 19})) << "and no success is";
}

TEST_F(Station, CountsThatAreNoConfigurationAreTracedAtLevelThree) {
    Initialize();
    const ModuleTracing tracing(trace::kWarning);
    stationManager_.HasPluggedComponentes();
    station_.Add(1, "PC Station");
    stationManager_.HasPluggedComponentes();
    station_.components.resize(33);
    stationManager_.HasPluggedComponentes();
    std::vector<unsigned int> counts;
    for (const auto& record : test_support::TakeTraceRecords())
        counts.push_back(record.Integer(0));
    EXPECT_EQ(counts, (std::vector<unsigned int>{0, 33}));
}

TEST_F(Station, AnswerIsTraced) {
    station_.Add(1, "PC Station");
    Initialize();
    const ModuleTracing tracing(trace::kVerbose);
    stationManager_.HasPluggedComponentes();
    station_.Add(2, "NX4120");
    stationManager_.HasPluggedComponentes();
    std::vector<std::string> answers;
    for (const auto& record : test_support::TakeTraceRecords())
        if (IsEqualGUID(record.messageGuid, kWrapperFile)) answers.push_back(record.Text(0));
    EXPECT_EQ(answers, (std::vector<std::string>{"false", "true"}));
}

TEST_F(Station, DataThatIsNoArrayOfBytesHoldsNoRecords) {
    Initialize();
    station_.Add(1, "PC Station");
    station_.Add(2, "NX4120");
    EXPECT_TRUE(stationManager_.HasPluggedComponentes());
    station_.onAnswer = [](VARIANT& data) {
        ::VariantClear(&data);
        data.vt = VT_ARRAY | VT_I1;
        data.parray = ::SafeArrayCreateVector(VT_I1, 0, 2 * sizeof(StationComponentInfo));
    };
    EXPECT_FALSE(stationManager_.HasPluggedComponentes());
    station_.onAnswer = [](VARIANT& data) {
        ::VariantClear(&data);
        SAFEARRAYBOUND bounds[] = {{2 * sizeof(StationComponentInfo), 0}, {1, 0}};
        data.vt = VT_ARRAY | VT_UI1;
        data.parray = ::SafeArrayCreate(VT_UI1, 2, bounds);
    };
    EXPECT_FALSE(stationManager_.HasPluggedComponentes());
    station_.onAnswer = [](VARIANT& data) {
        ::VariantClear(&data);
        data.vt = VT_ARRAY | VT_UI1;
        data.parray = nullptr;
    };
    EXPECT_FALSE(stationManager_.HasPluggedComponentes());
}

TEST_F(Station, AnswerIsEmptied) {
    Initialize();
    station_.onAnswer = [this](VARIANT& data) {
        ::VariantClear(&data);
        data.vt = VT_UNKNOWN;
        station_.QueryInterface(__uuidof(IUnknown), reinterpret_cast<void**>(&data.punkVal));
    };
    const LONG before = station_.references;
    stationManager_.HasPluggedComponentes();
    EXPECT_EQ(station_.references, before);
}

TEST_F(Station, ArrayMayBeginAtAnyIndex) {
    Initialize();
    station_.onAnswer = [](VARIANT& data) {
        ::VariantClear(&data);
        data.vt = VT_ARRAY | VT_UI1;
        data.parray = ::SafeArrayCreateVector(VT_UI1, -7, 2 * sizeof(StationComponentInfo));
    };
    EXPECT_TRUE(stationManager_.HasPluggedComponentes());
}

TEST_F(Station, RefusedStopDoesNotKeepTheNextFromBeingStopped) {
    station_.Add(1, "PC Station");
    station_.Add(2, "NX4120");
    station_.Add(3, "NX4120");
    station_.refused = {2};
    Initialize();

    EXPECT_NO_THROW(stationManager_.StopCpBy("NX4120"));

    EXPECT_EQ(station_.journal, (Journal{"stop 2 0", "entry 165 0xA523 1 0x2000000", "stop 3 0",
                                         "entry 165 0xA523 1 0x3000000"}));
}

TEST_F(Station, RefusedDiagnosticEntryDoesNotKeepTheNextFromBeingStopped) {
    station_.Add(2, "NX4120");
    station_.Add(3, "NX4120");
    station_.addEntryResult = E_FAIL;
    Initialize();

    EXPECT_NO_THROW(stationManager_.StopCpBy("NX4120"));

    EXPECT_EQ(station_.journal.size(), 4u);
}

TEST_F(Station, NamesOutOfBoundsAreAssertedAndLookedFor) {
    station_.Add(1, "A");
    station_.Add(2, "");
    Initialize();
    const ModuleHooks hooks;

    stationManager_.StopCpBy("");
    stationManager_.StopCpBy(std::string(127, 'A'));
    stationManager_.StopCpBy(std::string(128, 'A'));

    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"!CpName.empty()", L"CpName.length() < 128"}));
    EXPECT_EQ(station_.journal.size(), 2u) << "the component without an entry";
}

TEST_F(Station, SecondInitialisationIsRefused) {
    Initialize();
    EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager_.Initialize(); }),
              "COM Interface for PC Station already initialized!");
}

TEST_F(Station, WholeRecordsAreUsedWhenTheDataIsCutOff) {
    station_.Add(1, "PC Station");
    station_.Add(2, "NX4120");
    station_.surplusBytes = 2339;
    Initialize();

    stationManager_.StopCpBy("NX4120");

    EXPECT_EQ(station_.journal.front(), "stop 2 0");
    station_.components.resize(1);
    EXPECT_FALSE(stationManager_.HasPluggedComponentes()) << "less than two records";
}

TEST_F(Station, RefusedConfigurationDataIsTold) {
    Initialize();
    station_.getDataResult = E_FAIL;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager_.StopCpBy("NX4120"); }),
              "STATMGRLib::ISetupSupportPtr::GetData(STATION_CONFIG_DATA) FAILED!");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager_.HasPluggedComponentes(); }),
              "CStatMgrImpl::GetData(STATION_CONFIG_DATA) FAILED!");
}

TEST_F(Station, ComErrorWhileReadingIsTold) {
    Initialize();
    station_.onGetData = [] { throw _com_error(RPC_E_SERVERFAULT); };
    EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager_.StopCpBy("NX4120"); }),
              "Caught COM-EXCPETION: CStatMgrImpl::GetConfigData()!");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager_.HasPluggedComponentes(); }),
              "Caught COM-EXCPETION: CStatMgrImpl::GetCountOfObjects()!");
}

TEST_F(Station, MissingInterfaceIsTold) {
    station_.Add(1, "NX4120");
    station_.Add(2, "NX4120");
    Initialize();
    station_.missingInterface = __uuidof(IComponentControl);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager_.StopCpBy("NX4120"); }),
              "QueryInterface COM FAILED!");
    station_.missingInterface = __uuidof(IDiagnostics);
    EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager_.StopCpBy("NX4120"); }),
              "QueryInterface COM FAILED!");
}

TEST_F(Station, MissingSetupSupportIsTold) {
    station_.createSetupSupportResult = E_NOINTERFACE;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { Initialize(); }),
              "Unhandled COM exception in StationManagerImpl-CTOR");
}

TEST_F(Station, RefusalIsRaisedAsAComError) {
    StatMgrCfg configuration;
    configuration.Initialize();
    station_.refused = {2};
    station_.addEntryResult = E_FAIL;
    EXPECT_EQ(configuration.CfgStopComponent(1), S_OK);
    EXPECT_THROW(configuration.CfgStopComponent(2), _com_error);
    EXPECT_THROW(configuration.DiagEntry(35, 1, 0), _com_error);
}

TEST(StationObject, UsedBeforeItIsInitialisedIsAssertedAndFails) {
    const ModuleHooks hooks;
    StatMgrCfg configuration;
    EXPECT_EQ(TextOf<std::runtime_error>([&] { configuration.CfgStopComponent(1); }),
              "QueryInterface COM FAILED!");
    EXPECT_EQ(TextOf<std::runtime_error>([&] { configuration.DiagEntry(35, 1, 0); }),
              "QueryInterface COM FAILED!");
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"m_isInit", L"m_pIUnkStatMgr != NULL", L"m_isInit",
                                         L"m_pIUnkStatMgr != NULL"}));
}

TEST_F(Station, SecondInitialisationOfTheImplementationIsAssertedAndLosesNoReference) {
    const LONG before = station_.references;
    {
        CStatMgrImpl implementation;
        implementation.Initalize();
        const ModuleHooks hooks;
        implementation.Initalize();
        EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"!m_isInit"}));
    }
    EXPECT_EQ(station_.references, before);
}

TEST_F(Station, InterfaceThatIsNullIsAsserted) {
    StatMgrCfg configuration;
    configuration.Initialize();
    station_.nullInterface = __uuidof(IDiagnostics);
    const ModuleHooks hooks;
    EXPECT_THROW(configuration.DiagEntry(35, 1, 0), _com_error);
    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"*ppvObject != NULL"}));
}

TEST_F(Station, FailuresAreTracedAtLevelTwo) {
    const ModuleTracing tracing(trace::kError);
    Initialize();
    station_.onGetData = [] { throw _com_error(RPC_E_SERVERFAULT); };
    EXPECT_THROW(stationManager_.StopCpBy("NX4120"), std::runtime_error);
    EXPECT_THROW(stationManager_.HasPluggedComponentes(), std::runtime_error);
    EXPECT_EQ(NumbersIn(kImplementationFile), (std::vector<USHORT>{20, 21}));
    station_.createSetupSupportResult = E_NOINTERFACE;
    EXPECT_THROW(CStatMgrImpl().Initalize(), std::runtime_error);
    EXPECT_EQ(NumbersIn(kImplementationFile), (std::vector<USHORT>{18}));
}

TEST_F(Station, EveryReferenceIsGivenBack) {
    station_.Add(1, "PC Station");
    station_.Add(2, "NX4120");
    const LONG before = station_.references;
    {
        StationManager stationManager;
        stationManager.Initialize();
        stationManager.StopCpBy("NX4120");
        EXPECT_GT(station_.references, before);
    }
    EXPECT_EQ(station_.references, before);
}

TEST_F(Station, ComErrorWhileReleasingIsAsserted) {
    const ModuleHooks hooks;
    {
        CStatMgrImpl implementation;
        implementation.Initalize();
        station_.onRelease = [this] {
            station_.onRelease = [] {};
            throw _com_error(RPC_E_DISCONNECTED);
        };
    }
    {
        CStatMgrImpl implementation;
        implementation.Initalize();
        station_.onRelease = [this] {
            station_.onRelease = [] {};
            throw 42;
        };
    }
    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"!\"COM-Exception in CStatMgrImpl\"",
                                         L"!\"Unhandled exception in StationManagerImpl-DTOR\""}));
}

TEST_P(StationInContext, IsHadAsSetupSupportInAnyAndAsStationObjectAsLocalServerOnly) {
    const ScriptedStation station(GetParam());
    EXPECT_NO_THROW(CStatMgrImpl().Initalize());
    if (GetParam() == CLSCTX_LOCAL_SERVER)
        EXPECT_NO_THROW(StatMgrCfg().Initialize());
    else
        EXPECT_THROW(StatMgrCfg().Initialize(), std::runtime_error);
}

TEST(StationManager, TracesARefusalThatIsReturnedAsAFailure) {
    class Refusing : public StatMgrCfg {
        HRESULT CfgStopComponent(LONG) override { return E_ACCESSDENIED; }
        HRESULT DiagEntry(BYTE, WORD, DWORD) override { return S_FALSE; }
    };
    ScriptedStation station;
    station.Add(1, "PC Station");
    station.Add(2, "NX4120");
    StationManager stationManager(std::make_unique<ComInterface>(), std::make_unique<Refusing>(),
                                  std::make_unique<CStatMgrImpl>());
    stationManager.Initialize();
    const ModuleTracing tracing(trace::kVerbose);

    stationManager.StopCpBy("NX4120");

    EXPECT_EQ(NumbersIn(kWrapperFile), (std::vector<USHORT>{13, 14, 14, 20, 18}));
    test_support::EnableTracing(test_support::kModuleGuid, trace::kInformation, trace::kMessage, 1);
    stationManager.StopCpBy("NX4120");
    EXPECT_EQ(NumbersIn(kWrapperFile), (std::vector<USHORT>{13, 20}));
}

TEST(StationManager, TellsOfAnImplementationThatStaysUninitialised) {
    class Idle : public CStatMgrImpl {
        void Initalize() override {}
    };
    const ScriptedStation station;
    StationManager stationManager(std::make_unique<ComInterface>(), std::make_unique<StatMgrCfg>(),
                                  std::make_unique<Idle>());
    EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager.Initialize(); }),
              "Could not StatMgrImplementation");
}

TEST(StationManager, TellsOfAThreadThatCannotHaveCom) {
    ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    {
        const ModuleTracing tracing(trace::kError);
        StationManager stationManager;
        EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager.Initialize(); }),
                  "CStatMgrImpl::CTOR - CoInitializeEx() FAILED");
        EXPECT_EQ(NumbersIn(kImplementationFile), (std::vector<USHORT>{12}));
    }
    EXPECT_TRUE(HasCom()) << "what failed is not undone";
    ::CoUninitialize();
    EXPECT_FALSE(HasCom());
}

TEST(StationManager, TellsOfAStationManagerThatIsNotInstalled) {
    {
        StationManager stationManager;
        EXPECT_EQ(TextOf<std::runtime_error>([&] { stationManager.Initialize(); }),
                  "FAILED: CoCreateInstance(CLSID_PCStation)!");
        EXPECT_TRUE(HasCom());
    }
    EXPECT_FALSE(HasCom()) << "COM is balanced";
}

TEST(ComInterface, BalancesAnInitialisationThatWasThere) {
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    {
        ComInterface com;
        com.Initialize();  // S_FALSE
    }
    EXPECT_TRUE(HasCom());
    ::CoUninitialize();
    EXPECT_FALSE(HasCom());
}

TEST(ComInterface, IsInTheMultithreadedApartment) {
    ComInterface com;
    com.Initialize();
    APTTYPE type = APTTYPE_CURRENT;
    APTTYPEQUALIFIER qualifier = APTTYPEQUALIFIER_NONE;
    ASSERT_EQ(::CoGetApartmentType(&type, &qualifier), S_OK);
    EXPECT_EQ(type, APTTYPE_MTA);
}

TEST(ComInterface, BalancesEveryInitialisationOnce) {
    {
        ComInterface com;
        com.Initialize();
        com.Initialize();
        com.Cleanup();
        EXPECT_FALSE(HasCom());
        ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    }
    EXPECT_TRUE(HasCom()) << "what somebody else took";
    ::CoUninitialize();
}

TEST(StationManager, GivesComBackAfterARepeatedInitialisation) {
    {
        StationManager stationManager;
        EXPECT_THROW(stationManager.Initialize(), std::runtime_error) << "there is no station manager";
        EXPECT_THROW(stationManager.Initialize(), std::runtime_error);
    }
    EXPECT_FALSE(HasCom());
}

TEST(StationManager, CanBeInitialisedAfterAFailure) {
    StationManager stationManager;
    EXPECT_THROW(stationManager.Initialize(), std::runtime_error);
    ScriptedStation station;
    station.Add(1, "PC Station");
    station.Add(2, "NX4120");
    EXPECT_NO_THROW(stationManager.Initialize());
    EXPECT_TRUE(stationManager.HasPluggedComponentes());
}

TEST(ComInterface, UndoesNothingThatItDidNotDo) {
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    {
        const ComInterface com;
    }
    EXPECT_TRUE(HasCom());
    ::CoUninitialize();
}

TEST(StationComponentInfo, IsPrintedWithTheFieldsInUse) {
    StationComponentInfo component = {};
    component.lVmdID = 7;
    component.dwFlags = 0x10;
    component.ulStatus = 0x201;
    kCatalogueFilled.copy(component.szCatalogEntry, 64);
    std::string("Line 1").copy(component.szName, 6);
    EXPECT_EQ(component.Print(), "StationComponentInfo: lVmdID=7, szCatalogEntry=" + kCatalogueFilled +
                                     ", szName=Line 1, ulStatus=0x201, dwFlags=0x10");
}

TEST(ComErrorText, HasCodeAndText) {
    EXPECT_TRUE(korvane::ComErrorText(_com_error(E_ACCESSDENIED)).starts_with(L"0x80070005 "));
    EXPECT_EQ(korvane::ComErrorText(_com_error(_com_error::WCodeToHRESULT(5))),
              L"0x80040205 IDispatch error #5");
    EXPECT_EQ(korvane::ComErrorText(_com_error(static_cast<HRESULT>(0xA7654321))),
              L"0xa7654321 Unknown error 0xA7654321");
}
