#include "setup_plan.h"

#include <gtest/gtest.h>
#include <stdexcept>

#include "status_log.h"

using installer::MakePlan;
using installer::SetupPlan;
using installer::Wishes;

namespace {

constexpr wchar_t kFolder[] = L"C:\\Program Files\\Tessaplug\\";

host::InstalledService OwnService(bool automaticStart = false, bool delayedStart = false) {
    host::InstalledService service;
    service.commandLine =
        L"\"C:\\PROGRAM FILES\\Tessaplug\\tessahost.exe\" run --stop-timeout 45 --log \"D:\\l\\h.log\"";
    host::Options options = host::OptionsOf(service.commandLine).value_or(host::Options());
    options.automaticStart = automaticStart;
    options.delayedStart = delayedStart;
    service.options = options;
    return service;
}

/// What is wrong with a plan.
std::string Refusal(const std::optional<host::InstalledService>& service, const Wishes& wishes) {
    try {
        MakePlan(kFolder, service, wishes);
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return "nothing";
}

}  // namespace

TEST(SetupPlan, NewServiceStartsWithTheMachineAndAtOnce) {
    const SetupPlan plan = MakePlan(kFolder, std::nullopt, {});
    EXPECT_FALSE(plan.previous);
    EXPECT_FALSE(plan.wasRunning);
    EXPECT_TRUE(plan.startAtTheEnd);
    const host::Options options = OptionsOf(plan.wanted);
    EXPECT_TRUE(options.automaticStart);
    EXPECT_FALSE(options.delayedStart);
    EXPECT_EQ(options.name, L"tessahost");
    EXPECT_EQ(options.program, std::wstring(kFolder) + L"tessahost.exe");
    EXPECT_EQ(options.plugIn, std::wstring(kFolder) + L"tessaplug.dll");
    EXPECT_EQ(options.log, host::DefaultLogPath());
}

TEST(SetupPlan, InstalledServiceKeepsItsSettings) {
    const host::InstalledService service = OwnService(true, true);
    const SetupPlan plan = MakePlan(kFolder, service, {});
    EXPECT_EQ(plan.previous.value_or(installer::ServiceSetUp()).commandLine, service.commandLine);
    const host::Options options = OptionsOf(plan.wanted);
    EXPECT_EQ(options.stopTimeOut, 45u);
    EXPECT_EQ(options.log, L"D:\\l\\h.log");
    EXPECT_TRUE(options.automaticStart);
    EXPECT_TRUE(options.delayedStart);
}

TEST(SetupPlan, InstalledServiceIsStartedAgainIfItRanOrIfItIsWished) {
    host::InstalledService service = OwnService();
    EXPECT_FALSE(MakePlan(kFolder, service, {}).startAtTheEnd);
    EXPECT_FALSE(MakePlan(kFolder, service, {}).wasRunning);
    EXPECT_TRUE(MakePlan(kFolder, service, {L"", L"", L"1"}).startAtTheEnd);
    service.isRunning = true;
    EXPECT_TRUE(MakePlan(kFolder, service, {}).startAtTheEnd);
    EXPECT_TRUE(MakePlan(kFolder, service, {}).wasRunning);
    EXPECT_FALSE(MakePlan(kFolder, service, {L"", L"", L"0"}).startAtTheEnd);
}

TEST(SetupPlan, WishesComeBeforeWhatIsSet) {
    const auto wanted = [](const Wishes& wishes) {
        return OptionsOf(MakePlan(kFolder, OwnService(), wishes).wanted);
    };
    EXPECT_TRUE(wanted({L"automatic", L"", L""}).automaticStart);
    EXPECT_FALSE(wanted({L"automatic", L"", L""}).delayedStart);
    EXPECT_TRUE(wanted({L"delayed", L"", L""}).automaticStart);
    EXPECT_TRUE(wanted({L"delayed", L"", L""}).delayedStart);
    EXPECT_FALSE(wanted({L"manual", L"", L""}).automaticStart);
    EXPECT_EQ(wanted({L"", L"E:\\logs", L""}).log, L"E:\\logs\\tessahost.log");
    EXPECT_EQ(wanted({L"", L"E:\\logs\\", L""}).log, L"E:\\logs\\tessahost.log");
    EXPECT_EQ(wanted({L"", L"\\\\server\\logs", L""}).log, L"\\\\server\\logs\\tessahost.log");
}

TEST(SetupPlan, WishesThatCannotBeMetAreRefused) {
    EXPECT_EQ(Refusal(std::nullopt, {L"never", L"", L""}),
              "SERVICESTART is automatic, delayed or manual, not \"never\".");
    for (const wchar_t* folder : {L"logs", L"C:logs", L"\\logs", L"C:\\a\"b", L"C:\\a|b"})
        EXPECT_TRUE(
            Refusal(std::nullopt, {L"", folder, L""}).starts_with("LOGFOLDER is the full path of a folder"))
            << folder;
    EXPECT_EQ(Refusal(std::nullopt, {L"", L"", L"2"}), "STARTSERVICE is 1 or 0, not \"2\".");
}

TEST(SetupPlan, ServiceOfAnotherProgramIsRefused) {
    host::InstalledService service;
    service.commandLine = L"C:\\other.exe";
    EXPECT_NE(Refusal(service, {}).find("it runs C:\\other.exe."), std::string::npos);
    service.commandLine = L"\"C:\\elsewhere\\tessahost.exe\" run";
    service.options = host::OptionsOf(service.commandLine);
    EXPECT_NE(Refusal(service, {}).find("C:\\elsewhere\\tessahost.exe"), std::string::npos);
}

TEST(SetupPlan, IsReadBackAsItWas) {
    host::InstalledService service = OwnService(true);
    service.isRunning = true;
    for (const auto& found : {std::optional<host::InstalledService>(), std::optional(service)}) {
        const SetupPlan plan = MakePlan(kFolder, found, {L"delayed", L"", L"0"});
        const SetupPlan read = installer::ToPlan(ToText(plan));
        EXPECT_EQ(read.folder, plan.folder);
        EXPECT_EQ(read.wasRunning, plan.wasRunning);
        EXPECT_EQ(read.startAtTheEnd, plan.startAtTheEnd);
        EXPECT_EQ(read.wanted.commandLine, plan.wanted.commandLine);
        EXPECT_TRUE(read.wanted.automaticStart);
        EXPECT_TRUE(read.wanted.delayedStart);
        EXPECT_EQ(read.previous.has_value(), plan.previous.has_value());
        const auto previous = read.previous.value_or(installer::ServiceSetUp());
        EXPECT_EQ(previous.commandLine, found ? service.commandLine : L"");
        EXPECT_EQ(previous.automaticStart, found.has_value());
        EXPECT_FALSE(previous.delayedStart);
    }
}

TEST(SetupPlan, TextThatIsNoPlanIsRefused) {
    EXPECT_THROW(installer::ToPlan(L"a|b"), std::invalid_argument);
    EXPECT_THROW(installer::ToPlan(ToText(MakePlan(kFolder, std::nullopt, {})) + L"|more"),
                 std::invalid_argument);
    EXPECT_THROW(installer::OptionsOf(installer::ServiceSetUp()), std::runtime_error);
}
