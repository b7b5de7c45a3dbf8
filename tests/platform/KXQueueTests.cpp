#include <KXClientFramework/KXAsioMainQueue.h>
#include <KXClientFramework/KXBackgroundQueue.h>

#include <asio/post.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

TEST(KXAsioMainQueue, RunsPostedWorkInOrderNeverInlineAndDelayedWorkInDelayOrder) {
    KXAsioMainQueue queue;
    std::vector<int> order;
    queue.post([&] {
        order.push_back(1);
        // Posting from a handler queues behind what is already there, it does not run now.
        queue.post([&] { order.push_back(3); });
        order.push_back(2);
    });
    queue.post([&] { order.push_back(4); });
    EXPECT_TRUE(order.empty()) << "nothing runs before the queue is run";
    EXPECT_EQ(queue.poll(), 3u);
    EXPECT_EQ(order, (std::vector<int>{1, 2, 4, 3}));

    order.clear();
    queue.postAfter(1h, [&] { order.push_back(99); });
    queue.postAfter(30ms, [&] { order.push_back(2); });
    queue.postAfter(1ms, [&] { order.push_back(1); });
    queue.post([&] { order.push_back(0); });
    queue.poll();  // only what is ready
    ASSERT_FALSE(order.empty());
    EXPECT_EQ(order.front(), 0);
    ASSERT_TRUE(queue.runUntil([&] { return order.size() == 3; }, 10s));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2})) << "the hour-long timer never ran";

    // runFor() returns after its slice even though the queue never empties; runUntil() gives
    // up at the time-out.
    queue.post([&] { order.push_back(4); });
    queue.runFor(5ms);
    EXPECT_EQ(order.size(), 4u);
    EXPECT_FALSE(queue.runUntil([] { return false; }, 5ms));
}

TEST(KXAsioMainQueue, WorkIsDueWhilePostedWorkOrExpiredDelayedWorkHasNotRun) {
    struct Case {
        const char* name;
        std::function<void(KXAsioMainQueue&)> post;
        bool dueBeforeRunning;
    };
    const std::vector<Case> cases = {
        {"nothing posted", [](KXAsioMainQueue&) {}, false},
        {"posted work", [](KXAsioMainQueue& q) { q.post([] {}); }, true},
        {"an empty function is skipped", [](KXAsioMainQueue& q) { q.post({}); }, false},
        {"delayed work not yet due", [](KXAsioMainQueue& q) { q.postAfter(1h, [] {}); }, false},
        {"delayed work come due", [](KXAsioMainQueue& q) { q.postAfter(0ms, [] {}); }, true},
    };
    for (const Case& c : cases) {
        KXAsioMainQueue queue;
        c.post(queue);
        std::this_thread::sleep_for(2ms);
        EXPECT_EQ(queue.hasWorkDue(), c.dueBeforeRunning) << c.name;
        queue.poll();
        EXPECT_FALSE(queue.hasWorkDue()) << c.name << ", after running what was ready";
    }

    // Work posted from a handler keeps the queue busy until it too has run.
    KXAsioMainQueue queue;
    bool innerRan = false;
    queue.post([&] { queue.post([&] { innerRan = true; }); });
    queue.context().run_one();
    EXPECT_TRUE(queue.hasWorkDue());
    EXPECT_FALSE(innerRan);
    queue.poll();
    EXPECT_FALSE(queue.hasWorkDue());
}

TEST(KXAsioMainQueue, StopEndsRunAndALaterRunWorksAgain) {
    KXAsioMainQueue queue;
    int ran = 0;
    queue.post([&] {
        ++ran;
        queue.stop();
    });
    queue.post([&] { ++ran; });
    queue.run();  // returns because of stop(), with the second item still queued
    EXPECT_EQ(ran, 1);

    queue.post([&] { queue.stop(); });
    queue.run();
    EXPECT_EQ(ran, 2) << "run() works again after a stop";

    // A stop requested while nothing runs makes the next run() return at once.
    queue.stop();
    queue.post([&] { ++ran; });
    queue.run();
    EXPECT_EQ(ran, 2);
    queue.poll();
    EXPECT_EQ(ran, 3);

    // A stop from another thread ends a run that has no work.
    std::atomic<bool> started{false};
    queue.post([&] { started = true; });
    std::thread stopper([&] {
        while (!started) {
            std::this_thread::sleep_for(1ms);
        }
        queue.stop();
    });
    queue.run();  // without work it would wait forever: only the stop ends it
    stopper.join();
}

