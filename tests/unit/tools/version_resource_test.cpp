#include "version_resource.h"

#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "module_hooks.h"
#include "program_folder.h"
#include "text.h"
#include "version_image.h"

using tessactl::BuildVersion;
using tessactl::ReadVersionResource;
using tessactl::ToolError;

namespace {

constexpr ULONG64 kBase = 0x180000000;
constexpr DWORD kHeadersAt = 0x80;
constexpr DWORD kResourcesAt = 0x200;
constexpr DWORD kDirectoryAt =
    kHeadersAt + offsetof(IMAGE_NT_HEADERS64, OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_RESOURCE]);
constexpr DWORD kCountAt = kHeadersAt + offsetof(IMAGE_NT_HEADERS64, OptionalHeader.NumberOfRvaAndSizes);

/// A module with nothing but headers and a version. Whoever reads outside of it is told on.
class Module {
  public:
    Module() : bytes_(kResourcesAt) {
        IMAGE_DOS_HEADER dos = {};
        dos.e_magic = IMAGE_DOS_SIGNATURE;
        dos.e_lfanew = kHeadersAt;
        Put(0, dos);
        IMAGE_NT_HEADERS64 nt = {};
        nt.Signature = IMAGE_NT_SIGNATURE;
        nt.OptionalHeader.Magic = IMAGE_NT_OPTIONAL_HDR64_MAGIC;
        nt.OptionalHeader.NumberOfRvaAndSizes = IMAGE_NUMBEROF_DIRECTORY_ENTRIES;
        nt.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_RESOURCE].VirtualAddress = kResourcesAt;
        Put(kHeadersAt, nt);
        const test_support::ResourceBytes resources(kResourcesAt);
        bytes_.insert(bytes_.end(), resources.Bytes().begin(), resources.Bytes().end());
    }

    BuildVersion Read() const {
        const auto read = [this](ULONG64 address, void* to, std::size_t size) {
            const bool isInside =
                address >= kBase && size <= bytes_.size() && address - kBase <= bytes_.size() - size;
            EXPECT_TRUE(isInside) << std::hex << address << " " << size;
            if (isInside) std::memcpy(to, bytes_.data() + (address - kBase), size);
            return isInside;
        };
        return ReadVersionResource({read, kBase, bytes_.size()});
    }
    std::string Refusal() const {
        try {
            Read();
        } catch (const ToolError& error) {
            return error.what();
        }
        return "none";
    }
    template <typename T>
    void Put(std::size_t at, const T& value) {
        std::memcpy(bytes_.data() + at, static_cast<const void*>(&value), sizeof value);
    }
    /// Where a text of the version begins.
    std::size_t Find(const std::wstring& text) const {
        for (std::size_t at = kResourcesAt; at + text.length() * sizeof(wchar_t) <= bytes_.size(); at += 2)
            if (std::memcmp(bytes_.data() + at, text.data(), text.length() * sizeof(wchar_t)) == 0) return at;
        ADD_FAILURE() << "no " << tessactl::Utf8(text);
        return kResourcesAt;
    }

    std::vector<std::byte> bytes_;
};

constexpr char kDamaged[] = "its version resource is damaged";
constexpr char kMissing[] = "it has no version resource";
constexpr std::size_t kLengthBeforeName = 3 * sizeof(WORD);

/// One text of a file's version, by the system's own functions.
std::string TextByTheSystem(const std::vector<BYTE>& version, const std::wstring& name) {
    void* text = nullptr;
    UINT length = 0;
    if (!::VerQueryValueW(version.data(), (L"\\StringFileInfo\\040904B0\\" + name).c_str(), &text, &length))
        return "none";
    return tessactl::Utf8(static_cast<const wchar_t*>(text));
}

}  // namespace

TEST(VersionResource, TellsTheBuild) {
    EXPECT_EQ(Module().Read(), (BuildVersion{"a product", "a version", "a commit", "a date"}));
}

TEST(VersionResource, NumberStandsInForAVersionThatHasNoText) {
    Module module;
    module.Put(module.Find(L"FileVersion"), L'X');
    EXPECT_EQ(module.Read(), (BuildVersion{"a product", "1.2.3.4", "a commit", "a date"}));
}

TEST(VersionResource, WhatATerminalWouldObeyIsReplaced) {
    Module module;
    module.Put(module.Find(L"a commit"), L'\x1B');
    module.Put(module.Find(L"a date"), L'\x9B');
    EXPECT_EQ(module.Read().commit, "? commit");
    EXPECT_EQ(module.Read().date, "? date");
}

