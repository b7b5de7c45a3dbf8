#include <KXClientFramework/KXBackgroundTimer.h>
#include <KXClientFramework/KXPlatform.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace std::chrono_literals;

namespace {

// Waits (generously) until `condition` holds; the timeout only bounds a failing test.
bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(1ms);
    }
    return condition();
}

}  // namespace

TEST(KXBackgroundTimer, FiresAtOnceOnResumeOnABackgroundThread) {
    std::atomic<int> ticks{0};
    std::atomic<bool> onBackground{false};
    std::atomic<bool> onMain{true};
    KXBackgroundTimer timer(3600.0, [&] {
        onBackground = KXPlatform::current().backgroundQueue().isBackgroundThread();
        onMain = KXPlatform::current().mainQueue().isMainThread();
        ++ticks;
    });
    EXPECT_FALSE(timer.isRunning());
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(ticks, 0) << "a new timer is suspended";

    timer.resume();
    // With an hour's interval, only the immediate first tick can arrive.
    ASSERT_TRUE(eventually([&] { return ticks == 1; }));
    EXPECT_TRUE(onBackground);
    EXPECT_FALSE(onMain);
}

TEST(KXBackgroundTimer, RepeatsSuspendsAndResumes) {
    std::atomic<int> ticks{0};
    KXBackgroundTimer timer(0.005, [&] { ++ticks; });
    timer.resume();
    ASSERT_TRUE(eventually([&] { return ticks >= 3; }));

    timer.suspend();
    const int atSuspend = ticks;
    std::this_thread::sleep_for(50ms);
    EXPECT_LE(ticks, atSuspend + 1) << "at most a tick already under way completes";
    const int settled = ticks;
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(ticks, settled);

    timer.setRunning(true);
    ASSERT_TRUE(eventually([&] { return ticks >= settled + 3; }));
}

TEST(KXBackgroundTimer, CancelledTimerCannotBeResumedAndAnEmptyBlockIsSkipped) {
    std::atomic<int> ticks{0};
    KXBackgroundTimer timer(0.001, [&] { ++ticks; });
    timer.cancel();
    timer.resume();
    EXPECT_FALSE(timer.isRunning());
    KXBackgroundTimer empty(0.001, {});
    empty.resume();
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(ticks, 0);
    EXPECT_TRUE(empty.isRunning());
}

TEST(KXBackgroundTimer, DestructionWaitsForARunningBlockAndStopsTicks) {
    std::atomic<bool> started{false};
    std::atomic<bool> finished{false};
    std::atomic<int> ticks{0};
    {
        KXBackgroundTimer timer(0.001, [&] {
            ++ticks;
            started = true;
            std::this_thread::sleep_for(50ms);
            finished = true;
        });
        timer.resume();
        ASSERT_TRUE(eventually([&] { return started.load(); }));
    }
    EXPECT_TRUE(finished) << "the destructor returned while the block still ran";
    const int afterDestruction = ticks;
    std::this_thread::sleep_for(30ms);
    EXPECT_EQ(ticks, afterDestruction);
}

TEST(KXBackgroundTimer, BlockMaySuspendItsOwnTimer) {
    std::atomic<int> ticks{0};
    KXBackgroundTimer* self = nullptr;
    KXBackgroundTimer timer(0.001, [&] {
        if (++ticks == 2) {
            self->suspend();
        }
    });
    self = &timer;
    timer.resume();
    ASSERT_TRUE(eventually([&] { return !timer.isRunning(); }));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(ticks, 2);
}
