#include "file_version.h"

#include <windows.h>

#include <optional>
#include <vector>

#include "module_image.h"
#include "text.h"
#include "unique_handle.h"
#include "version_resource.h"

namespace tessactl {
namespace {

bool ReadAt(HANDLE file, ULONG64 offset, void* to, std::size_t size) {
    OVERLAPPED place = {};
    place.Offset = static_cast<DWORD>(offset);
    place.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD read = 0;
    return ::ReadFile(file, to, static_cast<DWORD>(size), &read, &place) && read == size;
}

/// Where in the file that stands which a section has in memory.
std::optional<ULONG64> PlaceInSection(const IMAGE_SECTION_HEADER& section, ULONG64 address,
                                      std::size_t size) {
    if (address < section.VirtualAddress) return std::nullopt;
    const ULONG64 offset = address - section.VirtualAddress;
    if (offset > section.SizeOfRawData || section.SizeOfRawData - offset < size) return std::nullopt;
    return section.PointerToRawData + offset;
}

std::vector<IMAGE_SECTION_HEADER> SectionsOf(const ModuleImage& image, const ModuleImage::Headers& headers) {
    std::vector<IMAGE_SECTION_HEADER> sections(headers.nt.FileHeader.NumberOfSections);
    for (WORD i = 0; i < headers.nt.FileHeader.NumberOfSections; ++i)
        if (!image.GetSection(headers, i, sections[i])) throw ToolError("it is cut off");
    return sections;
}

}  // namespace

BuildVersion ReadFileVersion(const std::wstring& path) {
    // Nobody who updates the file meanwhile is held up.
    const UniqueKernelHandle file(::CreateFileW(path.c_str(), GENERIC_READ,
                                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                                nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size = {};
    if (!file || !::GetFileSizeEx(file.get(), &size))
        throw ToolError("it cannot be opened: " + ErrorInWords(::GetLastError()));
    const MemoryReader asItStands = [&file](ULONG64 at, void* to, std::size_t length) {
        return ReadAt(file.get(), at, to, length);
    };
    const ModuleImage headersOnly(asItStands, 0, static_cast<ULONG64>(size.QuadPart));
    const auto headers = headersOnly.ReadHeaders();
    if (!headers) throw ToolError("it is no 64-bit program or library");
    const auto sections = SectionsOf(headersOnly, *headers);
    const MemoryReader asLoaded = [&](ULONG64 address, void* to, std::size_t length) {
        if (address + length <= headers->nt.OptionalHeader.SizeOfHeaders)
            return asItStands(address, to, length);
        for (const IMAGE_SECTION_HEADER& section : sections)
            if (const auto place = PlaceInSection(section, address, length))
                return asItStands(*place, to, length);
        return false;
    };
    return ReadVersionResource({asLoaded, 0, headers->nt.OptionalHeader.SizeOfImage});
}

}  // namespace tessactl
