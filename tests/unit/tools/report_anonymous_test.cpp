#include "report_anonymous.h"

#include <windows.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <string>

#include "test_registry.h"

using tessactl::AddAccount;
using tessactl::Anonymiser;
using tessactl::Json;
using tessactl::PrivateNames;

namespace {

const Anonymiser& Plant() {
    static const Anonymiser anonymiser(
        {{L"anna", L"J\u00f6rg", L""}, {L"STATION7", L"STATION7.plant.example"}});
    return anonymiser;
}

TEST(Anonymous, KnownNamesGoAsWholeWordsInAnyCase) {
    EXPECT_EQ(Plant().Without("Anna on station7: ANNA@station7.PLANT.example"),
              "<user> on <computer>: <user>@<computer>");
    EXPECT_EQ(Plant().Without("j\xc3\x96rg, dump_anna.dmp"), "<user>, dump_<user>.dmp");
    for (const auto* stays : {"annabelle and STATION77", "anna\xc3\xa4 and \xc3\xa4nna", "Johanna"})
        EXPECT_EQ(Plant().Without(stays), stays);
}

TEST(Anonymous, StrangersGoByTheirProfileOrServer) {
    EXPECT_EQ(Plant().Without(R"(c:\USERS\Otto Meier\x.txt)"), R"(c:\USERS\<user>\x.txt)");
    EXPECT_EQ(Plant().Without(R"("C:\Documents and Settings\otto" "C:\Users\otto")"),
              R"("C:\Documents and Settings\<user>" "C:\Users\<user>")");
    EXPECT_EQ(Plant().Without(R"(C:\Users\otto;C:\Users\emil, 'C:\Users\max')"),
              R"(C:\Users\<user>;C:\Users\<user>, 'C:\Users\<user>')");
    EXPECT_EQ(Plant().Without("file:///C:/Users/otto/x.txt"), "file:///C:/Users/<user>/x.txt");
    EXPECT_EQ(Plant().Without(R"(C:\Users\Publicola\x)"), R"(C:\Users\<user>\x)");
    EXPECT_EQ(Plant().Without(R"(\\fileserver\share\x)"), R"(\\<computer>\share\x)");
    EXPECT_EQ(Plant().Without("S-1-5-21-1-2-3-1001 has it, S-1-12-1-4-5 too"),
              "<account> has it, <account> too");
}

TEST(Anonymous, WhatIsNobodysStays) {
    for (const auto* text : {R"(C:\Users\Public\x)", R"(C:\users\)", R"(\\?\usb#vid_1#5&2)", R"(\\.\pipe\x)",
                             "S-1-5-18", "NT AUTHORITY\\LocalService", ""})
        EXPECT_EQ(Plant().Without(text), text);
}

TEST(Anonymous, AccountsOfTheSystemAreNoNames) {
    PrivateNames names;
    for (const auto* account : {L"LocalSystem", L"NT AUTHORITY\\LocalService", L"NT SERVICE\\tessahost"})
        AddAccount(names, account);
    EXPECT_TRUE(names.users.empty() && names.computers.empty());
    AddAccount(names, L"PLANT\\svc");
    AddAccount(names, L".\\local");
    AddAccount(names, L"mail@plant.example");
    EXPECT_EQ(names.users, (std::vector<std::wstring>{L"svc", L"local", L"mail"}));
    EXPECT_EQ(names.computers, (std::vector<std::wstring>{L"PLANT", L"plant.example"}));
}

TEST(Anonymous, WordsOfTheProgramStayAlsoIfAUserHasTheirName) {
    const Anonymiser anonymiser({{L"hidden"}, {}});
    Json json = {{"points", {{{"name", "hidden"}, {"state", "hidden"}}}}, {"state", {"hidden"}}};
    anonymiser.Apply(json);
    EXPECT_EQ(json, Json({{"points", {{{"name", "<user>"}, {"state", "hidden"}}}}, {"state", {"<user>"}}}));
    for (const auto* member : {"kind", "role", "road", "start", "state", "type"}) {
        Json word = {{member, "hidden"}};
        anonymiser.Apply(word);
        EXPECT_EQ(word, Json({{member, "hidden"}}));
    }
}

TEST(Anonymous, ThisMachineHasAName) {
    const PrivateNames names = tessactl::NamesOnThisMachine();
    EXPECT_FALSE(names.computers.empty());
    EXPECT_FALSE(names.computers.front().empty());
}

TEST(Anonymous, UsersOfThisMachineAreWhoHasAProfileOnItAndWhoAsks) {
    const test_support::TestRegistry registry;
    const std::wstring list = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\";
    registry.Set(list + L"S-1-5-18", L"ProfileImagePath", L"C:\\windows\\system32\\systemprofile");
    registry.Set(list + L"S-1-5-21-1-2-3-1001", L"ProfileImagePath", L"C:\\Users\\otto");
    registry.Set(list + L"S-1-12-1-4-5", L"ProfileImagePath", L"D:\\emil");
    ::SetEnvironmentVariableW(L"USERNAME", L"max");
    std::vector<std::wstring> users = tessactl::NamesOnThisMachine().users;
    std::ranges::sort(users);
    EXPECT_EQ(users, (std::vector<std::wstring>{L"emil", L"max", L"otto"}));
}

}  // namespace
