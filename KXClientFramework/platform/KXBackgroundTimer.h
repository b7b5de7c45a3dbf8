#pragma once

#include <KXClientFramework/KXExport.h>

#include <functional>
#include <memory>

/// A repeating timer whose block runs on the platform's background queue, never on the main
/// thread. Created suspended; resume() fires the block at once and then every interval.
/// Suspending and resuming may alternate freely; cancel() is final. Destroying the timer
/// cancels it and waits for a running block to finish (unless called from that block).
class KX_EXPORT KXBackgroundTimer {
public:
    KXBackgroundTimer(double intervalSeconds, std::function<void()> completionBlock);
    ~KXBackgroundTimer();

    KXBackgroundTimer(const KXBackgroundTimer&) = delete;
    KXBackgroundTimer& operator=(const KXBackgroundTimer&) = delete;

    void resume();
    void suspend();
    void cancel();

    bool isRunning() const;
    /// Resumes (true) or suspends (false), so the flag always tells whether the timer runs.
    void setRunning(bool running);
    bool isCancelled() const;
    /// True while the timer runs and a firing is due or its block is running: what an idle
    /// check waits for.
    bool isFiringDue() const;
    double interval() const;

private:
    struct State;
    std::shared_ptr<State> state_;
};
