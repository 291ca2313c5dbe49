#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <dbghelp.h>
#include <gtest/gtest.h>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "chrome_trace.h"
#include "dump_file.h"
#include "exception_history.h"
#include "module_hooks.h"
#include "mutation.h"
#include "tmf_catalog.h"
#include "trace_decoder.h"
#include "version_image.h"

// Files that people send in: cut off, mixed up, of another version.
namespace {

using modul_exception::ExceptionHistory;
using tessactl::ChromeTraceWriter;
using tessactl::DumpFile;
using tessactl::RecordedMessage;
using tessactl::TmfCatalog;
using tessactl::ToolError;
using test_support::Bytes;
using test_support::Mutator;

constexpr GUID kGuid = {0x0f2b5f1e, 0x9c4d, 0x4f5a, {0x8a, 0x57, 0x6f, 0x1f, 0x0c, 0x9d, 0x1e, 0x01}};

const std::string kTmf =
    "0f2b5f1e-9c4d-4f5a-8a57-6f1f0c9d1e01 name // SRC=name.cpp MJ= MN=\r\n"
    "#typev name_cpp3 10 \"%0%10!s! is %11!d!%% of %12!I64x!, %13!p! %14!s! %15!x!\" //   LEVEL=2 "
    "FLAGS=0x1\r\n"
    "{\r\nArg, ItemWString -- 10\r\nArg, ItemLong -- 11\r\nArg, ItemULongLong -- 12\r\n"
    "Arg, ItemPtr -- 13\r\nArg, ItemString -- 14\r\nArg, ItemLong -- 15\r\n}\r\n"
    "#typev name_cpp9 11 \"%0no arguments\" //   LEVEL=5 FLAGS=0x1\r\n{\r\n}\r\n";

template <typename T>
void Append(Bytes& bytes, const T& value) {
    const auto* from = reinterpret_cast<const std::byte*>(&value);
    bytes.insert(bytes.end(), from, from + sizeof value);
}

template <typename T>
void Put(Bytes& bytes, std::size_t at, const T& value) {
    std::memcpy(bytes.data() + at, &value, sizeof value);
}

Bytes SoundArguments() {
    Bytes bytes;
    Append(bytes, L"wide text");
    Append(bytes, -7);
    Append(bytes, 0x1234567890ULL);
    Append(bytes, nullptr);
    Append(bytes, "narrow");
    Append(bytes, 255);
    return bytes;
}

RecordedMessage MessageOf(const Bytes& arguments, unsigned int number) {
    RecordedMessage message{0x01D000000000000, 1, 2, kGuid, number, {}};
    const auto* data = reinterpret_cast<const BYTE*>(arguments.data());
    message.arguments.assign(data, data + arguments.size());
    return message;
}

/// Text that is none is an error at whoever reads what the tool prints.
bool IsUtf8(const std::string& text) {
    return text.empty() || ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(),
                                                 static_cast<int>(text.length()), nullptr, 0) != 0;
}

void UseEverythingOf(const RecordedMessage& message, const TmfCatalog& catalog) {
    const auto decoded = tessactl::Decode(catalog, message);
    EXPECT_TRUE(IsUtf8(tessactl::TextLine(message, decoded)));
    ChromeTraceWriter writer;
    writer.Add(message, decoded);
    std::ostringstream chrome;
    writer.Finish(chrome);
    EXPECT_TRUE(IsUtf8(chrome.str()));
}

