#include "version_resource.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "text.h"

namespace tessactl {
namespace {

using Bytes = std::span<const std::byte>;

ToolError Damaged() {
    return ToolError("its version resource is damaged");
}

ToolError Missing() {
    return ToolError("it has no version resource");
}

/// Finds the first entry of a directory of resources, or the one that has the number.
/// @param root where the resources begin in the module
/// @param at where the directory is, from the root
IMAGE_RESOURCE_DIRECTORY_ENTRY FindEntry(const ModuleImage& image, ULONG64 root, DWORD at,
                                         const WORD* number) {
    IMAGE_RESOURCE_DIRECTORY directory = {};
    if (!image.Get(root + at, directory)) throw Damaged();
    const DWORD count = DWORD{directory.NumberOfNamedEntries} + directory.NumberOfIdEntries;
    for (DWORD i = 0; i < count; ++i) {
        IMAGE_RESOURCE_DIRECTORY_ENTRY entry = {};
        if (!image.Get(root + at + sizeof directory + ULONG64{i} * sizeof entry, entry)) throw Damaged();
        if (number == nullptr || (!entry.NameIsString && entry.Id == *number)) return entry;
    }
    throw Missing();
}

/// The bytes of the version resource: the first of all languages, there is one.
std::vector<std::byte> FindResource(const ModuleImage& image) {
    constexpr WORD kVersionType = 16;   // RT_VERSION
    constexpr DWORD kLargest = 0xFFFF;  // its length is a 16-bit number
    const auto headers = image.ReadHeaders();
    if (!headers) throw ToolError("it is no 64-bit program or library");
    const IMAGE_OPTIONAL_HEADER64& optional = headers->nt.OptionalHeader;
    const ULONG64 root = optional.DataDirectory[IMAGE_DIRECTORY_ENTRY_RESOURCE].VirtualAddress;
    if (optional.NumberOfRvaAndSizes <= IMAGE_DIRECTORY_ENTRY_RESOURCE || root == 0) throw Missing();
    const auto type = FindEntry(image, root, 0, &kVersionType);
    if (!type.DataIsDirectory) throw Damaged();
    const auto name = FindEntry(image, root, type.OffsetToDirectory, nullptr);
    if (!name.DataIsDirectory) throw Damaged();
    const auto language = FindEntry(image, root, name.OffsetToDirectory, nullptr);
    IMAGE_RESOURCE_DATA_ENTRY data = {};
    if (language.DataIsDirectory || !image.Get(root + language.OffsetToData, data) || data.Size > kLargest)
        throw Damaged();
    std::vector<std::byte> bytes(data.Size);
    if (!image.Copy(data.OffsetToData, bytes.data(), bytes.size())) throw Damaged();
    return bytes;
}

constexpr std::size_t Aligned(std::size_t offset) {
    return (offset + 3) & ~std::size_t{3};
}

/// What is left of the bytes from the offset on; none if it lies behind them.
Bytes From(Bytes bytes, std::size_t offset) {
    return bytes.subspan(std::min(offset, bytes.size()));
}

/// The characters up to the first zero, or to the end.
std::wstring TextOf(Bytes bytes) {
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), text.length() * sizeof(wchar_t));
    return text.substr(0, text.find(L'\0'));
}

/// One of the blocks that a version resource is made of: its length, that of its value and its kind, then its
/// name, its value and the blocks within it, each at a multiple of four bytes.
struct Block {
    std::wstring name;
    Bytes value;  ///< and what follows it
    std::size_t valueSize = 0;

    Bytes Within() const { return From(value, Aligned(valueSize)); }
};

/// Takes the first block off the others.
Block TakeBlock(Bytes& blocks) {
    constexpr std::size_t kHead = 3 * sizeof(WORD);
    WORD head[3] = {};
    if (blocks.size() < kHead) throw Damaged();
    std::memcpy(head, blocks.data(), kHead);
    const std::size_t length = head[0];
    if (length < kHead || length > blocks.size()) throw Damaged();
    const Bytes bytes = blocks.first(length);
    Block block;
    block.name = TextOf(From(bytes, kHead));
    block.value = From(bytes, Aligned(kHead + (block.name.length() + 1) * sizeof(wchar_t)));
    block.valueSize = head[1];
    blocks = From(blocks, Aligned(length));
    return block;
}

/// "21.0.0.0".
std::string NumberOf(const Block& root) {
    VS_FIXEDFILEINFO fixed = {};
    if (root.valueSize < sizeof fixed || root.value.size() < sizeof fixed) throw Damaged();
    std::memcpy(&fixed, root.value.data(), sizeof fixed);
    if (fixed.dwSignature != VS_FFI_SIGNATURE) throw Damaged();
    return VersionNumber(fixed);
}

void TakeText(BuildVersion& build, const Block& text) {
    const std::string value = Harmless(TextOf(text.value));
    if (text.name == L"ProductName") build.product = value;
    if (text.name == L"FileVersion" && !value.empty()) build.version = value;
    if (text.name == L"Commit") build.commit = value;
    if (text.name == L"BuildDate") build.date = value;
}

}  // namespace

std::string VersionNumber(const VS_FIXEDFILEINFO& fixed) {
    const auto number = [](WORD part) { return std::to_string(part); };
    return number(HIWORD(fixed.dwFileVersionMS)) + "." + number(LOWORD(fixed.dwFileVersionMS)) + "." +
           number(HIWORD(fixed.dwFileVersionLS)) + "." + number(LOWORD(fixed.dwFileVersionLS));
}

BuildVersion ReadVersionResource(const ModuleImage& image) {
    const std::vector<std::byte> resource = FindResource(image);
    Bytes all = resource;
    const Block root = TakeBlock(all);
    BuildVersion build;
    build.version = NumberOf(root);
    for (Bytes parts = root.Within(); !parts.empty();) {
        const Block part = TakeBlock(parts);
        if (part.name != L"StringFileInfo") continue;
        Bytes languages = part.Within();
        for (Bytes texts = TakeBlock(languages).Within(); !texts.empty();)
            TakeText(build, TakeBlock(texts));
    }
    return build;
}

}  // namespace tessactl
