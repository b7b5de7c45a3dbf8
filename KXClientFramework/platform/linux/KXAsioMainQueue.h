#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXMainQueue.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <set>

/// The default main queue: an asio::io_context that the application runs on its initial thread.
///
///     auto& queue = KXLinuxPlatform::defaultMainQueue();
///     queue.run();                 // until stop()
///     queue.runFor(16ms);          // a slice of a game loop
///     queue.poll();                // only what is ready now
class KX_EXPORT KXAsioMainQueue final : public KXMainQueue {
public:
    KXAsioMainQueue();
    ~KXAsioMainQueue() override;

    void post(std::function<void()> work) override;
    void postAfter(std::chrono::milliseconds delay, std::function<void()> work) override;
    bool isMainThread() const override;

    /// Runs queued work until stop() is called. Returns the number of handlers run.
    std::size_t run();
    /// Runs queued work for at most `duration`.
    std::size_t runFor(std::chrono::milliseconds duration);
    /// Runs until `done()` is true (checked after each handler) or `timeout` passed; returns
    /// whether `done()` became true.
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
    /// Runs the work that is ready now, without waiting.
    std::size_t poll();
    /// Makes run() return; later run() calls work again.
    void stop();

    /// True while work posted with post() has not run yet, or work posted with postAfter() has
    /// come due and not run yet. Work whose delay has not passed does not count, so a queue with
    /// only a far-off timer is idle. Safe from any thread.
    bool hasWorkDue() const;

    asio::io_context& context() { return context_; }

private:
    // Declared before the context: handlers it discards on destruction still update them.
    std::atomic<std::size_t> postedNotRun_{0};
    mutable std::mutex delayedMutex_;
    std::multiset<std::chrono::steady_clock::time_point> delayedNotRun_;
    asio::io_context context_;
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard_;
};

/// True on the process's initial thread (the main thread), from any thread.
KX_EXPORT bool kxIsProcessInitialThread();
