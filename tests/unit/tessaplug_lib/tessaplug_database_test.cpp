#include "tessaplug_database.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "module_hooks.h"

using tessaplug::CommunicationProcessorDb;
using tessaplug::CommunicationProcessorDbIf;
using test_support::ModuleHooks;

namespace {

constexpr GUID kAnyGuid = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};

std::vector<unsigned int> Lines(const ModuleHooks& hooks) {
    std::vector<unsigned int> lines;
    for (const auto& assertion : hooks.Assertions())
        lines.push_back(assertion.line);
    return lines;
}

}  // namespace

TEST(ServiceDb, HoldsLockNameAndApiVersion) {
    const auto settings = tessaplug::ServiceDbIf::create_database();

    EXPECT_EQ(settings->GlobalInstanceLockName(),
              L"TESSAPLUG_INSTANCE_LOCK__{28A2EEC4-8E69-48DC-A466-EF82F7220B13}");
    EXPECT_EQ(settings->ApiVersion(), 0x00010001u);
}

TEST(ServiceDb, IsMadeAnewForEachCaller) {
    EXPECT_NE(tessaplug::ServiceDbIf::create_database(), tessaplug::ServiceDbIf::create_database());
}

TEST(ModelTable, HasTwoModelsFennlinkU3First) {
    const auto models = CommunicationProcessorDbIf::create_database();

    ASSERT_EQ(models.size(), 2u);
    constexpr GUID kU3 = {0x042C8EDC, 0xC410, 0x4FDB, {0xA9, 0x06, 0xD3, 0xBD, 0xBD, 0x84, 0xFD, 0xF4}};
    EXPECT_EQ(models[0]->DisplayedDeviceName(), L"Fennlink U3");
    EXPECT_TRUE(IsEqualGUID(models[0]->DeviceInterfaceGuid(), kU3));
    EXPECT_EQ(models[0]->SupportedLogDevices(),
              (std::vector<std::wstring>{L"Fennlink U3(AUTO)", L"Fennlink U3(XLI)", L"Fennlink U3(PROFIBUS)",
                                         L"Fennlink U3(FWL)", L"Fennlink U3(FWL_FAST_LOAD)"}));
    constexpr GUID kNx = {0xAD4DCAAF, 0xA25B, 0x41BB, {0x80, 0x36, 0x04, 0x60, 0xA9, 0x89, 0xAF, 0xE1}};
    EXPECT_EQ(models[1]->DisplayedDeviceName(), L"NX4120");
    EXPECT_TRUE(IsEqualGUID(models[1]->DeviceInterfaceGuid(), kNx));
    EXPECT_EQ(models[1]->SupportedLogDevices(),
              (std::vector<std::wstring>{L"NX4120(AUTO)", L"NX4120(XLI)", L"NX4120(PROFIBUS)", L"NX4120(FWL)",
                                         L"NX4120(FWL_FAST_LOAD)"}));
    EXPECT_EQ(models[1]->StationManagerCatalogName(), L"NX4120");
}

TEST(ModelTable, FennlinkU3HasNoStationManagerName) {
    EXPECT_EQ(CommunicationProcessorDbIf::create_database()[0]->StationManagerCatalogName(), L"");
}

TEST(ModelTable, IsMadeAnewForEachCaller) {
    EXPECT_NE(CommunicationProcessorDbIf::create_database()[0],
              CommunicationProcessorDbIf::create_database()[0]);
}

TEST(ModelRecord, KeepsEachNameInItsPlace) {
    const CommunicationProcessorDb model({L"first", L"second"}, kAnyGuid, L"displayed", L"catalogue");
    EXPECT_EQ(model.SupportedLogDevices(), (std::vector<std::wstring>{L"first", L"second"}));
    EXPECT_TRUE(IsEqualGUID(model.DeviceInterfaceGuid(), kAnyGuid));
    EXPECT_EQ(model.DisplayedDeviceName(), L"displayed");
    EXPECT_EQ(model.StationManagerCatalogName(), L"catalogue");
}

TEST(ModelRecord, EachLogDeviceIsCheckedCompletelyBeforeTheNext) {
    const ModuleHooks hooks;

    const CommunicationProcessorDb model({std::wstring(128, L'l'), L"", std::wstring(128, L'l')}, kAnyGuid,
                                         L"Model", L"catalogue");

    EXPECT_EQ(Lines(hooks), (std::vector<unsigned int>{115, 114, 115}));
    EXPECT_EQ(
        hooks.AssertedExpressions(),
        (std::vector<std::wstring>{L"(*it).length() < 128", L"(*it).length() > 0", L"(*it).length() < 128"}));
}

TEST(ModelRecord, NamesAtTheirLimitsPass) {
    const CommunicationProcessorDb model({std::wstring(127, L'l')}, kAnyGuid, std::wstring(127, L'd'),
                                         std::wstring(63, L'c'));
    EXPECT_EQ(model.SupportedLogDevices()[0].length(), 127u);
    EXPECT_EQ(model.StationManagerCatalogName().length(), 63u);
    const CommunicationProcessorDb shortest({L"l"}, kAnyGuid, L"d", L"c");
    const CommunicationProcessorDb withoutCatalogName({std::wstring(127, L'l')}, kAnyGuid,
                                                      std::wstring(127, L'd'));
    EXPECT_EQ(withoutCatalogName.StationManagerCatalogName(), L"");
}

TEST(ModelRecord, OverlongLogDeviceNameIsAssertedAndStillBuilt) {
    const ModuleHooks hooks;

    const CommunicationProcessorDb model({L"A", std::wstring(128, L'l')}, kAnyGuid, L"Model");

    ASSERT_EQ(hooks.Assertions().size(), 1u);
    EXPECT_EQ(hooks.Assertions()[0].expression, L"(*it).length() < 128");
    EXPECT_EQ(hooks.Assertions()[0].sourcePath, L"tessaplug_lib\\src\\tessaplug_database");
    EXPECT_EQ(hooks.Assertions()[0].line, 142u);
    EXPECT_EQ(model.SupportedLogDevices().size(), 2u);
}

TEST(ModelRecord, EmptyNamesAreAssertedInOrderWithCatalogName) {
    const ModuleHooks hooks;

    const CommunicationProcessorDb model({L""}, kAnyGuid, L"", L"");

    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"StatMgr_Catalog_Name.length() > 0",
                                         L"Displayed_Device_Name.length() > 0", L"(*it).length() > 0"}));
    EXPECT_EQ(Lines(hooks), (std::vector<unsigned int>{105, 107, 114}));
}

TEST(ModelRecord, OverlongNamesAreAssertedInOrderWithCatalogName) {
    const ModuleHooks hooks;

    const CommunicationProcessorDb model({std::wstring(128, L'l')}, kAnyGuid, std::wstring(128, L'd'),
                                         std::wstring(64, L'c'));

    EXPECT_EQ(hooks.AssertedExpressions(),
              (std::vector<std::wstring>{L"StatMgr_Catalog_Name.length() < 64",
                                         L"Displayed_Device_Name.length() < 128", L"(*it).length() < 128"}));
    EXPECT_EQ(Lines(hooks), (std::vector<unsigned int>{106, 108, 115}));
}

TEST(ModelRecord, ModelWithoutCatalogNameHasLinesOfItsOwn) {
    const ModuleHooks hooks;

    const CommunicationProcessorDb empty({L""}, kAnyGuid, L"");
    const CommunicationProcessorDb overlong({std::wstring(128, L'l')}, kAnyGuid, std::wstring(128, L'd'));

    EXPECT_EQ(Lines(hooks), (std::vector<unsigned int>{134, 141, 135, 142}));
}
