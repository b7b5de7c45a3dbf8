#include "crypto/internal/TZPooledBuffer.h"

#include "crypto/internal/TZCryptorQueues.h"

#include <asio/steady_timer.hpp>

#include <iterator>
#include <mutex>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// Pooled blocks are whole multiples of this size.
constexpr std::size_t kGranule = TZPooledBuffer::kSmallestPooled;

bool isPoolSized(std::size_t capacity) noexcept {
    return capacity >= TZPooledBuffer::kSmallestPooled &&
           capacity <= TZPooledBuffer::kLargestPooled;
}

struct Block {
    std::unique_ptr<std::uint8_t[]> bytes;  // NOLINT(modernize-avoid-c-arrays)
    std::size_t capacity = 0;
};

class Pool {
public:
    // The smallest kept block of at least `size` bytes that is not more than twice as large
    // (a small piece must not pin a large block), the most recently returned one of those, as it
    // is the likeliest to be in cache; an empty block when there is none.
    Block take(std::size_t size) {
        std::lock_guard lock(mutex_);
        lastUse_ = Clock::now();
        auto best = kept_.rend();
        for (auto it = kept_.rbegin(); it != kept_.rend(); ++it) {
            if (it->capacity >= size && it->capacity / 2 <= size &&
                (best == kept_.rend() || it->capacity < best->capacity)) {
                best = it;
            }
        }
        if (best == kept_.rend()) {
            return {};
        }
        Block block = std::move(*best);
        kept_.erase(std::next(best).base());
        keptBytes_ -= block.capacity;
        return block;
    }

    // Keeps `block` when there is room; otherwise it is freed.
    void giveBack(Block block) {
        std::lock_guard lock(mutex_);
        lastUse_ = Clock::now();
        if (keptBytes_ + block.capacity > TZPooledBuffer::kKeptLimit) {
            return;
        }
        keptBytes_ += block.capacity;
        kept_.push_back(std::move(block));
        scheduleRelease();
    }

    std::size_t keptBytes() {
        std::lock_guard lock(mutex_);
        return keptBytes_;
    }

private:
    // With the mutex held: makes sure a check for idleness is pending while blocks are kept.
    void scheduleRelease() {
        if (releaseScheduled_) {
            return;
        }
        releaseScheduled_ = true;
        timer_.expires_at(lastUse_ + TZPooledBuffer::kIdleRelease);
        timer_.async_wait([this](const std::error_code&) { releaseIfIdle(); });
    }

    void releaseIfIdle() {
        std::vector<Block> released;  // freed after the mutex is let go
        std::lock_guard lock(mutex_);
        releaseScheduled_ = false;
        if (kept_.empty()) {
            return;
        }
        if (Clock::now() - lastUse_ >= TZPooledBuffer::kIdleRelease) {
            released.swap(kept_);
            keptBytes_ = 0;
        } else {
            scheduleRelease();
        }
    }

    std::mutex mutex_;
    std::vector<Block> kept_;
    std::size_t keptBytes_ = 0;
    Clock::time_point lastUse_;
    bool releaseScheduled_ = false;
    asio::steady_timer timer_{TZNewSerialQueue()};
};

// Created on first use and never destroyed: buffers may still come back while the process exits.
Pool& pool() {
    static Pool* const shared = new Pool();
    return *shared;
}

}  // namespace

TZPooledBuffer::TZPooledBuffer(std::size_t size) {
    if (size == 0) {
        return;
    }
    std::size_t capacity = size;
    if (isPoolSized(size)) {
        capacity = (size + kGranule - 1) / kGranule * kGranule;
        Block block = pool().take(capacity);
        if (block.bytes) {
            bytes_ = std::move(block.bytes);
            capacity_ = block.capacity;
            return;
        }
    }
    bytes_.reset(new std::uint8_t[capacity]);
    capacity_ = capacity;
}

TZPooledBuffer::~TZPooledBuffer() {
    giveBack();
}

TZPooledBuffer::TZPooledBuffer(TZPooledBuffer&& other) noexcept
    : bytes_(std::move(other.bytes_)), capacity_(std::exchange(other.capacity_, 0)) {}

TZPooledBuffer& TZPooledBuffer::operator=(TZPooledBuffer&& other) noexcept {
    if (this != &other) {
        giveBack();
        bytes_ = std::move(other.bytes_);
        capacity_ = std::exchange(other.capacity_, 0);
    }
    return *this;
}

void TZPooledBuffer::giveBack() noexcept {
    if (bytes_ && isPoolSized(capacity_)) {
        try {
            pool().giveBack(Block{std::move(bytes_), capacity_});
        } catch (...) {
            // The pool could not record the block (out of memory): it is simply freed.
        }
    }
    bytes_.reset();
    capacity_ = 0;
}

std::size_t TZPooledBuffer::pooledBytes() {
    return pool().keptBytes();
}
