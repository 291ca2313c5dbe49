#include "allocations.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> count = 0;
std::atomic<std::size_t> largest = 0;

}  // namespace

void* operator new(std::size_t size) {
    ++count;
    largest = std::max(largest.load(), size);  // another thread's may get lost
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace test_support {

Allocations TakeAllocations() {
    return {count.exchange(0), largest.exchange(0)};
}

}  // namespace test_support