TEST(VersionResource, ThatIsNotThereIsMissing) {
    Module noDirectory;
    noDirectory.Put(kDirectoryAt, DWORD{0});
    EXPECT_EQ(noDirectory.Refusal(), kMissing);
    Module fewDirectories;
    fewDirectories.Put(kCountAt, DWORD{IMAGE_DIRECTORY_ENTRY_RESOURCE});
    EXPECT_EQ(fewDirectories.Refusal(), kMissing);
    Module otherType;
    otherType.Put(kResourcesAt + sizeof(IMAGE_RESOURCE_DIRECTORY), DWORD{17});
    EXPECT_EQ(otherType.Refusal(), kMissing);
    Module named;
    named.Put(kResourcesAt + sizeof(IMAGE_RESOURCE_DIRECTORY), DWORD{0x80000010});
    EXPECT_EQ(named.Refusal(), kMissing);
}

TEST(VersionResource, WhatIsNoImageHasNone) {
    Module module;
    module.Put(0, WORD{0});
    EXPECT_EQ(module.Refusal(), "it is no 64-bit program or library");
}

TEST(VersionResource, ThatLiesOutsideOfTheModuleIsDamaged) {
    Module outside;
    outside.Put(kDirectoryAt, DWORD{0xFFFFFFF0});
    EXPECT_EQ(outside.Refusal(), kDamaged);
    Module endless;
    endless.Put(kResourcesAt + offsetof(IMAGE_RESOURCE_DIRECTORY, NumberOfNamedEntries), DWORD{0xFFFFFFFF});
    endless.Put(kResourcesAt + sizeof(IMAGE_RESOURCE_DIRECTORY), DWORD{17});
    EXPECT_EQ(endless.Refusal(), kDamaged);
}

TEST(VersionResource, DirectoryThatLeadsToItselfIsDamaged) {
    Module module;
    module.Put(kResourcesAt + sizeof(IMAGE_RESOURCE_DIRECTORY) + sizeof(DWORD), DWORD{0x80000000});
    EXPECT_EQ(module.Refusal(), kDamaged);
}

TEST(VersionResource, BlockWithoutALengthOrLongerThanItsParentIsDamaged) {
    for (const auto* name : {L"VS_VERSION_INFO", L"StringFileInfo", L"040904B0", L"Commit"})
        for (const WORD length : {WORD{0}, WORD{5}, WORD{0xFFFF}}) {
            Module module;
            module.Put(module.Find(name) - kLengthBeforeName, length);
            EXPECT_EQ(module.Refusal(), kDamaged) << tessactl::Utf8(name) << " " << length;
        }
}

TEST(VersionResource, WithoutItsSignatureIsDamaged) {
    Module module;
    module.Put(module.Find(L"VS_VERSION_INFO") + 34, DWORD{0});
    EXPECT_EQ(module.Refusal(), kDamaged);
}

TEST(VersionResource, CutOffOrDamagedModuleIsReadNowhereOutside) {
    const Module whole;
    for (std::size_t size = 0; size < whole.bytes_.size(); size += 3) {
        Module cut;
        cut.bytes_.resize(size);
        EXPECT_NE(cut.Refusal(), "none") << size;
    }
    std::mt19937 random(7);
    for (int i = 0; i < 20000; ++i) {
        Module module;
        for (int n = 0; n < 3; ++n)
            module.bytes_[kHeadersAt + random() % (module.bytes_.size() - kHeadersAt)] =
                static_cast<std::byte>(random());
        module.Refusal();
    }
}

TEST(VersionResource, OfALoadedModuleIsThatWhichTheSystemReadsInItsFile) {
    const std::wstring path = test_support::ProgramFolder() + L"tessaplug.dll";
    DWORD ignored = 0;
    std::vector<BYTE> version(::GetFileVersionInfoSizeW(path.c_str(), &ignored));
    ASSERT_TRUE(::GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(version.size()), version.data()));
    const HMODULE loaded = ::LoadLibraryExW(path.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
    ASSERT_NE(loaded, nullptr);
    const auto read = [](ULONG64 address, void* to, std::size_t size) {
        SIZE_T done = 0;
        return ::ReadProcessMemory(::GetCurrentProcess(), reinterpret_cast<const void*>(address), to, size,
                                   &done) &&
               done == size;
    };
    constexpr ULONG64 kMore = 0x10000000;  // than it has
    EXPECT_EQ(
        ReadVersionResource({read, reinterpret_cast<ULONG64>(loaded), kMore}),
        (BuildVersion{TextByTheSystem(version, L"ProductName"), TextByTheSystem(version, L"FileVersion"),
                      TextByTheSystem(version, L"Commit"), TextByTheSystem(version, L"BuildDate")}));
    ::FreeLibrary(loaded);
}
