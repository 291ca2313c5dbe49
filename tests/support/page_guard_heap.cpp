#include <windows.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

// Takes the place of the C run time's heap in the programs that link it. Every block ends at the end of a
// page, and the page behind it does not exist: reading or writing beyond a block faults at once. The pages of
// a freed block are given back and their addresses rest for a long time: using it faults, too. What a page
// cannot see, the few bytes between a block's end and its page's, and those right before the block, is
// checked when the block is freed.
//
// The linker directs malloc and its family here (--wrap), and with them operator new. Blocks that Windows'
// own libraries made come from elsewhere and are left to them.

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kArenaPages = std::size_t{1} << 20;  // 4 GB of addresses
constexpr std::size_t kAlignment = 16;
constexpr std::size_t kClasses = 17;           // slots of 1, 2, 4 ... 65536 pages
constexpr std::size_t kRestingBlocks = 20000;  // of each class, before addresses are used again
constexpr LONG kAllGuarded = 100000;           // of the first so many blocks each has its page,
constexpr LONG kSample = 8;        // of those behind only every eighth: pages cost ten microseconds
constexpr LONG kMostLive = 20000;  // each parts a mapping of the machine, which has 65530 for a process
constexpr int kFresh = 0xCD;
constexpr int kEdge = 0xFD;

enum class State : std::uint32_t { kNone, kLive, kFreed };

/// Of the page in which a block begins.
struct Block {
    std::size_t size;
    std::uint32_t sizeClass;
    State state;
};

/// Freed slots in the order in which they were freed.
struct RestingSlots {
    std::uint32_t first;
    std::uint32_t last;
    std::size_t count;
};

SRWLOCK lock = SRWLOCK_INIT;
LONG blockCount = 0;
LONG liveBlocks = 0;  // those with pages of their own
std::byte* arena = nullptr;
Block* blocks = nullptr;            // one for each page
std::uint32_t* nextSlot = nullptr;  // behind a resting one
std::size_t usedPages = 1;
RestingSlots resting[kClasses];

/// A function of the C run time's library, which the linker cannot direct here.
template <typename Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"msvcrt.dll"), name)));
}

[[noreturn]] void Fail(const char* what, const void* block) {
    char text[128];
    const int length = std::snprintf(text, sizeof text, "page guard heap: %s, block %p\n", what, block);
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), text, static_cast<DWORD>(length), &written, nullptr);
    ::TerminateProcess(::GetCurrentProcess(), 0xBAD);
    __builtin_unreachable();
}

void* Reserve(std::size_t size, DWORD how) {
    void* memory = ::VirtualAlloc(nullptr, size, how, how == MEM_RESERVE ? PAGE_NOACCESS : PAGE_READWRITE);
    if (memory == nullptr) Fail("no address space", nullptr);
    return memory;
}

void NeedArena() {
    if (arena != nullptr) return;
    blocks = static_cast<Block*>(Reserve(kArenaPages * sizeof(Block), MEM_RESERVE | MEM_COMMIT));
    nextSlot =
        static_cast<std::uint32_t*>(Reserve(kArenaPages * sizeof(std::uint32_t), MEM_RESERVE | MEM_COMMIT));
    arena = static_cast<std::byte*>(Reserve(kArenaPages * kPage, MEM_RESERVE));
}

std::uint32_t TakeRested(RestingSlots& slots) {
    const std::uint32_t slot = slots.first;
    slots.first = nextSlot[slot];
    --slots.count;
    return slot;
}

/// First page of a free slot; 0 if there is none.
std::uint32_t TakeSlot(std::size_t sizeClass) {
    RestingSlots& slots = resting[sizeClass];
    if (slots.count > kRestingBlocks) return TakeRested(slots);
    const std::size_t pages = (std::size_t{1} << sizeClass) + 1;
    if (usedPages + pages > kArenaPages) return slots.count != 0 ? TakeRested(slots) : 0;
    const auto slot = static_cast<std::uint32_t>(usedPages);
    usedPages += pages;
    return slot;
}

void GiveBack(std::uint32_t slot, std::size_t sizeClass) {
    RestingSlots& slots = resting[sizeClass];
    (slots.count == 0 ? slots.first : nextSlot[slots.last]) = slot;
    slots.last = slot;
    ++slots.count;
}

std::size_t RoundedUp(std::size_t size, std::size_t to) {
    return (size + to - 1) & ~(to - 1);
}

std::byte* PageOf(std::byte* address) {
    return arena + static_cast<std::size_t>(address - arena) / kPage * kPage;
}

Block& BlockAt(std::byte* address) {
    return blocks[static_cast<std::size_t>(address - arena) / kPage];
}

bool IsOurs(const void* block) {
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    const auto first = reinterpret_cast<std::uintptr_t>(arena);
    return arena != nullptr && address >= first && address < first + kArenaPages * kPage;
}

