#include "KXTestPlatform.h"

#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXAsioMainQueue.h>
#include <KXClientFramework/KXNotificationCenter.h>

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

using namespace std::chrono_literals;
using Callback = KXApplicationDelegateCallback;
using Event = KXApplicationEvent;

namespace {

class RecordingDelegate : public KXApplicationDelegate {
public:
    explicit RecordingDelegate(std::vector<std::string>& log, std::set<Callback> implemented = {})
        : log_(log), implemented_(std::move(implemented)) {}

    bool respondsTo(Callback callback) const override {
        return callback == Callback::Description || implemented_.count(callback) > 0;
    }
    bool didFinishLaunching(KXApplication&, const KXJSON& options) override {
        log_.push_back("didFinishLaunching " + options.dump());
        return true;
    }
    void didBecomeActive(KXApplication& application) override {
        if (onActive) {
            onActive(application);
        }
        log_.emplace_back("didBecomeActive");  // after onActive, which may drop the delegate
    }
    void willResignActive(KXApplication&) override { log_.push_back("willResignActive"); }
    void didEnterBackground(KXApplication&) override { log_.push_back("didEnterBackground"); }
    void willEnterForeground(KXApplication&) override { log_.push_back("willEnterForeground"); }
    void willTerminate(KXApplication&) override { log_.push_back("willTerminate"); }
    void didRegisterForRemoteNotificationsWithDeviceToken(
        KXApplication&, const std::vector<std::uint8_t>& token) override {
        log_.push_back("token " + std::to_string(token.size()));
    }
    void didFailToRegisterForRemoteNotificationsWithError(KXApplication&,
                                                          const KXError& error) override {
        log_.push_back("error " + std::to_string(error.code));
    }
    void didReceiveRemoteNotification(KXApplication&, const KXJSON& info) override {
        log_.push_back("remote " + info.dump());
    }
    void didReceiveRemoteNotification(
        KXApplication&, const KXJSON& info,
        std::function<void(KXBackgroundFetchResult)> completion) override {
        log_.push_back("remote+handler " + info.dump());
        completion(KXBackgroundFetchResult::NewData);
    }
    void handleActionWithIdentifier(KXApplication&, const std::string& identifier, const KXJSON&,
                                    std::function<void()> completion) override {
        log_.push_back("action " + identifier);
        completion();
    }
    void didRegisterUserNotificationSettings(KXApplication&,
                                             const KXUserNotificationSettings& s) override {
        log_.push_back("settings " + std::to_string(s.types));
    }

    std::function<void(KXApplication&)> onActive;

private:
    std::vector<std::string>& log_;
    std::set<Callback> implemented_;
};

const std::set<Callback> kLifeCycle = {Callback::DidFinishLaunching,  Callback::DidBecomeActive,
                                       Callback::WillResignActive,    Callback::DidEnterBackground,
                                       Callback::WillEnterForeground, Callback::WillTerminate};

class KXApplicationTest : public testing::Test {
protected:
    KXAsioMainQueue queue;
    KXRecordingApplication application{queue, 20ms};
    std::vector<std::string> log;

    void delegateImplementing(std::set<Callback> callbacks) {
        application.setDelegate(std::make_shared<RecordingDelegate>(log, std::move(callbacks)));
    }
};

}  // namespace

TEST_F(KXApplicationTest, EventsMoveTheStateCallTheDelegateThenNotifyObservers) {
    delegateImplementing(kLifeCycle);
    auto& center = KXNotificationCenter::defaultCenter();
    std::vector<KXNotificationCenter::Token> tokens;
    for (int e = 0; e <= static_cast<int>(Event::WillTerminate); ++e) {
        tokens.push_back(center.addObserver(static_cast<Event>(e), [&](const KXNotification& n) {
            log.push_back("notified " + std::to_string(static_cast<int>(n.name)) + " " +
                          n.userInfo.dump());
        }));
    }
    EXPECT_EQ(application.applicationState(), KXApplicationState::Inactive);
    const KXJSON options{{UIApplicationLaunchOptionsRemoteNotificationKey, {{"aps", 1}}}};
    application.postEvent(Event::DidFinishLaunching, options);
    EXPECT_EQ(application.applicationState(), KXApplicationState::Inactive);
    EXPECT_EQ(application.launchOptions(), options);
    std::vector<std::string> expected = {"didFinishLaunching " + options.dump(),
                                         "notified 0 " + options.dump()};

    const std::vector<std::tuple<Event, KXApplicationState, const char*>> steps = {
        {Event::DidBecomeActive, KXApplicationState::Active, "didBecomeActive"},
        {Event::WillResignActive, KXApplicationState::Inactive, "willResignActive"},
        {Event::DidEnterBackground, KXApplicationState::Background, "didEnterBackground"},
        {Event::WillEnterForeground, KXApplicationState::Inactive, "willEnterForeground"},
        {Event::WillTerminate, KXApplicationState::Inactive, "willTerminate"},
    };
    for (const auto& [event, state, callback] : steps) {
        application.postEvent(event);
        EXPECT_EQ(application.applicationState(), state) << callback;
        expected.emplace_back(callback);
        expected.push_back("notified " + std::to_string(static_cast<int>(event)) + " null");
    }
    EXPECT_EQ(log, expected);
    for (auto token : tokens) {
        center.removeObserver(token);  // the observers hold this test's log
    }
}

