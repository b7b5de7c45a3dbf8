#include <KXClientFramework/KXAsioMainQueue.h>

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include <sys/syscall.h>
#include <unistd.h>

#include <memory>
#include <system_error>
#include <utility>

bool kxIsProcessInitialThread() {
    // The initial thread's id is the process id. This holds in a forked child too: the thread
    // that called fork() becomes the child's initial thread.
    return static_cast<pid_t>(::syscall(SYS_gettid)) == ::getpid();
}

KXAsioMainQueue::KXAsioMainQueue() {
    guard_.emplace(context_.get_executor());
}

KXAsioMainQueue::~KXAsioMainQueue() {
    // Queued work that never ran is destroyed with the context, without running.
    guard_.reset();
}

void KXAsioMainQueue::post(std::function<void()> work) {
    if (!work) {
        return;
    }
    postedNotRun_.fetch_add(1, std::memory_order_relaxed);
    // The count drops when the handler is destroyed, after it ran or when the context discards it.
    std::shared_ptr<void> counted(
        nullptr, [this](void*) { postedNotRun_.fetch_sub(1, std::memory_order_release); });
    asio::post(context_, [work = std::move(work), counted = std::move(counted)]() { work(); });
}

void KXAsioMainQueue::postAfter(std::chrono::milliseconds delay, std::function<void()> work) {
    if (!work) {
        return;
    }
    auto timer = std::make_shared<asio::steady_timer>(context_, delay);
    std::multiset<std::chrono::steady_clock::time_point>::iterator due;
    {
        std::lock_guard lock(delayedMutex_);
        due = delayedNotRun_.insert(timer->expiry());
    }
    timer->async_wait([this, timer, due, work = std::move(work)](const std::error_code& error) {
        {
            std::lock_guard lock(delayedMutex_);
            delayedNotRun_.erase(due);
        }
        if (!error) {
            work();
        }
    });
}

bool KXAsioMainQueue::isMainThread() const {
    return kxIsProcessInitialThread();
}

// Each way of running leaves the context ready for the next call. A stop() made while nothing
// was running is kept until the next run...() call, which then returns at once: a thread that
// asks the main loop to stop just before it starts is not ignored.
namespace {
template <typename Result>
Result leaveReady(asio::io_context& context, Result result) {
    if (context.stopped()) {
        context.restart();
    }
    return result;
}
}  // namespace

std::size_t KXAsioMainQueue::run() {
    return leaveReady(context_, context_.run());
}

std::size_t KXAsioMainQueue::runFor(std::chrono::milliseconds duration) {
    return leaveReady(context_, context_.run_for(duration));
}

bool KXAsioMainQueue::runUntil(const std::function<bool()>& done,
                               std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline || context_.stopped()) {
            return leaveReady(context_, done());
        }
        context_.run_one_until(deadline);
    }
    return leaveReady(context_, true);
}

std::size_t KXAsioMainQueue::poll() {
    return leaveReady(context_, context_.poll());
}

void KXAsioMainQueue::stop() {
    context_.stop();
}

bool KXAsioMainQueue::hasWorkDue() const {
    if (postedNotRun_.load(std::memory_order_acquire) != 0) {
        return true;
    }
    std::lock_guard lock(delayedMutex_);
    return !delayedNotRun_.empty() && *delayedNotRun_.begin() <= std::chrono::steady_clock::now();
}
