#include <cstdint>

#include <qel/base/btkmemory.h>

#include "support/test.h"

namespace {

struct Free
{
    void operator()(void* block) const { std::free(block); }
};
using Block = std::unique_ptr<unsigned char, Free>;

/// A block of `size` bytes that begins with the bytes of `from`.
Block resized(Block from, std::size_t kept, std::size_t size)
{
    void* const block = btkResizeBlock(from.get(), kept, size);
    EXPECT_NE(block, nullptr);
    static_cast<void>(from.release());
    return Block(static_cast<unsigned char*>(block));
}

} // namespace

TEST(btkResizeBlock, KeepsTheBeginningAtAllSizes)
{
    Block block = resized(nullptr, 0, 1);
    *block = 0xA0;
    std::size_t kept = 1;
    // Around the small and large page sizes, growing and shrinking.
    for (const std::size_t size :
         std::initializer_list<std::size_t>{17, 4096, 100000, (2 << 20) - 1, 2 << 20, (2 << 20) + 1, 9 << 20,
                                            5 << 20, 2 << 20, 300000, 8, 3 << 20}) {
        kept = std::min(kept, size);
        block = resized(std::move(block), kept, size);
        for (std::size_t i = 0; i < kept; i += kept < 9999 ? 1 : 4093)
            ASSERT_EQ(block.get()[i], static_cast<unsigned char>(0xA0 + i)) << i << " of " << size;
        kept = size;
        for (std::size_t i = 0; i < kept; ++i)
            block.get()[i] = static_cast<unsigned char>(0xA0 + i);
    }
}

TEST(btkResizeBlock, KeepsTheBlockWhenMemoryRunsOut)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers end the program instead";
#endif
    Block block = resized(nullptr, 0, 100);
    std::memset(block.get(), 7, 100);
    EXPECT_EQ(btkResizeBlock(block.get(), 100, SIZE_MAX / 2), nullptr);
    EXPECT_EQ(btkResizeBlock(block.get(), 100, SIZE_MAX), nullptr);
    EXPECT_EQ(block.get()[99], 7);
}

TEST(btkExpectUse, DoesNotChangeTheContent)
{
    constexpr std::size_t size = 5 << 20;
    const Block block = resized(nullptr, 0, size);
    std::memset(block.get(), 9, size);
    errno = 17;
    btkExpectUse(block.get() + 1, size - 2); // not at the bounds of pages
    btkExpectUse(block.get(), 3);
    EXPECT_EQ(errno, 17);
    for (std::size_t i = 0; i < size; i += 997)
        ASSERT_EQ(block.get()[i], 9);
}
