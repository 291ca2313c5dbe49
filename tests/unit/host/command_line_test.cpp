#include "command_line.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

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
    for (const std::wstring command : {L"install", L"uninstall", L"start", L"stop", L"status", L"run"}) {
        EXPECT_EQ(Run({command}), ExitCode::kNotRunning);
        EXPECT_EQ(handlers_.called, command);
    }
}

TEST_F(CommandLine, HasDefaults) {
    Run({L"install"});
    EXPECT_EQ(handlers_.options.name, L"tessahost");
    EXPECT_EQ(handlers_.options.plugIn, L"");
    EXPECT_EQ(handlers_.options.log, L"");
    EXPECT_FALSE(handlers_.options.automaticStart);
    EXPECT_FALSE(handlers_.options.json);
}

TEST_F(CommandLine, TakesEveryOption) {
    Run({L"install", L"--name", L"n", L"--display-name", L"d", L"--plugin", L"p.dll", L"--log", L"l.log",
         L"--auto", L"--json"});
    EXPECT_EQ(handlers_.options.name, L"n");
    EXPECT_EQ(handlers_.options.displayName, L"d");
    EXPECT_EQ(handlers_.options.plugIn, L"p.dll");
    EXPECT_EQ(handlers_.options.log, L"l.log");
    EXPECT_TRUE(handlers_.options.automaticStart);
    EXPECT_TRUE(handlers_.options.json);
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

TEST_F(CommandLine, HelpSucceeds) {
    EXPECT_EQ(Run({L"help"}), ExitCode::kSuccess);
}
