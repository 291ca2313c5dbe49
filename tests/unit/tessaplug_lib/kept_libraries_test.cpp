#include <windows.h>
#include <dbt.h>

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "configuration_library_location.h"
#include "library_loads.h"
#include "scripted_notifier.h"
#include "service_test.h"
#include "tessaplug_pnp.h"
#include "trace_recorder.h"

using namespace scripted;

namespace {

/// The log devices that are installed, which need the library as the real ones do.
class DefaultsWithLibrary : public korvane::DefaultLogDeviceDatabaseIf {
  public:
    DefaultsWithLibrary() { library_.LoadLib(); }
    std::vector<std::string> Installed() override { return {"DEV(A)", "DEV(B)", "DEV(C)"}; }

  private:
    quelm::Q5orvix library_;
};

/// Two models with three log devices each, in a real configuration library that answers as a test says.
class RealLibrary : public testing::Test {
  protected:
    explicit RealLibrary(const wchar_t* variant = L"answers_code")
        : location_(test_support::FaultyLibrary(variant)) {
        Answer(quelm::LDCF_OK);
        notifier_ = std::make_shared<DeviceNotifier>(Collaborators());
    }

    tessaplug::DeviceNotifierCollaborators Collaborators() {
        tessaplug::DeviceNotifierCollaborators collaborators;
        collaborators.user32 = std::make_shared<FakeUser32>(journal_);
        collaborators.deviceInterfaces = std::make_shared<FakeDeviceInterfaces>();
        collaborators.createDefaultLogDevices = [] { return std::make_unique<DefaultsWithLibrary>(); };
        collaborators.panel = std::make_shared<FakePanel>(journal_);
        return collaborators;
    }

    static void Answer(DWORD code) {
        ::SetEnvironmentVariableW(L"Q5ORVIX_ANSWER", std::to_wstring(code).c_str());
    }
    void Register(const GUID& guid) {
        if (std::exchange(isInitialized_, true) == false) notifier_->Initialize(kServiceHandle);
        notifier_->Register(Model(guid, L"Device", {L"DEV(A)", L"DEV(B)", L"DEV(C)"}));
    }

    const test_support::ConfigurationLibraryLocation location_;
    Journal journal_;
    std::shared_ptr<DeviceNotifier> notifier_;

  private:
    bool isInitialized_ = false;
};

/// The library cannot be given back without it doing what it should not.
class LibraryThatRaisesAtItsEnd : public RealLibrary {
  protected:
    LibraryThatRaisesAtItsEnd() : RealLibrary(L"raises") {
        ::SetEnvironmentVariableW(L"Q5ORVIX_WHERE", L"detach");
        ::SetEnvironmentVariableW(L"Q5ORVIX_RAISES", L"access violation");
    }
    ~LibraryThatRaisesAtItsEnd() override { ::SetEnvironmentVariableW(L"Q5ORVIX_WHERE", nullptr); }
};

}  // namespace

TEST_F(RealLibrary, IsLoadedOnceForAnEventAndNotHeldAfterIt) {
    Register(kGuidA);
    const test_support::LibraryLoads loads(L"q5orvix64x.dll");
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(loads.Loaded(), 1);
    EXPECT_EQ(loads.Unloaded(), 1);
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(loads.Loaded(), 2) << "each event anew";
    EXPECT_EQ(loads.Unloaded(), 2);
    EXPECT_EQ(::GetModuleHandleW(L"q5orvix64x.dll"), nullptr);
}

TEST_F(RealLibrary, IsLoadedAnewAfterThePanel) {
    Register(kGuidA);
    Answer(quelm::LDCF_ERR_LOG_DEVICE_NOT_EXISTS);
    const test_support::LibraryLoads loads(L"q5orvix64x.dll");
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, Journal{"panel"});
    EXPECT_EQ(loads.Loaded(), 2) << "what the panel has made is not looked for by a library from before";
    EXPECT_EQ(loads.Unloaded(), 2);
}

TEST_F(RealLibrary, ThatThePanelMovesIsFoundInItsNewPlace) {
    class MovingPanel : public quelm::TvorPanel {
      public:
        void CallSilent() override { test_support::ConfigurationLibraryLocation::Set(L"C:\\no such folder"); }
    };
    tessaplug::DeviceNotifierCollaborators collaborators = Collaborators();
    collaborators.panel = std::make_shared<MovingPanel>();
    notifier_ = std::make_shared<DeviceNotifier>(std::move(collaborators));
    Register(kGuidA);
    Answer(quelm::LDCF_ERR_LOG_DEVICE_NOT_EXISTS);
    const test_support::LibraryLoads loads(L"q5orvix64x.dll");
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(loads.Loaded(), 1) << "it is no longer where it was before the panel";
}