/// The bytes on the block's pages that are not the block's: in front of it at most kAlignment.
template <typename Use>
void ForEdges(std::byte* block, std::size_t size, std::byte* end, const Use& use) {
    const auto before = static_cast<std::size_t>(block - PageOf(block));
    const std::size_t front = before < kAlignment ? before : kAlignment;
    use(block - front, front);
    use(block + size, static_cast<std::size_t>(end - block) - size);
}

bool IsSample() {
    if (liveBlocks >= kMostLive) return false;
    const LONG number = ::InterlockedIncrement(&blockCount) & 0x7FFFFFFF;
    return number <= kAllGuarded || number % kSample == 0;
}

void* Allocate(std::size_t size, std::size_t alignment = kAlignment) {
    constexpr std::size_t kLargest = (std::size_t{1} << (kClasses - 1)) * kPage;
    if (size > kLargest - alignment || alignment > kPage || (alignment == kAlignment && !IsSample()))
        return Real<void*(std::size_t)>("malloc")(size);
    const std::size_t rounded = RoundedUp(size != 0 ? size : 1, alignment);
    const std::size_t pages = RoundedUp(rounded, kPage) / kPage;
    const auto sizeClass = static_cast<std::uint32_t>(std::bit_width(pages - 1));
    ::AcquireSRWLockExclusive(&lock);
    NeedArena();
    const std::uint32_t slot = TakeSlot(sizeClass);
    ::ReleaseSRWLockExclusive(&lock);
    if (slot == 0) return Real<void*(std::size_t)>("malloc")(size);
    std::byte* end = arena + (slot + (std::size_t{1} << sizeClass)) * kPage;
    std::byte* block = end - rounded;
    if (::VirtualAlloc(PageOf(block), pages * kPage, MEM_COMMIT, PAGE_READWRITE) == nullptr) return nullptr;
    ::InterlockedIncrement(&liveBlocks);
    BlockAt(block) = {size, sizeClass, State::kLive};
    std::memset(block, kFresh, size);
    ForEdges(block, size, end, [](std::byte* at, std::size_t length) { std::memset(at, kEdge, length); });
    return block;
}

/// The block, checked.
Block& LiveBlock(std::byte* address) {
    Block& block = BlockAt(address);
    if (block.state == State::kFreed) Fail("freed twice", address);
    if (block.state != State::kLive) Fail("not the begin of a block", address);
    return block;
}

void Free(void* memory) {
    if (!IsOurs(memory)) {
        Real<void(void*)>("free")(memory);
        return;
    }
    auto* address = static_cast<std::byte*>(memory);
    Block& block = LiveBlock(address);
    const std::size_t slotPages = std::size_t{1} << block.sizeClass;
    std::byte* end =
        PageOf(address) + RoundedUp(static_cast<std::size_t>(address - PageOf(address)) + block.size, kPage);
    if (block.size == 0) end = PageOf(address) + kPage;
    ForEdges(address, block.size, end, [memory](const std::byte* at, std::size_t length) {
        for (std::size_t i = 0; i < length; ++i)
            if (at[i] != std::byte{kEdge}) Fail("written outside", memory);
    });
    block.state = State::kFreed;
    ::InterlockedDecrement(&liveBlocks);
    const auto length = static_cast<std::size_t>(end - PageOf(address));
    ::VirtualFree(PageOf(address), length, MEM_DECOMMIT);
    const auto endPage = static_cast<std::size_t>(end - arena) / kPage;
    ::AcquireSRWLockExclusive(&lock);
    GiveBack(static_cast<std::uint32_t>(endPage - slotPages), block.sizeClass);
    ::ReleaseSRWLockExclusive(&lock);
}

}  // namespace

extern "C" {

void* __wrap_malloc(std::size_t size) {
    return Allocate(size);
}

void __wrap_free(void* block) {
    if (block != nullptr) Free(block);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) return nullptr;
    void* block = Allocate(bytes);
    if (block != nullptr) std::memset(block, 0, bytes);
    return block;
}

void* __wrap_realloc(void* block, std::size_t size) {
    if (block == nullptr) return Allocate(size);
    if (!IsOurs(block)) return Real<void*(void*, std::size_t)>("realloc")(block, size);
    const std::size_t old = LiveBlock(static_cast<std::byte*>(block)).size;
    void* moved = size != 0 ? Allocate(size) : nullptr;
    if (moved != nullptr) std::memcpy(moved, block, old < size ? old : size);
    if (moved != nullptr || size == 0) Free(block);
    return moved;
}

void* __wrap__aligned_malloc(std::size_t size, std::size_t alignment) {
    return Allocate(size, alignment < kAlignment ? kAlignment : alignment);
}

void __wrap__aligned_free(void* block) {
    if (block != nullptr) Free(block);
}

}  // extern "C"
