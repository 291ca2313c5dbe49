#include "module_image.h"

namespace tessactl {

std::optional<ModuleImage::Headers> ModuleImage::ReadHeaders() const {
    IMAGE_DOS_HEADER dos = {};
    Headers headers;
    if (!Get(0, dos) || dos.e_magic != IMAGE_DOS_SIGNATURE) return std::nullopt;
    const auto at = static_cast<ULONG64>(dos.e_lfanew);  // a negative one lies outside as well
    if (!Get(at, headers.nt) || headers.nt.Signature != IMAGE_NT_SIGNATURE ||
        headers.nt.OptionalHeader.Magic != IMAGE_NT_OPTIONAL_HDR64_MAGIC)
        return std::nullopt;
    headers.sectionsAt =
        at + offsetof(IMAGE_NT_HEADERS64, OptionalHeader) + headers.nt.FileHeader.SizeOfOptionalHeader;
    return headers;
}

bool ModuleImage::GetSection(const Headers& headers, WORD number, IMAGE_SECTION_HEADER& section) const {
    return Get(headers.sectionsAt + ULONG64{number} * sizeof section, section);
}

}  // namespace tessactl
