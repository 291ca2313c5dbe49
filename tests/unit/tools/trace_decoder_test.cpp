#include "trace_decoder.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "json.h"
#include "module_hooks.h"

using tessactl::Decode;
using tessactl::RecordedMessage;
using tessactl::TmfCatalog;
using tessactl::ToolError;

namespace {

constexpr GUID kGuid = {0x0f2b5f1e, 0x9c4d, 0x4f5a, {0x8a, 0x57, 0x6f, 0x1f, 0x0c, 0x9d, 0x1e, 0x01}};

constexpr char kTmf[] =
    "0f2b5f1e-9c4d-4f5a-8a57-6f1f0c9d1e01 name // SRC=name.cpp MJ= MN=\n"
    "#typev name_cpp3 10 \"%0%10!s! is %11!d!%% of %12!I64x!, %13!p! %14!s! %15!u! %16!x!\" //   LEVEL=2 "
    "FLAGS=0x1\n"
    "{\nArg, ItemWString -- 10\nArg, ItemLong -- 11\nArg, ItemULongLong -- 12\nArg, ItemPtr -- 13\n"
    "Arg, ItemString -- 14\nArg, ItemLong -- 15\nArg, ItemLong -- 16\n}\n"
    "#typev name_cpp9 11 \"%0no arguments\" //   LEVEL=5 FLAGS=0x1\n{\n}\n";
template <typename T>
void Append(std::vector<BYTE>& bytes, const T& value) {
    const auto* from = reinterpret_cast<const BYTE*>(&value);
    bytes.insert(bytes.end(), from, from + sizeof value);
}

class Decoder : public testing::Test {
  protected:
    Decoder() { catalog_.Add(kTmf, "name.tmf"); }
    TmfCatalog catalog_;
};

}  // namespace

TEST_F(Decoder, PrintsEveryKindOfArgument) {
    RecordedMessage message{0, 1, 2, kGuid, 10, {}};
    Append(message.arguments, L"wide");
    Append(message.arguments, -7);
    Append(message.arguments, 0x1234567890ULL);
    Append(message.arguments, reinterpret_cast<void*>(0xABC));
    Append(message.arguments, "narrow");
    Append(message.arguments, 4000000000U);
    Append(message.arguments, 255);

    const auto decoded = Decode(catalog_, message);

    EXPECT_EQ(decoded.text, "wide is -7% of 1234567890, 0x0000000000000abc narrow 4000000000 ff");
    EXPECT_EQ(decoded.source, "name");
    EXPECT_EQ(decoded.level, 2u);
}

TEST_F(Decoder, TextIsUtf8WhateverItWas) {
    ASSERT_EQ(::GetACP(), 1252u);
    RecordedMessage message{0, 1, 2, kGuid, 10, {}};
    Append(message.arguments, L"\u03A9");
    Append(message.arguments, 0);
    Append(message.arguments, 0ULL);
    Append(message.arguments, static_cast<void*>(nullptr));
    Append(message.arguments, "\xE4");
    const std::string text = Decode(catalog_, message).text;
    EXPECT_TRUE(text.starts_with("\xCE\xA9 is 0")) << text;
    EXPECT_NE(text.find(" \xC3\xA4 "), std::string::npos) << text;
}

TEST(Json, TextOfForeignBytesIsUtf8) {
    EXPECT_EQ(tessactl::JsonText("a\xFF\"\n"), "\"a\xEF\xBF\xBD\\\"\\n\"");
}

TEST_F(Decoder, MissingArgumentsAreShownAsSuch) {
    RecordedMessage message{0, 1, 2, kGuid, 10, {}};
    Append(message.arguments, L"wide");
    message.arguments.push_back(1);  // not a whole number
    EXPECT_TRUE(Decode(catalog_, message).text.starts_with("wide is <missing>% of <missing>"));
    message.arguments = {'w', 0, 'i'};  // a text without its end
    EXPECT_TRUE(Decode(catalog_, message).text.starts_with("<missing> is <missing>"));
}

TEST_F(Decoder, UnknownMessagesAreShownWithTheirBytes) {
    const RecordedMessage unknownNumber{0, 1, 2, kGuid, 99, {0xAB, 0x01}};
    EXPECT_EQ(Decode(catalog_, unknownNumber).text,
              "unknown message 99 of {0F2B5F1E-9C4D-4F5A-8A57-6F1F0C9D1E01}, bytes: ab 01");
    const RecordedMessage unknownGuid{0, 1, 2, {}, 10, {}};
    EXPECT_EQ(Decode(catalog_, unknownGuid).text,
              "unknown message 10 of {00000000-0000-0000-0000-000000000000}, bytes:");
}

TEST_F(Decoder, FunctionOfATracePointIsToldWhereItIsAskedFor) {
    catalog_.Add(
        "0f2b5f1e-9c4d-4f5a-8a57-6f1f0c9d1e02 other // SRC=other.cpp MJ= MN=\n"
        "#typev other_cpp3 10 \"%0said\" //   LEVEL=4 FLAGS=0x1 FUNC=space::Class::Says\n{\n}\n",
        "other.tmf");
    GUID guid = kGuid;
    guid.Data4[7] = 2;
    const RecordedMessage message{0, 1, 2, guid, 10, {}};
    const auto decoded = Decode(catalog_, message);
    EXPECT_EQ(decoded.function, "space::Class::Says");
    EXPECT_TRUE(TextLine(message, decoded, true).ends_with("  space::Class::Says: said"));
    EXPECT_TRUE(TextLine(message, decoded).ends_with("  said"));
    const RecordedMessage without{0, 1, 2, kGuid, 11, {}};
    EXPECT_TRUE(TextLine(without, Decode(catalog_, without), true).ends_with("  no arguments"));
}

TEST(RecordingHead, BuffersThatWereWrittenOverAreThoseBeyondTheLimit) {
    tessactl::RecordingHead head{65536, 20, 0, 0, 1 << 20, true};
    EXPECT_EQ(head.BuffersReplaced(), 4u);
    head.buffersWritten = 16;
    EXPECT_EQ(head.BuffersReplaced(), 0u);
    head.buffersWritten = 20;
    head.isCircular = false;
    EXPECT_EQ(head.BuffersReplaced(), 0u);
    EXPECT_EQ(tessactl::RecordingHead{}.BuffersReplaced(), 0u) << "of a former version";
}

TEST(TmfCatalog, RefusesWhatItDoesNotUnderstand) {
    TmfCatalog catalog;
    EXPECT_THROW(catalog.Add("", "empty.tmf"), ToolError);
    EXPECT_THROW(catalog.Add("no guid // SRC=\n", "bad.tmf"), ToolError);
    EXPECT_THROW(catalog.Add(std::string(kTmf) + "garbage\n", "bad.tmf"), ToolError);
    EXPECT_THROW(catalog.Add(std::string(kTmf) + std::string(5000, 'x') + "\n", "long.tmf"), ToolError);
    EXPECT_THROW(catalog.Add(std::string(kTmf) + "#typev n 10 \"%0x\" //   LEVEL=99999999999999999999\n",
                             "number.tmf"),
                 ToolError);
    EXPECT_THROW(TmfCatalog::FromFolder(L"C:\\no such folder"), ToolError);
}

TEST(Recording, FileThatIsMissingIsRefused) {
    tessactl::RecordingHead head;
    EXPECT_THROW(tessactl::ReadRecording(L"C:\\no such file.etl", head, [](const RecordedMessage&) {}),
                 ToolError);
}