TEST_F(KXApplicationTest, DelegateIsCalledOnlyForCallbacksItRespondsTo) {
    delegateImplementing({});
    for (Event e : {Event::DidFinishLaunching, Event::DidBecomeActive, Event::DidEnterBackground,
                    Event::WillTerminate}) {
        application.postEvent(e);
    }
    application.deliverDeviceToken({1, 2, 3});
    application.deliverRegistrationError(KXError("domain", 3000));
    application.deliverRemoteNotification({{"aps", 1}});
    application.registerUserNotificationSettings({KXUserNotificationTypeAlert, {}});
    queue.poll();
    EXPECT_TRUE(log.empty());

    delegateImplementing({Callback::DidRegisterForRemoteNotificationsWithDeviceToken,
                          Callback::DidFailToRegisterForRemoteNotificationsWithError});
    application.deliverDeviceToken({1, 2, 3});
    application.deliverRegistrationError(KXError("domain", 3000));
    EXPECT_EQ(log, (std::vector<std::string>{"token 3", "error 3000"}));

    KXApplicationDelegate plain;
    EXPECT_TRUE(plain.respondsTo(Callback::Description));
    EXPECT_FALSE(plain.respondsTo(Callback::DidFinishLaunching));
    EXPECT_NE(RecordingDelegate(log).description().find("RecordingDelegate: 0x"),
              std::string::npos);
}

TEST_F(KXApplicationTest, RemoteNotificationsAndActionsReachTheRightVariant) {
    std::vector<KXBackgroundFetchResult> results;
    auto collect = [&](KXBackgroundFetchResult r) { results.push_back(r); };

    // Both variants implemented: the one with a completion handler wins.
    delegateImplementing({Callback::DidReceiveRemoteNotification,
                          Callback::DidReceiveRemoteNotificationWithCompletionHandler,
                          Callback::HandleActionWithIdentifier});
    application.deliverRemoteNotification({{"n", 1}}, collect);
    application.deliverRemoteNotification({{"n", 2}});  // no handler from the host: still fine
    bool actionDone = false;
    application.deliverAction("ACCEPT", {{"n", 3}}, [&] { actionDone = true; });
    EXPECT_EQ(log, (std::vector<std::string>{R"(remote+handler {"n":1})",
                                             R"(remote+handler {"n":2})", "action ACCEPT"}));
    EXPECT_EQ(results, std::vector<KXBackgroundFetchResult>{KXBackgroundFetchResult::NewData});
    EXPECT_TRUE(actionDone);

    // Only the older variant: it is called and the host's handler gets NoData.
    log.clear();
    results.clear();
    delegateImplementing({Callback::DidReceiveRemoteNotification});
    application.deliverRemoteNotification({{"n", 4}}, collect);
    EXPECT_EQ(log, std::vector<std::string>{R"(remote {"n":4})"});
    EXPECT_EQ(results, std::vector<KXBackgroundFetchResult>{KXBackgroundFetchResult::NoData});

    // Nothing implemented (or no delegate): handlers are still completed.
    log.clear();
    actionDone = false;
    application.setDelegate(nullptr);
    application.deliverRemoteNotification({{"n", 5}}, collect);
    application.deliverAction("X", nullptr, [&] { actionDone = true; });
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(results.size(), 2u);
    EXPECT_TRUE(actionDone);
}

TEST_F(KXApplicationTest, TheSettingsRegistrationIsAnsweredFromTheMainQueue) {
    delegateImplementing({Callback::DidRegisterUserNotificationSettings});
    application.registerUserNotificationSettings(
        {KXUserNotificationTypeAlert | KXUserNotificationTypeBadge, {}});
    EXPECT_TRUE(log.empty());
    queue.poll();
    EXPECT_EQ(log, std::vector<std::string>{"settings 5"});
}

