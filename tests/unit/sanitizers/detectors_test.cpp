#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <string>
#include <vector>

// Each kind of damage that the build for looking at it must not let pass. Volatile, so that the compiler does
// not take away what it can see to be wrong.
namespace {

volatile std::size_t ten = 10;

class Detector : public testing::Test {
  protected:
    // Whatever the program's own destructors would do, a detector that is silent lets the statement return.
    static void Expect(const std::function<void()>& damage, const char* message = "") {
        EXPECT_DEATH(damage(), message);
    }
};

}  // namespace

TEST_F(Detector, FiresWhenABlockIsWrittenBehindItsEnd) {
    Expect([] {
        auto* block = static_cast<volatile char*>(std::malloc(16));
        block[16] = 1;
    });
}

TEST_F(Detector, FiresWhenABlockIsReadBehindItsEnd) {
    Expect([] {
        const std::unique_ptr<volatile char[]> block(new volatile char[ten * 16]);
        volatile char read = block[ten * 16];
        static_cast<void>(read);
    });
}

TEST_F(Detector, FiresWhenTheLastBytesOfAPageAreWritten) {
    Expect(
        [] {
            auto* block = static_cast<volatile char*>(std::malloc(ten));
            block[ten] = 1;
            std::free(const_cast<char*>(block));
        },
        "written outside");
}

TEST_F(Detector, FiresWhenABlockIsWrittenBeforeItsBegin) {
    Expect(
        [] {
            auto* block = static_cast<volatile char*>(std::malloc(ten));
            block[static_cast<std::ptrdiff_t>(ten) - 11] = 1;
            std::free(const_cast<char*>(block));
        },
        "written outside");
}

TEST_F(Detector, FiresWhenAFreedBlockIsUsed) {
    Expect([] {
        auto* block = static_cast<volatile char*>(std::malloc(ten));
        std::free(const_cast<char*>(block));
        static_cast<void>(block[0]);
    });
}

TEST_F(Detector, FiresWhenABlockThatWasMovedIsUsed) {
    Expect([] {
        auto* block = static_cast<volatile char*>(std::malloc(ten));
        static_cast<void>(std::realloc(const_cast<char*>(block), ten * 100));
        block[0] = 1;
    });
}

TEST_F(Detector, FiresWhenABlockIsFreedTwice) {
    Expect(
        [] {
            void* volatile block = std::malloc(ten);
            std::free(block);
            std::free(block);
        },
        "freed twice");
}

TEST_F(Detector, FiresWhenAnObjectIsUsedAfterItsEnd) {
    Expect([] {
        auto* object = new volatile int(1);
        delete object;
        static_cast<void>(*object);
    });
}

TEST_F(Detector, FiresAtSignedOverflow) {
    volatile int most = std::numeric_limits<int>::max();
    Expect([&most] { most = most + 1; });
}

TEST_F(Detector, FiresAtMisalignedAccess) {
    alignas(8) char bytes[16] = {};
    // Not through a volatile one, which is not checked.
    int* volatile number = reinterpret_cast<int*>(bytes + ten - 9);
    Expect([&number] { *number = 1; });
}

TEST_F(Detector, FiresAtAShiftThatIsTooFar) {
    volatile int one = 1;
    Expect([&one] { one = one << (ten + 30); });
}

TEST_F(Detector, FiresAtAnIndexBehindAnArray) {
    volatile int numbers[4] = {};
    Expect([&numbers] { numbers[ten] = 1; });
}

TEST_F(Detector, FiresAtAnIndexBehindAVector) {
    std::vector<int> numbers(4);
    numbers.reserve(100);
    Expect([&numbers] { numbers[ten] = 1; });
}

TEST(GuardHeap, BehavesLikeAHeap) {
    std::vector<std::string> texts;
    for (std::size_t size = 0; size < 20000; size += 97) {
        auto* block = static_cast<char*>(std::calloc(size, 1));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<std::size_t>(block) % 16, 0u);
        for (std::size_t i = 0; i < size; ++i)
            ASSERT_EQ(block[i], 0);
        std::memset(block, 'x', size);
        auto* grown = static_cast<char*>(std::realloc(block, size * 2 + 1));
        ASSERT_NE(grown, nullptr);
        block = grown;
        EXPECT_EQ(std::string(block, size), std::string(size, 'x'));
        texts.emplace_back(block, size);
        std::free(block);
    }
    EXPECT_EQ(texts.back().size(), 19982u);
    std::free(nullptr);
    EXPECT_EQ(std::calloc(std::numeric_limits<std::size_t>::max() / ten, ten * 2), nullptr);
}

TEST(GuardHeap, LastsForManyMoreBlocksThanMayRest) {
    for (int i = 0; i < 60000; ++i) {
        void* volatile block = std::malloc(static_cast<std::size_t>(i % 500) + 1);
        ASSERT_NE(block, nullptr);
        std::free(block);
    }
}
