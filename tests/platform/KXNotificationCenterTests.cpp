// The process-wide notification centre of life-cycle events.
#include <KXClientFramework/KXNotificationCenter.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {
using Event = KXApplicationEvent;
}

TEST(KXNotificationCenter, CallsMatchingObserversInTheOrderAddedWithTheUserInfo) {
    KXNotificationCenter center;
    std::vector<std::string> calls;
    center.addObserver(Event::DidBecomeActive, [&](const KXNotification& n) {
        calls.push_back("first " + n.userInfo.dump());
    });
    center.addObserver(Event::DidEnterBackground,
                       [&](const KXNotification&) { calls.push_back("background"); });
    center.addObserver(Event::DidBecomeActive, [&](const KXNotification& n) {
        EXPECT_EQ(n.name, Event::DidBecomeActive);
        calls.push_back("second");
    });

    center.post(Event::DidBecomeActive, KXJSON{{"k", 1}});
    EXPECT_EQ(calls, (std::vector<std::string>{R"(first {"k":1})", "second"}));
    center.post(Event::WillTerminate);
    EXPECT_EQ(calls.size(), 2u) << "no observer of that event";
}

TEST(KXNotificationCenter, ObserversMayRemoveAndAddObserversWhileBeingCalled) {
    KXNotificationCenter center;
    std::vector<std::string> calls;
    KXNotificationCenter::Token second = 0;
    KXNotificationCenter::Token self = 0;

    center.addObserver(Event::DidBecomeActive, [&](const KXNotification&) {
        calls.push_back("remover");
        center.removeObserver(second);
        center.addObserver(Event::DidBecomeActive,
                           [&](const KXNotification&) { calls.push_back("added"); });
    });
    second = center.addObserver(Event::DidBecomeActive,
                                [&](const KXNotification&) { calls.push_back("removed"); });
    self = center.addObserver(Event::DidBecomeActive, [&](const KXNotification&) {
        calls.push_back("once");
        center.removeObserver(self);  // destroying the running observer's slot is safe
    });

    center.post(Event::DidBecomeActive);
    EXPECT_EQ(calls, (std::vector<std::string>{"remover", "once"}))
        << "a removed observer is not called, one added meanwhile waits for the next post";

    calls.clear();
    center.post(Event::DidBecomeActive);
    EXPECT_EQ(calls, (std::vector<std::string>{"remover", "added"}));
}

TEST(KXNotificationCenter, DefaultCenterIsOneObjectAndSafeFromManyThreads) {
    KXNotificationCenter& center = KXNotificationCenter::defaultCenter();
    EXPECT_EQ(&center, &KXNotificationCenter::defaultCenter());

    std::atomic<int> received{0};
    const auto keeper =
        center.addObserver(Event::WillTerminate, [&](const KXNotification&) { ++received; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                const auto token =
                    center.addObserver(Event::WillTerminate, [](const KXNotification&) {});
                center.post(Event::WillTerminate);
                center.removeObserver(token);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(received, 800);
    center.removeObserver(keeper);
    center.post(Event::WillTerminate);
    EXPECT_EQ(received, 800);
}
