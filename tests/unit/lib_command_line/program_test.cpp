#include "program.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "module_hooks.h"

using command_line::Command;
using command_line::ExitCodeMeaning;
using command_line::Program;
using command_line::UsageError;

namespace {

constexpr ExitCodeMeaning kExitCodes[] = {{0, "done", ""}, {2, "not understood", "read the help"}};

struct Result {
    int exitCode;
    std::string output;
    std::string error;
};

void RefuseX(const std::string& name, const std::wstring& value) {
    if (value == L"x") throw UsageError(name + " must not be x");
}

/// A program with a command of each kind. What a command was given is in the members.
class Tool : public testing::Test {
  protected:
    Tool() {
        Command paint = program_.Add("paint", "paints a thing\nTwice if it has to be");
        paint.Operand("THING", thing_, "what is painted");
        paint.Text("--colour", colour_, "COLOUR", "its colour", &RefuseX);
        paint.Texts("--with", with_, "TOOL", "what with");
        paint.Number("--coats", coats_, 1, 9, "NUMBER", "how many coats");
        paint.Choice("--finish", finish_, {"dull", "silk", "gloss"}, "what it looks like");
        paint.Switch("--dry", dry_, "waits until it's dry");
        paint.Runs([this] { return Called("paint"); });
        program_.Add("look", "looks").OptionalOperand("THING", thing_, "what at").Runs([this] {
            return Called("look");
        });
        program_.AddFamily("wall", "walls");
        program_.Add("wall build", "builds one").Runs([this] { return Called("wall build"); });
        program_.Add("wall break", "breaks one").Runs([]() -> int {
            throw UsageError("there is no such wall");
        });
        program_.Add("secret", "for the program itself").Hide().Runs([this] { return Called("secret"); });
    }
    Result Run(const std::vector<std::wstring>& arguments) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int exitCode = program_.Run(arguments);
        return {exitCode, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
    }
    /// That nothing was done, and what was told.
    void ExpectRefused(const std::vector<std::wstring>& arguments, const std::string& what,
                       const std::string& help) {
        const Result result = Run(arguments);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.error, "tool: " + what + "\nTry \"tool " + help + "\".\n");
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(called_, "");
    }
    int Called(const std::string& command) {
        called_ = command;
        return 42;
    }

    std::string called_;
    std::wstring thing_;
    std::wstring colour_ = L"white";
    std::vector<std::wstring> with_;
    unsigned long coats_ = 2;
    std::wstring finish_ = L"silk";
    bool dry_ = false;
    Program program_{"tool", "paints walls", kExitCodes, CP_UTF8};
};

}  // namespace

TEST_F(Tool, RunsACommandAndReturnsItsExitCode) {
    EXPECT_EQ(Run({L"look"}).exitCode, 42);
    EXPECT_EQ(called_, "look");
    EXPECT_EQ(thing_, L"");
}

TEST_F(Tool, KeepsDefaults) {
    Run({L"paint", L"door"});
    EXPECT_EQ(thing_, L"door");
    EXPECT_EQ(colour_, L"white");
    EXPECT_EQ(coats_, 2u);
    EXPECT_EQ(finish_, L"silk");
    EXPECT_FALSE(dry_);
}

TEST_F(Tool, TakesOptionsBeforeAndBehindTheOperand) {
    Run({L"paint", L"--colour", L"bl\u00e5 \x65E5\xD83D\xDE00", L"--dry", L"door", L"--coats=9", L"--with",
         L"brush", L"--with", L"roll", L"--finish", L"gloss"});
    EXPECT_EQ(called_, "paint");
    EXPECT_EQ(thing_, L"door");
    EXPECT_EQ(colour_, L"bl\u00e5 \x65E5\xD83D\xDE00");
    EXPECT_EQ(coats_, 9u);
    EXPECT_EQ(with_, (std::vector<std::wstring>{L"brush", L"roll"}));
    EXPECT_EQ(finish_, L"gloss");
    EXPECT_TRUE(dry_);
}

TEST_F(Tool, ValuesAreTakenAsTheyAre) {
    for (const std::wstring value :
         {L"[a,b]", L"/dry", L"-5", L"a\"b", L"'q'", L"%%", L" ", L"a=b", L"look", L"C:\\x\\"}) {
        Run({L"paint", L"--colour", value, L"door"});
        EXPECT_EQ(colour_, value);
        Run({L"look", L"--", value});
        EXPECT_EQ(thing_, value);
    }
}

TEST_F(Tool, RunsACommandOfAFamily) {
    EXPECT_EQ(Run({L"wall", L"build"}).exitCode, 42);
    EXPECT_EQ(called_, "wall build");
}

TEST_F(Tool, SameValueTwiceIsOneAndAnotherIsRefused) {
    EXPECT_EQ(Run({L"paint", L"door", L"--coats", L"3", L"--coats", L"3", L"--dry", L"--dry"}).exitCode, 42);
    EXPECT_EQ(coats_, 3u);
    called_.clear();
    ExpectRefused({L"paint", L"door", L"--coats", L"3", L"--coats", L"4"}, "option --coats is given twice",
                  "help paint");
    ExpectRefused({L"paint", L"door", L"--finish=dull", L"--finish=silk"}, "option --finish is given twice",
                  "help paint");
}

