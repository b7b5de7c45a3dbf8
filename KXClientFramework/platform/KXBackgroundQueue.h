#pragma once

#include <KXClientFramework/KXExport.h>

#include <asio/any_io_executor.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>

#include <atomic>
#include <cstddef>
#include <functional>

/// A serial queue: work posted to it runs one item at a time, in order, on background threads.
using KXSerialQueue = asio::strand<asio::any_io_executor>;

/// The background queue on which repeating timers tick and serial queues run: a small pool of
/// threads owned by the platform.
class KX_EXPORT KXBackgroundQueue {
public:
    explicit KXBackgroundQueue(std::size_t threads = 2);
    ~KXBackgroundQueue();

    KXBackgroundQueue(const KXBackgroundQueue&) = delete;
    KXBackgroundQueue& operator=(const KXBackgroundQueue&) = delete;

    /// Runs `work` on one of the pool's threads, concurrently with other work.
    void post(std::function<void()> work);

    /// The pool's executor, for asio timers and strands.
    asio::any_io_executor executor();

    /// A new serial queue on this pool.
    KXSerialQueue makeSerialQueue();

    /// True when called on one of this pool's threads.
    bool isBackgroundThread() const;

    /// Stops accepting work and waits for running work to finish; work that has not started is
    /// dropped. Called by the destructor; later calls do nothing.
    void shutdown();

private:
    asio::thread_pool pool_;
    std::atomic<bool> shutDown_{false};
};
