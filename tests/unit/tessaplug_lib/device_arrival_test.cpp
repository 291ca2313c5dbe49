#include <windows.h>
#include <dbt.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "module_hooks.h"
#include "scripted_notifier.h"
#include "tessaplug_pnp.h"
#include "trace_recorder.h"

using namespace scripted;
using test_support::ModuleHooks;

namespace {

class ModelWithThreeLogDevices : public Notifier {
  protected:
    ModelWithThreeLogDevices() {
        configuration_.installed = {"DEV(A)", "DEV(B)", "DEV(C)"};
        configuration_.hiddenByName = {{"DEV(A)", false}, {"DEV(B)", false}, {"DEV(C)", false}};
    }
    ModelRecord model_ = Model(kGuidA, L"Device", {L"DEV(A)", L"DEV(B)", L"DEV(C)"});
};

/// The same, known to the station manager.
class ModelOfTheStationManager : public ModelWithThreeLogDevices {
  protected:
    ModelOfTheStationManager() {
        RegisterQuietly(std::make_shared<CommunicationProcessorDb>(
            std::vector<std::wstring>{L"DEV(A)", L"DEV(B)", L"DEV(C)"}, kGuidA, L"Device", L"CATALOGUE"));
    }
};

}  // namespace

TEST_F(ModelWithThreeLogDevices, RegistrationShowsThemWhenTheDeviceIsPresent) {
    deviceInterfaces_->plugged = true;
    notifier_->Initialize(kServiceHandle);
    notifier_->Register(model_);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "show DEV(B)", "show DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, RegistrationHidesThemWhenTheDeviceIsAbsent) {
    notifier_->Initialize(kServiceHandle);
    notifier_->Register(model_);
    EXPECT_EQ(journal_, (Journal{"hide DEV(A)", "hide DEV(B)", "hide DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, RegistrationSkipsTheMissingOne) {
    configuration_.hiddenByName.erase("DEV(B)");
    notifier_->Initialize(kServiceHandle);
    notifier_->Register(model_);
    EXPECT_EQ(journal_, (Journal{"hide DEV(A)", "missing DEV(B)", "hide DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, FailureDuringRegistrationStaysInside) {
    deviceInterfaces_->fail = true;
    notifier_->Initialize(kServiceHandle);
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kModuleGuid, trace::kError, trace::kMessage, 1);
    EXPECT_NO_THROW(notifier_->Register(model_));
    EXPECT_TRUE(journal_.empty());
    const auto traced = test_support::TakeTraceRecords();
    ASSERT_EQ(traced.size(), 1u);
    EXPECT_EQ(traced[0].Text(1), "no device interfaces");
}

TEST_F(ModelWithThreeLogDevices, ArrivalShowsAndRemovalHides) {
    RegisterQuietly(model_);
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "show DEV(B)", "show DEV(C)"}));
    journal_.clear();
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(journal_, (Journal{"hide DEV(A)", "hide DEV(B)", "hide DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, ArrivalHandlesTheNamesAfterAMissingOne) {
    configuration_.hiddenByName.erase("DEV(B)");
    RegisterQuietly(model_);
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "missing DEV(B)", "panel", "show DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, PanelRunsOncePerArrival) {
    configuration_.hiddenByName.clear();
    RegisterQuietly(model_);
    const Journal once = {"missing DEV(A)", "panel", "missing DEV(B)", "missing DEV(C)"};
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kModuleGuid, trace::kWarning, trace::kMessage, 1);
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, once);
    const auto traced = test_support::TakeTraceRecords();
    ASSERT_EQ(traced.size(), 3u) << "each missing one is traced";
    EXPECT_EQ(traced[0].WideText(0), L"DEV(A)");
    EXPECT_EQ(traced[2].WideText(0), L"DEV(C)");
    journal_.clear();
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, once) << "each arrival anew";
}

TEST_F(ModelWithThreeLogDevices, PanelDoesNotRunOnRemoval) {
    configuration_.hiddenByName.erase("DEV(B)");
    RegisterQuietly(model_);
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(journal_, (Journal{"hide DEV(A)", "missing DEV(B)", "hide DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, PanelDoesNotRunAtRegistration) {
    configuration_.hiddenByName.clear();
    deviceInterfaces_->plugged = true;
    notifier_->Initialize(kServiceHandle);
    notifier_->Register(model_);
    EXPECT_EQ(journal_, (Journal{"missing DEV(A)", "missing DEV(B)", "missing DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, FailingPanelEndsTheEvent) {
    configuration_.hiddenByName.erase("DEV(B)");
    RegisterQuietly(model_);
    panel_->fail = true;
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "missing DEV(B)", "panel"}));
}

TEST_F(ModelOfTheStationManager, RemovalStopsBeforeTheFirstIsHidden) {
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(journal_,
              (Journal{"station manager", "stop CATALOGUE", "hide DEV(A)", "hide DEV(B)", "hide DEV(C)"}));
}

TEST_F(ModelOfTheStationManager, ArrivalLeavesTheStationManagerAlone) {
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "show DEV(B)", "show DEV(C)"}));
}

TEST_F(ModelOfTheStationManager, RemovalGoesOnWithoutAStationManager) {
    stationManagers_->fail = true;
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(journal_, (Journal{"hide DEV(A)", "hide DEV(B)", "hide DEV(C)"}));
}

TEST_F(ModelOfTheStationManager, AnyOtherExceptionOfItIsAssertedAndEndsTheEvent) {
    stationManagers_->throwNonStandard = true;
    const ModuleHooks hooks;
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"!\"Unexpected exception!\""}));
    EXPECT_TRUE(journal_.empty());
}