// The dump: its parts one after the other, the image of one module last.
constexpr ULONG64 kModuleBase = 0x180000000;
constexpr std::size_t kDirectoryAt = sizeof(MINIDUMP_HEADER);
constexpr std::size_t kStreams = 4;
constexpr std::size_t kNameAt = kDirectoryAt + kStreams * sizeof(MINIDUMP_DIRECTORY);
constexpr wchar_t kName[] = L"C:\\module.dll";
constexpr std::size_t kModulesAt = kNameAt + sizeof(ULONG32) + sizeof kName;
constexpr std::size_t kExceptionAt = kModulesAt + sizeof(ULONG32) + sizeof(MINIDUMP_MODULE);
constexpr std::size_t kThreadsAt = kExceptionAt + sizeof(MINIDUMP_EXCEPTION_STREAM);
constexpr std::size_t kRangesAt = kThreadsAt + sizeof(ULONG32);
constexpr std::size_t kImageAt = kRangesAt + 2 * sizeof(ULONG64) + sizeof(MINIDUMP_MEMORY_DESCRIPTOR64);
constexpr std::size_t kHeadersAt = 0x80;
constexpr std::size_t kSectionAt = kHeadersAt + sizeof(IMAGE_NT_HEADERS64);
constexpr std::size_t kHistoryAt = kSectionAt + sizeof(IMAGE_SECTION_HEADER);
constexpr std::size_t kResourcesAt = (kHistoryAt + sizeof(ExceptionHistory) + 3) & ~std::size_t{3};
const Bytes kResources = test_support::ResourceBytes(kResourcesAt).Bytes();
const std::size_t kImageSize = kResourcesAt + kResources.size();

void PutImage(Bytes& bytes) {
    IMAGE_DOS_HEADER dos = {};
    dos.e_magic = IMAGE_DOS_SIGNATURE;
    dos.e_lfanew = kHeadersAt;
    Put(bytes, kImageAt, dos);
    IMAGE_NT_HEADERS64 headers = {};
    headers.Signature = IMAGE_NT_SIGNATURE;
    headers.FileHeader.NumberOfSections = 1;
    headers.FileHeader.SizeOfOptionalHeader = sizeof headers.OptionalHeader;
    headers.OptionalHeader.Magic = IMAGE_NT_OPTIONAL_HDR64_MAGIC;
    headers.OptionalHeader.NumberOfRvaAndSizes = IMAGE_NUMBEROF_DIRECTORY_ENTRIES;
    headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_RESOURCE].VirtualAddress = kResourcesAt;
    Put(bytes, kImageAt + kHeadersAt, headers);
    IMAGE_SECTION_HEADER section = {};
    std::memcpy(section.Name, ".exhist", 8);
    section.VirtualAddress = kHistoryAt;
    section.Misc.VirtualSize = sizeof(ExceptionHistory);
    Put(bytes, kImageAt + kSectionAt, section);
    ExceptionHistory history = {};
    history.writeIndex = 1;
    history.records[0].threadId = 5;
    std::strcpy(history.records[0].what, "what");
    Put(bytes, kImageAt + kHistoryAt, history);
    std::ranges::copy(kResources, bytes.begin() + kImageAt + kResourcesAt);
}

Bytes SoundDump() {
    Bytes bytes(kImageAt + kImageSize);
    MINIDUMP_HEADER header = {};
    header.Signature = MINIDUMP_SIGNATURE;
    header.NumberOfStreams = kStreams;
    header.StreamDirectoryRva = kDirectoryAt;
    Put(bytes, 0, header);
    const MINIDUMP_DIRECTORY directory[kStreams] = {
        {ModuleListStream, {sizeof(MINIDUMP_MODULE), static_cast<RVA>(kModulesAt)}},
        {ExceptionStream, {sizeof(MINIDUMP_EXCEPTION_STREAM), static_cast<RVA>(kExceptionAt)}},
        {ThreadListStream, {sizeof(ULONG32), static_cast<RVA>(kThreadsAt)}},
        {Memory64ListStream, {sizeof(MINIDUMP_MEMORY_DESCRIPTOR64), static_cast<RVA>(kRangesAt)}}};
    Put(bytes, kDirectoryAt, directory);
    Put(bytes, kNameAt, ULONG32{sizeof kName - sizeof(wchar_t)});
    Put(bytes, kNameAt + sizeof(ULONG32), kName);
    Put(bytes, kModulesAt, ULONG32{1});
    MINIDUMP_MODULE module = {};
    module.BaseOfImage = kModuleBase;
    module.SizeOfImage = static_cast<ULONG32>(kImageSize);
    module.ModuleNameRva = kNameAt;
    Put(bytes, kModulesAt + sizeof(ULONG32), module);
    MINIDUMP_EXCEPTION_STREAM exception = {};
    exception.ExceptionRecord.ExceptionCode = static_cast<ULONG32>(EXCEPTION_ACCESS_VIOLATION);
    exception.ExceptionRecord.NumberParameters = 2;
    Put(bytes, kExceptionAt, exception);
    Put(bytes, kThreadsAt, ULONG32{3});
    Put(bytes, kRangesAt, ULONG64{1});
    Put(bytes, kRangesAt + sizeof(ULONG64), ULONG64{kImageAt});
    Put(bytes, kRangesAt + 2 * sizeof(ULONG64), MINIDUMP_MEMORY_DESCRIPTOR64{kModuleBase, kImageSize});
    PutImage(bytes);
    return bytes;
}

