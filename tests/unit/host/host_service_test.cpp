#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

#include "command.h"
#include "plug_in.h"
#include "program_folder.h"

// tessahost.exe through the real service manager, with small plug-ins.
namespace {

using test_support::CommandResult;
using test_support::ProgramFolder;
using test_support::RunCommand;

class HostService : public testing::Test {
  protected:
    HostService() {
        Run(L"uninstall");  // what an aborted test may have left
        ::DeleteFileW(log_.c_str());
    }
    ~HostService() override { Run(L"uninstall"); }

    CommandResult Run(const std::wstring& command) {
        return RunCommand(L"tessahost.exe " + command + L" --name tessahost_unit_test");
    }
    CommandResult Install(const std::wstring& plugIn) {
        return Run(L"install --plugin " + plugIn + L" --log \"" + log_ + L"\"");
    }
    std::string HostLog() const {
        std::ifstream file(std::string(log_.begin(), log_.end()), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    bool LogHas(const std::string& text) const { return HostLog().find(text) != std::string::npos; }

    std::wstring log_ = L"C:\\windows\\temp\\tessahost_unit_test.log";
};

std::string TextOf(const std::wstring& path) {
    try {
        const host::PlugIn plugIn(path);
    } catch (const host::PlugInError& error) {
        return error.what();
    }
    return "loaded";
}

}  // namespace

TEST(HostPlugIn, IsLoadedByItsThreeExports) {
    const host::PlugIn plugIn(ProgramFolder() + L"plug_in_works.dll");
    EXPECT_NE(plugIn.init, nullptr);
    EXPECT_NE(plugIn.cleanup, nullptr);
    EXPECT_NE(plugIn.serviceCtrlHandler, nullptr);
}

TEST(HostPlugIn, MissingFileNamesThePath) {
    const std::string text = TextOf(L"C:\\no such\\plug_in.dll");
    EXPECT_TRUE(text.starts_with("The plug-in C:\\no such\\plug_in.dll cannot be loaded: ")) << text;
}

TEST(HostPlugIn, MissingExportIsNamedAndTheLibraryFreed) {
    const std::string text = TextOf(ProgramFolder() + L"plug_in_without_cleanup.dll");
    EXPECT_NE(text.find("is no plug-in of this host"), std::string::npos) << text;
    EXPECT_NE(text.find("tessaplug_cleanup"), std::string::npos) << text;
    EXPECT_EQ(::GetModuleHandleW(L"plug_in_without_cleanup.dll"), nullptr);
}

TEST(HostPlugIn, FileThatIsNoLibraryIsRefused) {
    const std::wstring path = L"C:\\windows\\temp\\no_library.dll";
    std::ofstream(std::string(path.begin(), path.end())) << "just text";
    EXPECT_TRUE(TextOf(path).find("cannot be loaded") != std::string::npos);
    ::DeleteFileW(path.c_str());
}

TEST_F(HostService, StartsReportsAndStopsTwice) {
    EXPECT_EQ(Install(L"plug_in_works.dll").exitCode, 0u);
    EXPECT_EQ(Install(L"plug_in_works.dll").exitCode, 4u) << "installed already";
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Run(L"start").exitCode, 0u) << HostLog();
        EXPECT_EQ(Run(L"start").exitCode, 8u) << "running already";
        EXPECT_NE(Run(L"status").output.find("state      RUNNING"), std::string::npos);
        EXPECT_NE(Run(L"status --json").output.find("\"state\":\"RUNNING\""), std::string::npos);
        EXPECT_EQ(Run(L"stop").exitCode, 0u);
        EXPECT_EQ(Run(L"stop").exitCode, 7u) << "not running";
    }
    EXPECT_TRUE(LogHas("START_PENDING  check point 7, wait hint 3000 ms")) << "the plug-in's own report";
    EXPECT_TRUE(LogHas("STOPPED"));
    EXPECT_EQ(Run(L"uninstall").exitCode, 0u);
    EXPECT_EQ(Run(L"uninstall").exitCode, 3u) << "not installed";
}

TEST_F(HostService, UninstallStopsARunningService) {
    Install(L"plug_in_works.dll");
    EXPECT_EQ(Run(L"start").exitCode, 0u);
    EXPECT_EQ(Run(L"uninstall").exitCode, 0u);
    EXPECT_TRUE(LogHas("STOPPED"));
    EXPECT_EQ(Run(L"status").exitCode, 3u);
}

TEST_F(HostService, RefusedStartEndsTheServiceWithItsOwnCode) {
    Install(L"plug_in_refuses.dll");
    const CommandResult started = Run(L"start");
    EXPECT_EQ(started.exitCode, 1u);
    EXPECT_NE(started.output.find("error 1066 (its own code: 1)"), std::string::npos) << started.output;
    EXPECT_TRUE(LogHas("The plug-in refused to start; see the Application log"));
    EXPECT_TRUE(LogHas("The plug-in is unloaded"));
}

TEST_F(HostService, PlugInThatVanishedEndsTheServiceWithTheReason) {
    const std::wstring copy = L"C:\\windows\\temp\\vanishing_plug_in.dll";
    ::CopyFileW((ProgramFolder() + L"plug_in_works.dll").c_str(), copy.c_str(), FALSE);
    Install(copy);
    ::DeleteFileW(copy.c_str());
    const CommandResult started = Run(L"start");
    EXPECT_EQ(started.exitCode, 1u);
    EXPECT_TRUE(LogHas("vanishing_plug_in.dll cannot be loaded: ")) << HostLog();
}

TEST_F(HostService, InstallRefusesAMissingPlugIn) {
    const CommandResult installed = Install(L"no_such_plug_in.dll");
    EXPECT_EQ(installed.exitCode, 1u);
    EXPECT_NE(installed.output.find("there is no plug-in"), std::string::npos) << installed.output;
    EXPECT_EQ(Run(L"status").exitCode, 3u) << "nothing half-installed";
}

TEST_F(HostService, RunByHandSaysSo) {
    const CommandResult run = Run(L"run");
    EXPECT_EQ(run.exitCode, 1u);
    EXPECT_NE(run.output.find("is for the service manager"), std::string::npos) << run.output;
}
