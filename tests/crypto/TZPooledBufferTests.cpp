#include "crypto/internal/TZPooledBuffer.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

constexpr std::size_t kMiB = std::size_t{1024} * 1024;

TEST(TZPooledBuffer, ReleasedBlocksAreReusedButNeverForMuchSmallerPieces) {
    ASSERT_EQ(TZPooledBuffer::pooledBytes(), 0u);
    std::uint8_t* released = nullptr;
    {
        TZPooledBuffer buffer(kMiB);
        ASSERT_GE(buffer.capacity(), kMiB);
        released = buffer.data();
    }
    EXPECT_GE(TZPooledBuffer::pooledBytes(), kMiB);
    {
        // A piece a quarter of the size does not pin the block...
        TZPooledBuffer quarter(kMiB / 4);
        EXPECT_NE(quarter.data(), released);
        // ...while a piece of about the same size gets the same memory back.
        TZPooledBuffer again(kMiB - 100);
        EXPECT_EQ(again.data(), released);
    }

    // Small pieces are plain allocations and never kept.
    const std::size_t kept = TZPooledBuffer::pooledBytes();
    { TZPooledBuffer small(100); }
    EXPECT_EQ(TZPooledBuffer::pooledBytes(), kept);
}

TEST(TZPooledBuffer, KeepsNoMoreThanItsLimitAndFreesEverythingOnceIdle) {
    {
        std::vector<TZPooledBuffer> inFlight;
        for (std::size_t total = 0; total <= TZPooledBuffer::kKeptLimit + 8 * kMiB;
             total += TZPooledBuffer::kLargestPooled) {
            inFlight.emplace_back(TZPooledBuffer::kLargestPooled);
        }
    }
    EXPECT_EQ(TZPooledBuffer::pooledBytes(), TZPooledBuffer::kKeptLimit);

    // Blocks larger than the largest pooled size are never kept.
    { TZPooledBuffer huge(TZPooledBuffer::kLargestPooled + 1); }
    EXPECT_EQ(TZPooledBuffer::pooledBytes(), TZPooledBuffer::kKeptLimit);

    const auto deadline =
        std::chrono::steady_clock::now() + TZPooledBuffer::kIdleRelease + std::chrono::seconds(10);
    while (TZPooledBuffer::pooledBytes() != 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(TZPooledBuffer::pooledBytes(), 0u);
}