TEST_F(Tool, MistypedNamesAreToldWithTheNearest) {
    ExpectRefused({L"paddle", L"door"}, "unknown command paddle", "help");
    ExpectRefused({L"piant", L"door"}, "unknown command piant; did you mean \"paint\"?", "help");
    ExpectRefused({L"wall", L"buidl"}, "unknown command buidl; did you mean \"build\"?", "help wall");
    ExpectRefused({L"paint", L"--color=red", L"door"}, "unknown option --color; did you mean \"--colour\"?",
                  "help paint");
    ExpectRefused({L"paint", L"--colr", L"red"}, "unknown option --colr; did you mean \"--colour\"?",
                  "help paint");
    ExpectRefused({L"--versoin"}, "unknown option --versoin; did you mean \"--version\"?", "help");
    ExpectRefused({L"help", L"lok"}, "unknown command lok; did you mean \"look\"?", "help help");
    ExpectRefused({L"secert"}, "unknown command secert", "help");
}

TEST_F(Tool, WhatIsTooMuchIsRefused) {
    ExpectRefused({L"paint", L"door", L"window"}, "not understood: window", "help paint");
    ExpectRefused({L"look", L"--", L"a", L"b"}, "not understood: b", "help look");
    ExpectRefused({L"look", L"a", L"paint"}, "not understood: paint", "help look");
    ExpectRefused({L"wall", L"build", L"look"}, "not understood: look", "help wall build");
    ExpectRefused({L"look", L"++"}, "not understood: ++", "help");
    ExpectRefused({L"look", L"-x"}, "unknown option -x", "help look");
}

TEST_F(Tool, WhatIsMissingIsRefused) {
    ExpectRefused({}, "a command is missing", "help");
    ExpectRefused({L"paint"}, "THING is missing", "help paint");
    ExpectRefused({L"wall"}, "a command is missing behind wall: build or break", "help wall");
    ExpectRefused({L"paint", L"door", L"--coats"}, "option --coats needs a value", "help paint");
    ExpectRefused({L"paint", L"door", L"--coats="}, "option --coats needs a value", "help");
    ExpectRefused({L"paint", L"--coats=", L"door"}, "option --coats needs a value", "help");
    ExpectRefused({L"paint", L"door", L"--colour", L""}, "option --colour needs a value", "help paint");
    ExpectRefused({L"paint", L"door", L"--colour", L"--dry"}, "option --colour needs a value", "help paint");
    ExpectRefused({L"paint", L"door", L"--colour", L"-h"}, "option --colour needs a value", "help paint");
    ExpectRefused({L"look", L""}, "THING is empty", "help look");
}

TEST_F(Tool, BadValuesAreToldWithWhatIsGood) {
    for (const auto* value : {L"0", L"10", L"-1", L"2x", L"0x2", L" 2", L"+2", L"99999999999999999999"})
        ExpectRefused({L"paint", L"door", L"--coats", value},
                      "the value of --coats is a whole number from 1 to 9", "help paint");
    ExpectRefused({L"paint", L"door", L"--finish", L"mat"}, "the value of --finish is dull, silk or gloss",
                  "help paint");
    ExpectRefused({L"paint", L"door", L"--colour", L"x"}, "--colour must not be x", "help paint");
    ExpectRefused({L"paint", L"door", L"--dry=no"}, "option --dry takes no value", "help paint");
    EXPECT_EQ(coats_, 2u);
    EXPECT_EQ(colour_, L"white");
}

TEST_F(Tool, CommandMayRefuseAsWell) {
    ExpectRefused({L"wall", L"break"}, "there is no such wall", "help wall break");
}

TEST_F(Tool, HalfACharacterIsRefused) {
    ExpectRefused({L"look", L"a\xD83D"}, "an argument holds half a character: a\xEF\xBF\xBD", "help");
}

TEST_F(Tool, TellsInTheCodePageItWasGiven) {
    Program latin("tool", "paints walls", kExitCodes, 1252);
    testing::internal::CaptureStderr();
    latin.Run({L"\u00e5"});
    EXPECT_TRUE(testing::internal::GetCapturedStderr().starts_with("tool: unknown command \xE5\n"));
}

TEST_F(Tool, HelpListsWhatIsThereForPeople) {
    const std::string expected =
        "tool: paints walls\n"
        "\n"
        "  help        prints the help of the program or of a command\n"
        "  completion  prints a script by which PowerShell completes commands and options\n"
        "  paint       paints a thing\n"
        "  look        looks\n"
        "  wall build  builds one\n"
        "  wall break  breaks one\n"
        "\n"
        "\"tool help COMMAND\" tells more of a command.\n"
        "\n"
        "  -h, --help  prints this help\n"
        "  --version   prints version, commit and date of the build\n"
        "\n"
        "Exit codes:\n"
        "  0  done\n"
        "  2  not understood\n";
    for (const auto* argument : {L"help", L"--help", L"-h"}) {
        const Result result = Run({argument});
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.output, expected);
    }
}

