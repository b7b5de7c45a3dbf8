#include <KXClientFramework/KXBackgroundQueue.h>

#include <asio/post.hpp>

#include <algorithm>
#include <utility>

KXBackgroundQueue::KXBackgroundQueue(std::size_t threads)
    : pool_(std::max<std::size_t>(threads, 1)) {}

KXBackgroundQueue::~KXBackgroundQueue() {
    shutdown();
}

void KXBackgroundQueue::post(std::function<void()> work) {
    if (!work || shutDown_.load()) {
        return;
    }
    asio::post(pool_, std::move(work));
}

asio::any_io_executor KXBackgroundQueue::executor() {
    return pool_.get_executor();
}

KXSerialQueue KXBackgroundQueue::makeSerialQueue() {
    return asio::make_strand(executor());
}

bool KXBackgroundQueue::isBackgroundThread() const {
    // The pool's scheduler marks the threads that are running it; a strand of this pool runs
    // its handlers on those same threads.
    return const_cast<asio::thread_pool&>(pool_).get_executor().running_in_this_thread();
}

void KXBackgroundQueue::shutdown() {
    // Work that has not started is dropped; work that is running finishes. A pool thread
    // cannot wait for itself, so from inside the pool this only stops it and the owner's
    // destructor does the waiting.
    if (shutDown_.exchange(true)) {
        return;
    }
    pool_.stop();
    if (!isBackgroundThread()) {
        pool_.join();
    }
}
