#pragma once

#include <mutex>
#include <utility>

/// A value that any thread may read or replace: every access takes the value's own mutex.
/// Reads return a copy, so the caller never holds the lock while it uses the value. A replaced
/// value is destroyed after the lock is released.
template <typename T>
class KXGuarded {
public:
    KXGuarded() = default;
    explicit KXGuarded(T value) : value_(std::move(value)) {}

    KXGuarded(const KXGuarded&) = delete;
    KXGuarded& operator=(const KXGuarded&) = delete;

    T get() const {
        std::lock_guard lock(mutex_);
        return value_;
    }

    void set(T value) {
        {
            std::lock_guard lock(mutex_);
            std::swap(value_, value);
        }
    }

    /// Runs `change` on the value under the lock and returns its result.
    template <typename Change>
    decltype(auto) modify(Change&& change) {
        std::lock_guard lock(mutex_);
        return std::forward<Change>(change)(value_);
    }

private:
    mutable std::mutex mutex_;
    T value_{};
};