TEST_F(KXApplicationTest, BackgroundTasksExpireWhenTheTimeInTheBackgroundIsUp) {
    std::vector<std::string> expired;
    const auto a = application.beginBackgroundTask([&] { expired.push_back("a"); });
    const auto b = application.beginBackgroundTask([&] { expired.push_back("b"); });
    const auto c = application.beginBackgroundTask({});
    EXPECT_NE(a, KXBackgroundTaskInvalid);
    EXPECT_LT(a, b);
    EXPECT_LT(b, c);
    EXPECT_EQ(application.backgroundTaskCount(), 3u);
    application.endBackgroundTask(b);
    application.endBackgroundTask(b);  // ending twice does nothing
    EXPECT_EQ(application.backgroundTaskCount(), 2u);

    // Returning to the foreground cancels the expiration: a marker due well after
    // the limit runs after a live expiration timer would have.
    application.postEvent(Event::DidEnterBackground);
    application.postEvent(Event::WillEnterForeground);
    bool marker = false;
    queue.postAfter(200ms, [&] { marker = true; });
    ASSERT_TRUE(queue.runUntil([&] { return marker; }, 10s));
    EXPECT_TRUE(expired.empty());

    application.postEvent(Event::DidEnterBackground);
    EXPECT_TRUE(expired.empty()) << "not before the limit";
    ASSERT_TRUE(queue.runUntil([&] { return !expired.empty(); }, 10s));
    EXPECT_EQ(expired, std::vector<std::string>{"a"}) << "ended tasks do not expire";
    EXPECT_EQ(application.backgroundTaskCount(), 2u) << "expired tasks stay until ended";

    // Terminating expires what is still running, but a handler runs at most once.
    const auto d = application.beginBackgroundTask([&] { expired.push_back("d"); });
    application.postEvent(Event::WillTerminate);
    EXPECT_EQ(expired, (std::vector<std::string>{"a", "d"}));
    for (const auto task : {a, c, d}) {
        application.endBackgroundTask(task);
    }
    EXPECT_EQ(application.backgroundTaskCount(), 0u);
}

TEST_F(KXApplicationTest, WithLockKeepsReadersOutUntilTheSwapIsComplete) {
    auto first = std::make_shared<RecordingDelegate>(log);
    auto second = std::make_shared<RecordingDelegate>(log);
    application.setDelegate(first);

    std::atomic<bool> swapFinished{false};
    std::shared_ptr<KXApplicationDelegate> seen;
    std::thread reader;
    application.withLock([&] {
        EXPECT_EQ(application.delegate(), first) << "the slot can be read inside the lock";
        reader = std::thread([&] {
            seen = application.delegate();
            EXPECT_TRUE(swapFinished) << "a reader got in while the swap was in progress";
        });
        // Give the reader every chance to get in if the lock did not keep it out.
        std::this_thread::sleep_for(50ms);
        application.setDelegate(second);
        swapFinished = true;
    });
    reader.join();
    EXPECT_EQ(seen, second);
}

TEST_F(KXApplicationTest, ADelegateMayReplaceItselfWhileBeingCalled) {
    auto delegate = std::make_shared<RecordingDelegate>(log, kLifeCycle);
    delegate->onActive = [](KXApplication& app) { app.setDelegate(nullptr); };
    application.setDelegate(delegate);
    delegate.reset();
    application.postEvent(Event::DidBecomeActive);
    EXPECT_EQ(log, std::vector<std::string>{"didBecomeActive"});
    EXPECT_EQ(application.delegate(), nullptr);
}

TEST(KXApplication, WorkQueuedForADestroyedApplicationIsSkipped) {
    KXAsioMainQueue queue;
    std::vector<std::string> log;
    {
        KXApplication application(queue, 1ms);
        application.setDelegate(std::make_shared<RecordingDelegate>(
            log, std::set<Callback>{Callback::DidRegisterUserNotificationSettings}));
        application.registerUserNotificationSettings({});
        application.beginBackgroundTask([&] { log.push_back("expired"); });
        application.postEvent(Event::DidEnterBackground);
    }
    bool marker = false;
    queue.postAfter(50ms, [&] { marker = true; });
    ASSERT_TRUE(queue.runUntil([&] { return marker; }, 10s));
    EXPECT_TRUE(log.empty());
}

TEST(KXNotificationCenter, ObserversMayRemoveAndAddObserversWhileBeingCalled) {
    KXNotificationCenter center;
    std::vector<std::string> calls;
    KXNotificationCenter::Token second = 0, self = 0;

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

TEST(KXNotificationCenter, DefaultCenterIsSafeFromManyThreads) {
    KXNotificationCenter& center = KXNotificationCenter::defaultCenter();

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
