#include "crypto/internal/TZCryptorQueues.h"

#include <asio/post.hpp>

#include <algorithm>
#include <thread>

KXSerialQueue TZNewSerialQueue() {
    // Created on first use and deliberately never destroyed: cryptors may still be finishing
    // while the process exits, and joining their threads from a static destructor could wait
    // on work that needs objects already torn down.
    static asio::thread_pool* const pool = [] {
        const unsigned cores = std::max(2u, std::min(4u, std::thread::hardware_concurrency()));
        return new asio::thread_pool(cores);
    }();
    return asio::make_strand(asio::any_io_executor(pool->get_executor()));
}
