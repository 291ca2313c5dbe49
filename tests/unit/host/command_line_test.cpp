#include "command_line.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "module_hooks.h"

using host::ExitCode;
using host::Options;

namespace {

/// Records which command was called with what.
class Handlers : public host::CommandHandlersIf {
  public:
    ExitCode Install(const Options& options) override { return Record(L"install", options); }
    ExitCode Uninstall(const Options& options) override { return Record(L"uninstall", options); }
    ExitCode Start(const Options& options) override { return Record(L"start", options); }
    ExitCode Stop(const Options& options) override { return Record(L"stop", options); }
    ExitCode Restart(const Options& options) override { return Record(L"restart", options); }
    ExitCode Status(const Options& options) override { return Record(L"status", options); }
    ExitCode Run(const Options& options) override { return Record(L"run", options); }

    std::wstring called;
    Options options;

  private:
    ExitCode Record(const wchar_t* command, const Options& given) {
        called = command;
        options = given;
        return ExitCode::kNotRunning;
    }
};

class CommandLine : public testing::Test {
  protected:
    ExitCode Run(const std::vector<std::wstring>& arguments) {
        return host::RunCommandLine(arguments, handlers_);
    }
    Handlers handlers_;
};

}  // namespace

TEST_F(CommandLine, CallsTheCommandAndReturnsItsResult) {
    for (const std::wstring command :
         {L"install", L"uninstall", L"start", L"stop", L"restart", L"status", L"run"}) {
        EXPECT_EQ(Run({command}), ExitCode::kNotRunning);
        EXPECT_EQ(handlers_.called, command);
    }
}

TEST_F(CommandLine, HasDefaults) {
    Run({L"install"});
    EXPECT_EQ(handlers_.options.name, L"tessahost");
    EXPECT_EQ(handlers_.options.plugIn, L"");
    EXPECT_EQ(handlers_.options.log, L"");
    EXPECT_EQ(handlers_.options.stopTimeOut, 60u);
    EXPECT_EQ(handlers_.options.logSize, 2048u);
    EXPECT_EQ(handlers_.options.logKeep, 2u);
    EXPECT_FALSE(handlers_.options.automaticStart);
    EXPECT_FALSE(handlers_.options.delayedStart);
    EXPECT_FALSE(handlers_.options.json);
}

TEST_F(CommandLine, TakesEveryOption) {
    Run({L"install", L"--name", L"n", L"--display-name", L"d", L"--plugin", L"p.dll", L"--log", L"l.log",
         L"--auto", L"--stop-timeout", L"5", L"--log-size", L"1048576", L"--log-keep", L"0"});
    EXPECT_EQ(handlers_.options.name, L"n");
    EXPECT_EQ(handlers_.options.displayName, L"d");
    EXPECT_EQ(handlers_.options.plugIn, L"p.dll");
    EXPECT_EQ(handlers_.options.log, L"l.log");
    EXPECT_EQ(handlers_.options.stopTimeOut, 5u);
    EXPECT_EQ(handlers_.options.logSize, 1048576u);
    EXPECT_EQ(handlers_.options.logKeep, 0u);
    EXPECT_TRUE(handlers_.options.automaticStart);
    EXPECT_FALSE(handlers_.options.delayedStart);
    Run({L"status", L"--json"});
    EXPECT_TRUE(handlers_.options.json);
}

TEST_F(CommandLine, TakesTheCommandLineOfAnInstalledService) {
    Run({L"run", L"--name", L"n", L"--plugin", L"C:\\p q.dll", L"--stop-timeout", L"7", L"--log-size", L"16",
         L"--log-keep", L"3", L"--log", L"C:\\Ger\u00e4t \x65E5.log"});
    EXPECT_EQ(handlers_.called, L"run");
    EXPECT_EQ(handlers_.options.name, L"n");
    EXPECT_EQ(handlers_.options.plugIn, L"C:\\p q.dll");
    EXPECT_EQ(handlers_.options.stopTimeOut, 7u);
    EXPECT_EQ(handlers_.options.logSize, 16u);
    EXPECT_EQ(handlers_.options.logKeep, 3u);
    EXPECT_EQ(handlers_.options.log, L"C:\\Ger\u00e4t \x65E5.log");
}

TEST_F(CommandLine, RefusesOptionsOfOtherCommands) {
    EXPECT_EQ(Run({L"start", L"--auto"}), ExitCode::kUsage);
    EXPECT_EQ(Run({L"install", L"--json"}), ExitCode::kUsage);
    EXPECT_EQ(Run({L"run", L"--display-name", L"d"}), ExitCode::kUsage);
    EXPECT_EQ(handlers_.called, L"");
}

TEST_F(CommandLine, RefusesWhatItDoesNotKnow) {
    EXPECT_EQ(Run({}), ExitCode::kUsage);
    EXPECT_EQ(Run({L"instal"}), ExitCode::kUsage);
    EXPECT_EQ(Run({L"install", L"--plug-in", L"x"}), ExitCode::kUsage);
    EXPECT_EQ(Run({L"install", L"--plugin"}), ExitCode::kUsage);
    EXPECT_EQ(Run({L"install", L"--plugin", L""}), ExitCode::kUsage);
    EXPECT_EQ(Run({L"install", L"--name", L"a\" b"}), ExitCode::kUsage);
    EXPECT_EQ(Run({L"install", L"--log", L"C:\\logs\\"}), ExitCode::kUsage);
    EXPECT_EQ(handlers_.called, L"");
}

TEST_F(CommandLine, DelayedStartIsAnAutomaticOne) {
    Run({L"install", L"--delayed-auto"});
    EXPECT_TRUE(handlers_.options.automaticStart);
    EXPECT_TRUE(handlers_.options.delayedStart);
}

TEST_F(CommandLine, RefusesNumbersOutOfRange) {
    for (const wchar_t* value : {L"4", L"3601", L"-5", L"5x", L"0x10", L" 60", L"99999999999999999999"})
        EXPECT_EQ(Run({L"install", L"--stop-timeout", value}), ExitCode::kUsage)
            << testing::PrintToString(value);
    EXPECT_EQ(handlers_.called, L"");
    for (const wchar_t* value : {L"15", L"1048577"})
        EXPECT_EQ(Run({L"install", L"--log-size", value}), ExitCode::kUsage);
    EXPECT_EQ(Run({L"install", L"--log-keep", L"100"}), ExitCode::kUsage);
    EXPECT_EQ(Run({L"install", L"--log-keep", L"none"}), ExitCode::kUsage);
    EXPECT_EQ(Run({L"install", L"--log-keep"}), ExitCode::kUsage);
    EXPECT_EQ(handlers_.called, L"");
}

TEST_F(CommandLine, HelpTellsOfEveryCommandButTheServiceManagersOwn) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(Run({L"help"}), ExitCode::kSuccess);
    const std::string help = testing::internal::GetCapturedStdout();
    for (const std::string command : {"install", "uninstall", "start", "stop", "restart", "status"})
        EXPECT_NE(help.find("\n  " + command + " "), std::string::npos) << command;
    EXPECT_EQ(help.find("\n  run "), std::string::npos);
    EXPECT_NE(help.find("\n  9  stopped, but its process had to be ended"), std::string::npos) << help;
}
