#include "kit_list.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using kitrun::KitError;
using kitrun::KitList;
using kitrun::KitTest;
using kitrun::Matches;
using kitrun::ParseArguments;
using kitrun::ParseList;

namespace {

KitTest Named(const std::string& label, const std::string& name) {
    KitTest test;
    test.label = label;
    test.name = name;
    return test;
}

}  // namespace

TEST(KitList, HasAVersionAndATestOnEachLine) {
    const KitList list = ParseList(
        "tessaplug 1.2, commit abc\r\n"
        "plain\tSuite.Test\t60\ta.exe\t--gtest_filter=Suite.Test\t\r\n"
        "driver\tB.C/0\t300\tb.exe\t\"--x=y z\"\tTZ=IST-5:30\r\n");
    EXPECT_EQ(list.version, "tessaplug 1.2, commit abc");
    ASSERT_EQ(list.tests.size(), 2u);
    EXPECT_EQ(list.tests[0].label, "plain");
    EXPECT_EQ(list.tests[0].environment, "");
    EXPECT_EQ(list.tests[1].name, "B.C/0");
    EXPECT_EQ(list.tests[1].seconds, 300u);
    EXPECT_EQ(list.tests[1].program, "b.exe");
    EXPECT_EQ(list.tests[1].arguments, "\"--x=y z\"");
    EXPECT_EQ(list.tests[1].environment, "TZ=IST-5:30");
}

TEST(KitList, LineThatIsNoTestIsToldAndNotPassedOver) {
    for (const char* line : {"plain\tA.B\t60\ta.exe\t", "plain\tA.B\tsoon\ta.exe\t\t",
                             "odd\tA.B\t60\ta.exe\t\t", "plain\tA.B\t60\ta.exe\t\t\tmore"})
        EXPECT_THROW(ParseList(std::string("version\n") + line + "\n"), KitError) << line;
}

TEST(KitSelection, WithoutArgumentsEverythingIsWanted) {
    const auto all = ParseArguments({});
    for (const std::string& label : kitrun::kLabels)
        EXPECT_TRUE(all.Wants(Named(label, "A.B")));
    EXPECT_TRUE(all.WantsLife());
    EXPECT_FALSE(all.force);
}

TEST(KitSelection, LabelsAndNamesNarrowItDown) {
    const auto service = ParseArguments({"service", "life"});
    EXPECT_TRUE(service.Wants(Named("service", "A.B")));
    EXPECT_FALSE(service.Wants(Named("plain", "A.B")));
    EXPECT_TRUE(service.WantsLife());
    const auto named = ParseArguments({"A.*", "*.X", "/force"});
    EXPECT_TRUE(named.Wants(Named("plain", "A.B")));
    EXPECT_TRUE(named.Wants(Named("driver", "C.X")));
    EXPECT_FALSE(named.Wants(Named("plain", "C.B")));
    EXPECT_FALSE(named.WantsLife());
    EXPECT_TRUE(named.force);
    const auto both = ParseArguments({"plain", "A.*"});
    EXPECT_TRUE(both.Wants(Named("plain", "A.B")));
    EXPECT_FALSE(both.Wants(Named("plain", "B.B")));
    EXPECT_FALSE(both.Wants(Named("driver", "A.B")));
}

TEST(KitSelection, OptionThatThereIsNotIsRefused) {
    EXPECT_THROW(ParseArguments({"/fast"}), KitError);
    EXPECT_THROW(ParseArguments({"--gtest_filter=*"}), KitError);
    EXPECT_TRUE(ParseArguments({"/?"}).help);
}

TEST(KitPattern, HasStarsAndQuestionMarks) {
    EXPECT_TRUE(Matches("A.B", "A.B"));
    EXPECT_FALSE(Matches("A.B", "A.BC"));
    EXPECT_FALSE(Matches("A.BC", "A.B"));
    EXPECT_TRUE(Matches("*", ""));
    EXPECT_TRUE(Matches("*Stop*", "Host.StopIsSwift"));
    EXPECT_FALSE(Matches("*Stop", "Host.StopIsSwift"));
    EXPECT_TRUE(Matches("A.?", "A.B"));
    EXPECT_FALSE(Matches("A.?", "A."));
}
