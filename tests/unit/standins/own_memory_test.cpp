#include <windows.h>

#include <cstring>
#include <gtest/gtest.h>

#include "wine_gap_fixture.h"

namespace {

class OwnMemory : public WineGap {
  protected:
    OwnMemory() : page_(::VirtualAlloc(nullptr, kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE)) {
        std::memset(page_, 0x5A, kPage);
    }
    ~OwnMemory() override { ::VirtualFree(page_, 0, MEM_RELEASE); }

    void Protect(DWORD protection) {
        DWORD before = 0;
        ASSERT_TRUE(::VirtualProtect(page_, kPage, protection, &before));
    }
    BOOL Read(SIZE_T offset, SIZE_T size) {
        read_ = 0;
        return ::ReadProcessMemory(::GetCurrentProcess(), static_cast<BYTE*>(page_) + offset, copy_, size,
                                   &read_);
    }

    static constexpr SIZE_T kPage = 0x1000;
    void* page_;
    BYTE copy_[2 * kPage] = {};
    SIZE_T read_ = 0;
};

}  // namespace

TEST_F(OwnMemory, IsReadByTheProcessItself) {
    MEMORY_BASIC_INFORMATION function = {};
    ASSERT_NE(::VirtualQuery(reinterpret_cast<void*>(&::ReadProcessMemory), &function, sizeof function), 0u);
    EXPECT_EQ(function.AllocationBase, ::GetModuleHandleW(L"winegap.dll"));

    EXPECT_TRUE(Read(8, kPage - 8));
    EXPECT_EQ(read_, kPage - 8);
    EXPECT_EQ(std::memcmp(copy_, static_cast<BYTE*>(page_) + 8, kPage - 8), 0);
}

TEST_F(OwnMemory, ThatIsNotThereCannotBeRead) {
    EXPECT_FALSE(::ReadProcessMemory(::GetCurrentProcess(), nullptr, copy_, 1, &read_));
}

TEST_F(OwnMemory, GuardPageStaysOne) {
    Protect(PAGE_READWRITE | PAGE_GUARD);
    read_ = 1;
    EXPECT_FALSE(Read(0, 1));
    EXPECT_EQ(::GetLastError(), DWORD{ERROR_PARTIAL_COPY});
    EXPECT_EQ(read_, 0u);
    MEMORY_BASIC_INFORMATION region = {};
    ASSERT_NE(::VirtualQuery(page_, &region, sizeof region), 0u);
    EXPECT_EQ(region.Protect, DWORD{PAGE_READWRITE | PAGE_GUARD});
}