TEST_F(RealLibrary, ThatMovesBetweenTwoEventsIsFoundInItsNewPlace) {
    Register(kGuidA);
    const test_support::LibraryLoads loads(L"q5orvix64x.dll");
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    test_support::ConfigurationLibraryLocation::Set(L"C:\\no such folder");
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(loads.Loaded(), 1);
    test_support::ConfigurationLibraryLocation::Set(test_support::FaultyLibrary(L"answers_code"));
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(loads.Loaded(), 2);
}

TEST_F(RealLibrary, ThatMovesDuringAnEventIsLookedUpOnce) {
    // The log devices that are installed are what is asked first.
    tessaplug::DeviceNotifierCollaborators collaborators = Collaborators();
    collaborators.createDefaultLogDevices = [] {
        auto defaults = std::make_unique<DefaultsWithLibrary>();
        test_support::ConfigurationLibraryLocation::Set(L"C:\\no such folder");
        return defaults;
    };
    notifier_ = std::make_shared<DeviceNotifier>(std::move(collaborators));
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kModuleGuid, trace::kError, trace::kMessage, 1);
    Register(kGuidA);
    EXPECT_TRUE(test_support::TakeTraceRecords().empty()) << "no load has failed";
}

TEST_F(RealLibrary, IsLoadedOnceForARegistrationAndNotHeldAfterIt) {
    const test_support::LibraryLoads loads(L"q5orvix64x.dll");
    Register(kGuidA);
    EXPECT_EQ(loads.Loaded(), 1);
    EXPECT_EQ(loads.Unloaded(), 1);
}

TEST_F(RealLibrary, IsLoadedOnceForSeveralRegistrations) {
    const test_support::LibraryLoads loads(L"q5orvix64x.dll");
    {
        const DeviceNotifier::KeepLibraries keep(*notifier_);
        Register(kGuidA);
        Register(kGuidB);
        EXPECT_EQ(loads.Unloaded(), 0);
    }
    EXPECT_EQ(loads.Loaded(), 1);
    EXPECT_EQ(loads.Unloaded(), 1);
}

TEST_F(RealLibrary, IsLoadedOnceWhenTheServiceStarts) {
    tessaplug::ServiceCollaborators collaborators;
    collaborators.deviceNotifier = notifier_;
    collaborators.settings = std::make_shared<service_test::TestSettings>();
    collaborators.eventLogMonitor = std::make_shared<service_test::FakeMonitor>();
    collaborators.sleep = [](DWORD) {};
    tessaplug::Service service(std::move(collaborators));
    const test_support::LibraryLoads loads(L"q5orvix64x.dll");
    ASSERT_EQ(
        service.init(TESSAPLUG_API_VERSION, kServiceHandle, [](void*, SERVICE_STATUS*) {}, nullptr, 0), 1u);
    EXPECT_EQ(loads.Loaded(), 1) << "for all models";
    EXPECT_EQ(loads.Unloaded(), 1);
    service.cleanup();
}

TEST_F(RealLibrary, IsNotHeldAfterAnEventThatFails) {
    Register(kGuidA);
    Answer(1);  // no code that the library has
    const test_support::LibraryLoads loads(L"q5orvix64x.dll");
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(loads.Loaded(), 1);
    EXPECT_EQ(loads.Unloaded(), 1);
}

TEST_F(RealLibrary, ThatIsMissingFailsOnceAndWhereItIsNeeded) {
    Register(kGuidA);
    test_support::ConfigurationLibraryLocation::Set(L"C:\\no such folder");
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kModuleGuid, trace::kError, trace::kMessage, 1);
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    const auto traced = test_support::TakeTraceRecords();
    ASSERT_EQ(traced.size(), 1u);
    EXPECT_TRUE(traced[0].Text(1).starts_with("FAILED! LoadLibraryW()! LE(")) << traced[0].Text(1);
}

TEST_F(LibraryThatRaisesAtItsEnd, DoesNotEndTheEvent) {
    Register(kGuidA);
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kModuleGuid, trace::kInformation, trace::kMessage, 1);
    EXPECT_NO_THROW(notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL));
    const auto traced = test_support::TakeTraceRecords();
    ASSERT_FALSE(traced.empty());
    EXPECT_EQ(traced.back().number, 20u) << "the event's closing trace";
}
