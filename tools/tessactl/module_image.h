#pragma once

#include <windows.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <utility>

namespace tessactl {

/// Copies memory of a process, living or dumped, or what a file would be in memory.
/// @return false if not all of it can be had
using MemoryReader = std::function<bool(ULONG64 address, void* to, std::size_t size)>;

/// A module as it lies in memory that is trusted in nothing. Nothing outside of the module is read.
class ModuleImage {
  public:
    struct Headers {
        IMAGE_NT_HEADERS64 nt = {};
        ULONG64 sectionsAt = 0;
    };

    ModuleImage(MemoryReader read, ULONG64 base, ULONG64 size)
        : read_(std::move(read)), base_(base), size_(size) {}

    /// @param offset from the module's base
    bool Copy(ULONG64 offset, void* to, std::size_t size) const {
        return offset <= size_ && size_ - offset >= size && read_(base_ + offset, to, size);
    }
    template <typename T>
    bool Get(ULONG64 offset, T& value) const {
        return Copy(offset, &value, sizeof value);
    }

    /// Nothing if it is no 64-bit image.
    std::optional<Headers> ReadHeaders() const;
    /// @return false if it is outside of the module
    bool GetSection(const Headers& headers, WORD number, IMAGE_SECTION_HEADER& section) const;

  private:
    MemoryReader read_;
    ULONG64 base_;
    ULONG64 size_;
};

}  // namespace tessactl