/// What a dump's modules tell, by number.
struct Told {
    std::size_t records = 0;
    std::size_t builds = 0;
};

Told UseEverythingOf(const DumpFile& dump) {
    Told told;
    for (const DumpFile::Module& module : dump.Modules()) {
        EXPECT_LE(module.path.length(), dump.Size());
        if (const auto history = dump.HistoryOf(module)) told.records += history->size();
        try {
            EXPECT_TRUE(IsUtf8(InWords(dump.BuildOf(module))));
            ++told.builds;
        } catch (const ToolError&) {
            continue;
        }
    }
    if (const auto& exception = dump.CapturedException()) {
        EXPECT_LE(exception->parameters.size(), 15u);
        static_cast<void>(dump.ModuleAt(exception->address));
    }
    unsigned int sum = 0;
    for (const std::byte byte : dump.Memory(kModuleBase + 1, kImageSize - 1))
        sum += static_cast<unsigned int>(byte);
    static_cast<void>(*const_cast<const volatile unsigned int*>(&sum));
    return told;
}

class DamagedFiles : public testing::Test {};

}  // namespace

TEST_F(DamagedFiles, RecordingsAreShownAsFarAsTheyAreSound) {
    TmfCatalog catalog;
    catalog.Add(kTmf, "name.tmf");
    const Bytes sound = SoundArguments();
    ASSERT_EQ(tessactl::Decode(catalog, MessageOf(sound, 10)).text.find("<missing>"), std::string::npos);

    test_support::ForEachCase([&](Mutator& mutator) {
        auto message = MessageOf(mutator.Damaged(sound), static_cast<unsigned int>(10 + mutator.Below(3)));
        message.timeStamp = mutator.Below(~std::size_t{0});
        if (mutator.Below(10) == 0) message.messageGuid.Data1 += 1;
        UseEverythingOf(message, catalog);
    });
}

TEST_F(DamagedFiles, TraceFormatsAreUsedOrRefusedInWords) {
    const RecordedMessage message = MessageOf(SoundArguments(), 10);
    std::size_t used = 0;
    test_support::ForEachCase([&](Mutator& mutator) {
        TmfCatalog catalog;
        try {
            catalog.Add(mutator.Damaged(kTmf), "name.tmf");
        } catch (const ToolError&) {
            return;
        }
        UseEverythingOf(message, catalog);
        ++used;
    });
    EXPECT_GT(used, 0u);
}

TEST_F(DamagedFiles, DumpsAreReadWithinTheirBytesOrRefusedInWords) {
    const Bytes sound = SoundDump();
    ASSERT_EQ(UseEverythingOf(DumpFile(sound, "sound")).records, 1u);
    ASSERT_EQ(UseEverythingOf(DumpFile(sound, "sound")).builds, 1u);
    std::size_t read = 0;
    std::size_t builds = 0;
    std::size_t refused = 0;
    test_support::ForEachCase([&](Mutator& mutator) {
        const Bytes damaged = mutator.Damaged(sound);
        try {
            builds += UseEverythingOf(DumpFile(damaged, "damaged")).builds;
            ++read;
        } catch (const ToolError&) {
            ++refused;
        }
    });
    EXPECT_GT(read, builds) << "some builds are refused, in words";
    EXPECT_GT(builds, 0u);
    EXPECT_GT(refused, 0u);
}
