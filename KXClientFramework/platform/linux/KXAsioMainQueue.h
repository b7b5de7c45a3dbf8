#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXMainQueue.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>

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

    asio::io_context& context() { return context_; }

private:
    asio::io_context context_;
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> guard_;
};

/// True on the process's initial thread (the main thread), from any thread.
KX_EXPORT bool kxIsProcessInitialThread();