TEST_F(ModelWithThreeLogDevices, OnlyInstalledOnesAreTouched) {
    configuration_.installed = {"DEV(C)", "OTHER(A)", "dev(b)", "DEV(A)X"};
    RegisterQuietly(model_);
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(C)"})) << "names are compared by case and whole";
}

TEST_F(ModelWithThreeLogDevices, TheyAreHandledInTheOrderOfTheModel) {
    configuration_.installed = {"DEV(C)", "DEV(B)", "DEV(A)"};
    RegisterQuietly(model_);
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "show DEV(B)", "show DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, NothingIsWrittenWhenNoneIsInstalled) {
    configuration_.installed.clear();
    RegisterQuietly(model_);
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_TRUE(journal_.empty());
}

TEST_F(ModelWithThreeLogDevices, EventOfAnUnregisteredClassChangesNothing) {
    RegisterQuietly(model_);
    const test_support::Tracing tracing;
    test_support::EnableTracing(test_support::kModuleGuid, trace::kWarning, trace::kMessage, 1);
    notifier_->OnDeviceArrival(kGuidB, DBT_DEVICEARRIVAL);
    notifier_->OnDeviceRemoval({}, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_TRUE(journal_.empty());
    EXPECT_TRUE(test_support::TakeTraceRecords().empty()) << "it is nothing to worry about";
}

TEST_F(ModelWithThreeLogDevices, FailureEndsTheEventAndKeepsTheLaterOnes) {
    RegisterQuietly(model_);
    configuration_.hiddenByName = {{"DEV(A)", false}, {"DEV(B)", false}, {"DEV(C)", false}};
    configuration_.failingName = "DEV(A)";

    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);

    EXPECT_TRUE(journal_.empty());
    EXPECT_FALSE(configuration_.hiddenByName["DEV(B)"]);
    configuration_.failingName.clear();
    notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(journal_, (Journal{"hide DEV(A)", "hide DEV(B)", "hide DEV(C)"})) << "the next event is";
}

TEST_F(ModelWithThreeLogDevices, FailedEventIsTracedWithItsMessageAndWithItsEnd) {
    RegisterQuietly(model_);
    configuration_.failingName = "DEV(A)";
    const test_support::Tracing tracing;
    for (const bool standard : {true, false}) {
        configuration_.throwNonStandard = !standard;
        const ModuleHooks hooks;
        test_support::EnableTracing(test_support::kModuleGuid, trace::kInformation, trace::kMessage, 1);
        notifier_->OnDeviceRemoval(kGuidA, DBT_DEVICEREMOVECOMPLETE);
        const auto traced = test_support::TakeTraceRecords();
        ASSERT_GE(traced.size(), 2u);
        EXPECT_EQ(traced.back().arguments.size(), 1u);
        EXPECT_EQ(traced.back().Text(0), "removal");
        EXPECT_NE(traced.back().number, traced.front().number) << "the end is not the beginning";
        const auto failure = std::ranges::find_if(traced, [](const auto& record) {
            return record.arguments.size() == 2 && record.Text(1) == "write failed";
        });
        EXPECT_EQ(failure != traced.end(), standard);
        EXPECT_EQ(hooks.Assertions().size(), standard ? 0u : 1u);
    }
}

TEST_F(ModelWithThreeLogDevices, UnreadableTemplateEndsTheEvent) {
    RegisterQuietly(model_);
    configuration_.installedFails = true;
    EXPECT_NO_THROW(notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL));
    EXPECT_TRUE(journal_.empty());
}

TEST_F(ModelWithThreeLogDevices, AnyOtherExceptionIsAsserted) {
    RegisterQuietly(model_);
    configuration_.failingName = "DEV(B)";
    configuration_.throwNonStandard = true;
    const ModuleHooks hooks;

    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);

    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"!\"Unexpected exception!\""}));
    EXPECT_EQ(journal_, (Journal{"show DEV(A)"}));
}

TEST_F(ModelWithThreeLogDevices, AnyOtherExceptionDuringRegistrationIsAsserted) {
    configuration_.failingName = "DEV(B)";
    configuration_.throwNonStandard = true;
    const ModuleHooks hooks;
    notifier_->Initialize(kServiceHandle);

    EXPECT_NO_THROW(notifier_->Register(model_));

    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"!\"Unexpected exception!\""}));
}

TEST_F(ModelWithThreeLogDevices, StructuredExceptionOfAPartnerIsAssertedAndEndsTheEventOnly) {
    configuration_.hiddenByName.erase("DEV(B)");
    RegisterQuietly(model_);
    for (const DWORD code : {0xE06D7363ul, EXCEPTION_ACCESS_VIOLATION}) {
        panel_->raise = code;
        journal_.clear();
        const ModuleHooks hooks;
        notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
        EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"!\"Unexpected exception!\""}));
        EXPECT_EQ(journal_, (Journal{"show DEV(A)", "missing DEV(B)", "panel"}));
    }
    panel_->raise = 0;
    journal_.clear();
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "missing DEV(B)", "panel", "show DEV(C)"}));
}

TEST_F(ModelWithThreeLogDevices, StructuredExceptionDuringRegistrationIsAssertedAndKeepsTheModel) {
    deviceInterfaces_->onQuery = [] { ::RaiseException(0xE06D7363, 0, 0, nullptr); };
    notifier_->Initialize(kServiceHandle);
    const ModuleHooks hooks;

    notifier_->Register(model_);

    EXPECT_EQ(hooks.AssertedExpressions(), (std::vector<std::wstring>{L"!\"Unexpected exception!\""}));
    notifier_->OnDeviceArrival(kGuidA, DBT_DEVICEARRIVAL);
    EXPECT_EQ(journal_, (Journal{"show DEV(A)", "show DEV(B)", "show DEV(C)"}));
}
