#pragma once

#include <cstddef>
#include <ostream>
#include <string>

#include "unique_handle.h"

namespace tessactl {

/// Text that is kept until it can be written: the beginning of it in memory, and what is more in a file of
/// the temporary folder, which is gone when this is, or the program.
class SpoolFile {
  public:
    /// @param mostInMemory bytes
    explicit SpoolFile(std::size_t mostInMemory = std::size_t{4} << 20) : mostInMemory_(mostInMemory) {}

    /// @throws ToolError if it cannot be kept
    void Write(const std::string& text);
    bool IsEmpty() const { return memory_.empty() && !file_; }
    /// Writes all of it, and may be called again.
    /// @throws ToolError if it cannot be read back
    void CopyTo(std::ostream& output);

  private:
    void Spill();

    std::size_t mostInMemory_;
    std::string memory_;  // what is behind the file
    UniqueKernelHandle file_;
};

}  // namespace tessactl