TEST_F(Tool, HelpOfACommandTellsItsOptionsWithRangesAndDefaults) {
    const std::string expected =
        "tool paint THING [--colour COLOUR] [--with TOOL]... [--coats NUMBER] [--finish WORD] [--dry]\n"
        "\n"
        "Paints a thing. Twice if it has to be.\n"
        "\n"
        "  -h, --help       prints this help\n"
        "  THING            what is painted\n"
        "  --colour COLOUR  its colour\n"
        "  --with TOOL      what with\n"
        "  --coats NUMBER   how many coats: 1 to 9, 2 unless told otherwise\n"
        "  --finish WORD    what it looks like: dull, silk or gloss, silk unless told otherwise\n"
        "  --dry            waits until it's dry\n"
        "\n"
        "Exit codes:\n"
        "  0  done\n"
        "  2  not understood\n";
    EXPECT_EQ(Run({L"help", L"paint"}).output, expected);
    EXPECT_EQ(Run({L"paint", L"--help"}).output, expected);
    EXPECT_EQ(Run({L"paint", L"--nonsense", L"-h"}).output, expected) << "who asks may be wrong";
    EXPECT_EQ(called_, "");
}

TEST_F(Tool, HelpKnowsFamilies) {
    EXPECT_TRUE(Run({L"help", L"wall", L"build"}).output.starts_with("tool wall build\n\nBuilds one.\n"));
    const std::string family = Run({L"wall", L"--help"}).output;
    EXPECT_TRUE(family.starts_with("tool wall COMMAND\n\nWalls.\n\n  wall build  builds one\n")) << family;
}

TEST_F(Tool, LongTextsAreBroken) {
    std::string about = "begins";
    for (int i = 0; i < 30; ++i)
        about += " goes on";
    program_.Add("talk", about.c_str());
    const std::string help = Run({L"help"}).output;
    EXPECT_NE(help.find("\n              goes on"), std::string::npos) << help;
    std::size_t begin = 0;
    for (std::size_t end = help.find('\n'); end != std::string::npos; end = help.find('\n', begin)) {
        EXPECT_LE(end - begin, 100u);
        begin = end + 1;
    }
}

TEST_F(Tool, VersionIsOneLine) {
    const std::string version = Run({L"--version"}).output;
    EXPECT_TRUE(version.starts_with("tool ")) << version;
    EXPECT_NE(version.find(", commit "), std::string::npos) << version;
    EXPECT_EQ(version.find('\n'), version.length() - 1);
}

TEST_F(Tool, ManualHoldsEveryCommandAndWhatToDoForEachExitCode) {
    const std::string manual = Run({L"manual"}).output;
    EXPECT_TRUE(manual.starts_with("## tool\n\nPaints walls.\n\n### tool help\n")) << manual;
    EXPECT_NE(manual.find("### tool wall break\n\n    tool wall break\n\nBreaks one.\n\n"), std::string::npos)
        << manual;
    EXPECT_NE(manual.find("| `--coats NUMBER` | how many coats: 1 to 9, 2 unless told otherwise |\n"),
              std::string::npos);
    EXPECT_TRUE(manual.ends_with("| 2 | not understood | read the help |\n"));
    EXPECT_EQ(manual.find("secret"), std::string::npos);
}

TEST_F(Tool, CompletionOffersCommandsOptionsAndWords) {
    const Result result = Run({L"completion"});
    EXPECT_EQ(result.exitCode, 0);
    for (const auto* table : {R"(
        '' = [ordered]@{
            'help' = 'prints the help of the program or of a command'
            'completion' = 'prints a script by which PowerShell completes commands and options'
            'paint' = 'paints a thing'
            'look' = 'looks'
            'wall' = 'walls'
            '--help' = 'prints this help'
            '--version' = 'prints version, commit and date of the build'
        }
)",
                              R"(
        'paint' = [ordered]@{
            '--help' = 'prints this help'
            '--colour' = 'its colour'
            '--with' = 'what with'
            '--coats' = 'how many coats: 1 to 9, 2 unless told otherwise'
            '--finish' = 'what it looks like: dull, silk or gloss, silk unless told otherwise'
            '--dry' = 'waits until it''s dry'
        }
        'paint --colour' = [ordered]@{
        }
)",
                              R"(
        'paint --finish' = [ordered]@{
            'dull' = 'dull'
            'silk' = 'silk'
            'gloss' = 'gloss'
        }
)",
                              R"(
        'wall' = [ordered]@{
            'build' = 'builds one'
            'break' = 'breaks one'
            '--help' = 'prints this help'
        }
        'wall build' = [ordered]@{
            '--help' = 'prints this help'
        }
)"})
        EXPECT_NE(result.output.find(table), std::string::npos) << table << result.output;
    EXPECT_TRUE(result.output.starts_with("# Has PowerShell complete tool's ")) << result.output;
    for (const auto* absent : {"secret", "manual", "'help' = [", "'paint --dry'", "THING"})
        EXPECT_EQ(result.output.find(absent), std::string::npos) << absent;
}
