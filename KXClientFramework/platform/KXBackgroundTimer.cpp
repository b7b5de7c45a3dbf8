#include <KXClientFramework/KXBackgroundTimer.h>
#include <KXClientFramework/KXPlatform.h>

#include <asio/steady_timer.hpp>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

using Clock = std::chrono::steady_clock;

// The shared state outlives the timer object while a wait is pending; handlers hold it weakly.
// Every transition bumps `generation`, so a wait armed before a suspend or cancel finds itself
// stale when it completes and does nothing.
struct KXBackgroundTimer::State : std::enable_shared_from_this<State> {
    State(const asio::any_io_executor& executor, double seconds, std::function<void()> completion)
        : timer(executor),
          intervalSeconds(seconds),
          interval(std::chrono::duration_cast<Clock::duration>(
              std::chrono::duration<double>(seconds > 0 ? seconds : 0))),
          block(std::move(completion)),
          nextDeadline(Clock::now()) {}

    void arm() {
        timer.expires_at(nextDeadline);
        timer.async_wait([weak = weak_from_this(), armed = generation](const std::error_code& ec) {
            if (auto self = weak.lock()) {
                self->fire(armed, ec);
            }
        });
    }

    bool isCurrent(std::uint64_t armed) const {
        return armed == generation && running && !cancelled;
    }

    void fire(std::uint64_t armed, const std::error_code& ec) {
        std::function<void()> work;
        {
            std::lock_guard lock(mutex);
            if (ec || !isCurrent(armed)) {
                return;
            }
            ++activeBlocks;
            blockThread = std::this_thread::get_id();
            work = block;
        }
        if (work) {
            work();
        }
        std::lock_guard lock(mutex);
        --activeBlocks;
        blockThread = {};
        idle.notify_all();
        if (!isCurrent(armed)) {
            return;
        }
        if (interval <= Clock::duration::zero()) {
            running = false;  // a zero interval fires once per resume
            return;
        }
        // Missed firings are coalesced into one immediate firing.
        nextDeadline = std::max(nextDeadline + interval, Clock::now());
        arm();
    }

    std::mutex mutex;
    std::condition_variable idle;
    asio::steady_timer timer;
    const double intervalSeconds;
    const Clock::duration interval;
    std::function<void()> block;
    Clock::time_point nextDeadline;
    std::uint64_t generation = 0;
    bool running = false;
    bool cancelled = false;
    int activeBlocks = 0;
    std::thread::id blockThread;
};

KXBackgroundTimer::KXBackgroundTimer(double intervalSeconds, std::function<void()> completionBlock)
    : state_(std::make_shared<State>(KXPlatform::current().backgroundQueue().executor(),
                                     intervalSeconds, std::move(completionBlock))) {}

KXBackgroundTimer::~KXBackgroundTimer() {
    std::unique_lock lock(state_->mutex);
    state_->cancelled = true;
    state_->running = false;
    ++state_->generation;
    state_->timer.cancel();
    // A block running on another thread may still use its owner: wait for it to return.
    state_->idle.wait(lock, [this] {
        return state_->activeBlocks == 0 || state_->blockThread == std::this_thread::get_id();
    });
}

void KXBackgroundTimer::resume() {
    std::lock_guard lock(state_->mutex);
    if (state_->cancelled || state_->running) {
        return;
    }
    state_->running = true;
    ++state_->generation;
    // The timer starts at its creation, so the first firing after a resume is due at once.
    state_->nextDeadline = std::max(state_->nextDeadline, Clock::now());
    state_->arm();
}

void KXBackgroundTimer::suspend() {
    std::lock_guard lock(state_->mutex);
    if (!state_->running) {
        return;
    }
    state_->running = false;
    ++state_->generation;
    state_->timer.cancel();
}

void KXBackgroundTimer::cancel() {
    std::lock_guard lock(state_->mutex);
    state_->cancelled = true;
    state_->running = false;
    ++state_->generation;
    state_->timer.cancel();
}

bool KXBackgroundTimer::isRunning() const {
    std::lock_guard lock(state_->mutex);
    return state_->running;
}

void KXBackgroundTimer::setRunning(bool running) {
    if (running) {
        resume();
    } else {
        suspend();
    }
}

bool KXBackgroundTimer::isCancelled() const {
    std::lock_guard lock(state_->mutex);
    return state_->cancelled;
}

bool KXBackgroundTimer::isFiringDue() const {
    std::lock_guard lock(state_->mutex);
    return state_->running && !state_->cancelled &&
           (state_->activeBlocks > 0 || state_->nextDeadline <= Clock::now());
}

double KXBackgroundTimer::interval() const {
    return state_->intervalSeconds;
}
