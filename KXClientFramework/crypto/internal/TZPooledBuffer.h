#pragma once

#include <KXClientFramework/KXExport.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

/// Uninitialised memory for the cryptors' input copies and output staging.
///
/// Fresh memory is expensive: every page of it faults in on first use. So buffers from 64 KiB to
/// 4 MiB come from a pool shared by all cryptors of the process and go back to it when they are
/// destroyed; a stream of pieces, and one cryptor after another, then reuse the same memory. The
/// pool only ever holds memory the cryptors had in use, keeps at most kKeptLimit of it, and frees
/// all of it once it has not been used for kIdleRelease. Other sizes are plain allocations, so
/// many tiny pieces never pin large blocks.
class KX_EXPORT TZPooledBuffer {
public:
    static constexpr std::size_t kSmallestPooled = std::size_t{64} * 1024;
    static constexpr std::size_t kLargestPooled = std::size_t{4} * 1024 * 1024;
    static constexpr std::size_t kKeptLimit = std::size_t{64} * 1024 * 1024;
    /// Long enough that a pause between streams (the next file of a batch) keeps the memory,
    /// since giving it back and faulting it in again costs more than the cipher work.
    static constexpr std::chrono::milliseconds kIdleRelease{10000};

    /// No memory.
    TZPooledBuffer() noexcept = default;
    /// At least `size` bytes; their content is unspecified.
    explicit TZPooledBuffer(std::size_t size);
    ~TZPooledBuffer();

    TZPooledBuffer(TZPooledBuffer&& other) noexcept;
    TZPooledBuffer& operator=(TZPooledBuffer&& other) noexcept;
    TZPooledBuffer(const TZPooledBuffer&) = delete;
    TZPooledBuffer& operator=(const TZPooledBuffer&) = delete;

    std::uint8_t* data() const noexcept { return bytes_.get(); }
    std::size_t capacity() const noexcept { return capacity_; }

    /// Bytes the pool holds for reuse right now.
    static std::size_t pooledBytes();

private:
    void giveBack() noexcept;

    // Uninitialised on purpose, which a std::vector would not allow.
    std::unique_ptr<std::uint8_t[]> bytes_;  // NOLINT(modernize-avoid-c-arrays)
    std::size_t capacity_ = 0;
};
