#pragma once

#include <cstddef>

namespace test_support {

/// What this program has asked of operator new, by all threads.
struct Allocations {
    std::size_t count = 0;
    std::size_t largest = 0;  ///< bytes
};

/// @return since the last call
Allocations TakeAllocations();

}  // namespace test_support