TEST(KXAsioMainQueue, WorkPostedFromOtherThreadsRunsOnTheMainThread) {
    KXAsioMainQueue queue;
    ASSERT_TRUE(queue.isMainThread());
    ASSERT_TRUE(kxIsProcessInitialThread());
    std::atomic<int> ran{0};
    std::atomic<bool> allOnMain{true};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            EXPECT_FALSE(queue.isMainThread());
            EXPECT_FALSE(kxIsProcessInitialThread());
            for (int i = 0; i < 100; ++i) {
                queue.post([&] {
                    allOnMain = allOnMain && queue.isMainThread();
                    ++ran;
                });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(queue.runUntil([&] { return ran == 400; }, 10s));
    EXPECT_TRUE(allOnMain);
}

TEST(KXAsioMainQueue, DestroyingTheQueueDropsWorkThatNeverRan) {
    auto counter = std::make_shared<int>(0);
    {
        KXAsioMainQueue queue;
        queue.post([counter] { ++*counter; });
        queue.postAfter(1h, [counter] { ++*counter; });
    }
    EXPECT_EQ(*counter, 0);
    EXPECT_EQ(counter.use_count(), 1) << "the queued functions were released";
}

TEST(KXBackgroundQueue, SerialQueuesRunOneItemAtATimeInOrderOnThePoolsOwnThreads) {
    KXBackgroundQueue background(4);
    KXBackgroundQueue other(1);
    EXPECT_FALSE(background.isBackgroundThread());
    std::promise<bool> onOther;
    other.post([&] { onOther.set_value(background.isBackgroundThread()); });
    EXPECT_FALSE(onOther.get_future().get()) << "another pool's threads are not this pool's";
    KXSerialQueue serial = background.makeSerialQueue();
    std::mutex mutex;
    std::vector<int> order;
    std::atomic<int> inside{0};
    std::atomic<bool> overlappedOrOffPool{false};
    std::promise<void> done;
    constexpr int kItems = 500;
    for (int i = 0; i < kItems; ++i) {
        asio::post(serial, [&, i] {
            if (++inside > 1 || !background.isBackgroundThread()) {
                overlappedOrOffPool = true;
            }
            {
                std::lock_guard lock(mutex);
                order.push_back(i);
            }
            --inside;
            if (i == kItems - 1) {
                done.set_value();
            }
        });
    }
    done.get_future().get();
    EXPECT_FALSE(overlappedOrOffPool);
    std::vector<int> expected(kItems);
    std::iota(expected.begin(), expected.end(), 0);
    std::lock_guard lock(mutex);
    EXPECT_EQ(order, expected);
}

TEST(KXBackgroundQueue, ShutdownWaitsForRunningWorkAndDropsTheRest) {
    KXBackgroundQueue background(1);
    std::atomic<bool> started{false};
    std::atomic<bool> finished{false};
    std::atomic<bool> laterRan{false};
    background.post([&] {
        started = true;
        std::this_thread::sleep_for(50ms);
        finished = true;
    });
    background.post([&] { laterRan = true; });
    while (!started) {
        std::this_thread::sleep_for(1ms);
    }
    background.shutdown();
    EXPECT_TRUE(finished) << "shutdown returned while work was still running";
    EXPECT_FALSE(laterRan) << "work queued behind it is dropped";
    background.post([&] { laterRan = true; });
    background.shutdown();
    EXPECT_FALSE(laterRan) << "a stopped queue accepts no work";
}
