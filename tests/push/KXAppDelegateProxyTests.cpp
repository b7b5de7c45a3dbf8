// The application-delegate dispatcher: what it claims to implement, whom it forwards each
// callback to and in which order, the background-notification fan-out and its merge, and the
// library's own delegate behind it.
#include "KXCapturingSink.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXClientFrameworkAppDelegate.h>
#include <KXClientFramework/KXClientFrameworkAppDelegateProxy.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXException.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

using Callback = KXApplicationDelegateCallback;
using Result = KXBackgroundFetchResult;
using Strings = std::vector<std::string>;

namespace {

using Handler = std::function<void(Result)>;

// The application's delegate: claims the callbacks it is told to, records every call it gets
// (claimed or not) and keeps the background-notification handlers it is given.
class AppDelegate : public KXApplicationDelegate {
public:
    AppDelegate(Strings& log, std::set<Callback> implemented)
        : log_(log), implemented_(std::move(implemented)) {}

    bool respondsTo(Callback callback) const override {
        return callback == Callback::Description || implemented_.count(callback) > 0;
    }
    bool didFinishLaunching(KXApplication&, const KXJSON&) override {
        log_.push_back("app didFinishLaunching");
        return launchResult;
    }
    void didBecomeActive(KXApplication&) override { log_.push_back("app didBecomeActive"); }
    void didRegisterForRemoteNotificationsWithDeviceToken(
        KXApplication&, const std::vector<std::uint8_t>& token) override {
        log_.push_back("app token " + std::to_string(token.size()));
    }
    void didReceiveRemoteNotification(KXApplication&, const KXJSON& info) override {
        log_.push_back("app remote " + info.dump());
    }
    void didReceiveRemoteNotification(KXApplication&, const KXJSON& info,
                                      Handler handler) override {
        log_.push_back("app remote+handler " + info.dump());
        handlers.push_back(std::move(handler));
    }
    void handleActionWithIdentifier(KXApplication&, const std::string& identifier, const KXJSON&,
                                    std::function<void()> completion) override {
        log_.push_back("app action " + identifier);
        completion();
    }
    std::string description() const override {
        log_.push_back("app description");
        return "<AppDelegate>";
    }

    bool launchResult = false;
    std::vector<Handler> handlers;

private:
    Strings& log_;
    std::set<Callback> implemented_;
};

// The library's delegate with its calls recorded; each callback still does what the library's
// delegate does. It keeps the background-notification handlers so that a test can answer
// through them (the real one never answers).
class RecordingLibraryDelegate : public KXClientFrameworkAppDelegate {
public:
    explicit RecordingLibraryDelegate(Strings& log) : log_(log) {}

    void didRegisterForRemoteNotificationsWithDeviceToken(
        KXApplication& app, const std::vector<std::uint8_t>& token) override {
        log_.push_back("library token " + std::to_string(token.size()));
        KXClientFrameworkAppDelegate::didRegisterForRemoteNotificationsWithDeviceToken(app, token);
    }
    void didReceiveRemoteNotification(KXApplication& app, const KXJSON& info,
                                      Handler handler) override {
        log_.push_back("library remote+handler " + info.dump());
        handlers.push_back(handler);
        KXClientFrameworkAppDelegate::didReceiveRemoteNotification(app, info, std::move(handler));
    }
    void handleActionWithIdentifier(KXApplication& app, const std::string& identifier,
                                    const KXJSON& info, std::function<void()> completion) override {
        log_.push_back("library action " + identifier);
        KXClientFrameworkAppDelegate::handleActionWithIdentifier(app, identifier, info,
                                                                 std::move(completion));
    }
    std::string description() const override {
        log_.push_back("library description");
        return "<library>";
    }

    std::vector<Handler> handlers;

private:
    Strings& log_;
};

class KXAppDelegateProxyTest : public testing::Test {
protected:
    void SetUp() override {
        platform = KXTestPlatform::install();
        KXClientFramework::sharedManager().setBackgroundNotificationEnabled(false);
    }

    // A proxy around an application delegate implementing `implemented` and a recording
    // library delegate, installed as the application's delegate.
    void install(std::set<Callback> implemented) {
        app = std::make_shared<AppDelegate>(log, std::move(implemented));
        library = std::make_shared<RecordingLibraryDelegate>(log);
        proxy = std::make_shared<KXClientFrameworkAppDelegateProxy>();
        proxy->setOriginalAppDelegate(app);
        proxy->setZandrelAppDelegate(library);
        application().setDelegate(proxy);
    }

    KXApplication& application() { return platform->application(); }

    std::shared_ptr<KXTestPlatform> platform;
    Strings log;
    std::shared_ptr<AppDelegate> app;
    std::shared_ptr<RecordingLibraryDelegate> library;
    std::shared_ptr<KXClientFrameworkAppDelegateProxy> proxy;
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// What the proxy claims

TEST_F(KXAppDelegateProxyTest, ClaimsWhatEitherDelegateImplementsButNotEveryObjectsCallbacks) {
    install({Callback::DidBecomeActive});
    EXPECT_TRUE(proxy->respondsTo(Callback::DidBecomeActive));             // the application's
    EXPECT_FALSE(proxy->respondsTo(Callback::WillResignActive));           // nobody's
    EXPECT_TRUE(proxy->respondsTo(Callback::HandleActionWithIdentifier));  // the library's
    EXPECT_TRUE(proxy->respondsTo(Callback::DidRegisterForRemoteNotificationsWithDeviceToken));
    EXPECT_TRUE(proxy->respondsTo(Callback::Description));  // the application's

    EXPECT_TRUE(proxy->zandrelDelegateRespondsToSelector(Callback::HandleActionWithIdentifier));
    EXPECT_FALSE(proxy->zandrelDelegateRespondsToSelector(Callback::Description));
    EXPECT_FALSE(proxy->zandrelDelegateRespondsToSelector(Callback::DidBecomeActive));

    // Without an application delegate, Description is nobody's: the library's delegate does
    // not take over what every object answers.
    proxy->setOriginalAppDelegate(nullptr);
    EXPECT_FALSE(proxy->respondsTo(Callback::Description));
    EXPECT_TRUE(proxy->respondsTo(Callback::DidRegisterUserNotificationSettings));

    proxy->setZandrelAppDelegate(nullptr);
    EXPECT_FALSE(proxy->zandrelDelegateRespondsToSelector(Callback::HandleActionWithIdentifier));
    EXPECT_FALSE(proxy->respondsTo(Callback::HandleActionWithIdentifier));
}

TEST_F(KXAppDelegateProxyTest, BackgroundNotificationIsClaimedByTheBackgroundModeOrTheApplication) {
    constexpr Callback background = Callback::DidReceiveRemoteNotificationWithCompletionHandler;
    KXClientFramework& manager = KXClientFramework::sharedManager();

    install({});
    manager.setBackgroundNotificationEnabled(false);
    EXPECT_FALSE(proxy->respondsTo(background));  // although the library's delegate has it
    manager.setBackgroundNotificationEnabled(true);
    EXPECT_TRUE(proxy->respondsTo(background));

    install({background});
    manager.setBackgroundNotificationEnabled(false);
    EXPECT_TRUE(proxy->respondsTo(background));

    proxy->setOriginalAppDelegate(nullptr);
    EXPECT_FALSE(proxy->respondsTo(background));

    // Without the background mode the system uses the older callback.
    install({Callback::DidReceiveRemoteNotification});
    std::vector<Result> results;
    application().deliverRemoteNotification({{"aps", {{"alert", "hi"}}}},
                                            [&](Result r) { results.push_back(r); });
    EXPECT_EQ(log, (Strings{R"(app remote {"aps":{"alert":"hi"}})"}));
    EXPECT_EQ(results, (std::vector<Result>{Result::NoData}));  // from the application object
}

// ---------------------------------------------------------------------------------------------
// Forwarding

TEST_F(KXAppDelegateProxyTest, ACallbackBothImplementRunsOnTheLibraryDelegateFirst) {
    install({Callback::DidRegisterForRemoteNotificationsWithDeviceToken,
             Callback::HandleActionWithIdentifier});
    application().deliverDeviceToken(std::vector<std::uint8_t>(32, 0xab));
    int completions = 0;
    application().deliverAction("ACCEPT_IDENTIFIER", KXJSON::object(), [&] { ++completions; });

    EXPECT_EQ(log, (Strings{"library token 32", "app token 32", "library action ACCEPT_IDENTIFIER",
                            "app action ACCEPT_IDENTIFIER"}));
    EXPECT_EQ(completions, 2);  // each delegate completes the handler it was given
    std::string expected;
    for (int i = 0; i < 32; ++i) {
        expected += "ab";
    }
    EXPECT_EQ(KXDevice::currentDevice().deviceToken(), expected);
}

TEST_F(KXAppDelegateProxyTest, OtherCallbacksAndResultsGoToTheApplicationDelegateOnly) {
    install({Callback::DidBecomeActive, Callback::DidFinishLaunching});
    application().postEvent(KXApplicationEvent::DidBecomeActive);
    application().deliverDeviceToken({0x01});  // the library's alone
    for (const bool result : {false, true}) {
        app->launchResult = result;
        EXPECT_EQ(proxy->didFinishLaunching(application(), KXJSON::object()), result);
    }
    install({});
    proxy->didBecomeActive(application());  // unclaimed, still the application's
    EXPECT_EQ(proxy->description(), "<AppDelegate>");
    EXPECT_EQ(log, (Strings{"app didBecomeActive", "library token 1", "app didFinishLaunching",
                            "app didFinishLaunching", "app didBecomeActive", "app description"}));
}

TEST_F(KXAppDelegateProxyTest, ForwardingWithoutAnApplicationDelegateThrows) {
    install({});
    proxy->setOriginalAppDelegate(nullptr);
    const std::vector<std::uint8_t> token{0x0a, 0x0b};

    try {
        application().deliverDeviceToken(token);
        FAIL() << "no exception";
    } catch (const KXException& e) {
        EXPECT_EQ(e.name(), "UAMissingOriginalDelegate");
        EXPECT_EQ(e.reason(),
                  "UAAppDelegateProxy originalAppDelegate was nil while forwarding an invocation");
    }
    EXPECT_THROW(proxy->description(), KXException);
    EXPECT_THROW(proxy->didBecomeActive(application()), KXException);
    EXPECT_TRUE(log.empty());  // the library's delegate did not run either
    EXPECT_EQ(KXDevice::currentDevice().deviceToken(), std::nullopt);
}

// ---------------------------------------------------------------------------------------------
// Background-notification fan-out

TEST_F(KXAppDelegateProxyTest, FanOutMergesTheAnswersAndCompletesOnceAfterTheLast) {
    struct Case {
        Result library;
        Result app;
        bool libraryFirst;
        Result merged;
    };
    const std::vector<Case> cases = {
        {Result::NoData, Result::NewData, true, Result::NewData},
        {Result::Failed, Result::NoData, true, Result::Failed},
        {Result::NewData, Result::Failed, true, Result::NewData},
        {Result::Failed, Result::NewData, false, Result::NewData},
        {Result::NoData, Result::NoData, true, Result::NoData},
        {Result::Failed, Result::Failed, false, Result::Failed},
    };
    for (const Case& c : cases) {
        log.clear();
        install({Callback::DidReceiveRemoteNotificationWithCompletionHandler});
        std::vector<Result> results;
        proxy->didReceiveRemoteNotification(application(), {{"n", 1}},
                                            [&](Result r) { results.push_back(r); });
        EXPECT_EQ(log,
                  (Strings{R"(library remote+handler {"n":1})", R"(app remote+handler {"n":1})"}));
        ASSERT_EQ(library->handlers.size(), 1u);
        ASSERT_EQ(app->handlers.size(), 1u);

        Handler& first = c.libraryFirst ? library->handlers[0] : app->handlers[0];
        Handler& second = c.libraryFirst ? app->handlers[0] : library->handlers[0];
        first(c.libraryFirst ? c.library : c.app);
        EXPECT_TRUE(results.empty());
        second(c.libraryFirst ? c.app : c.library);
        EXPECT_EQ(results, (std::vector<Result>{c.merged}))
            << static_cast<int>(c.library) << " + " << static_cast<int>(c.app);
    }
}

TEST_F(KXAppDelegateProxyTest, AReceiverAnsweringTwiceIsLoggedAndCountsOnce) {
    kxLogLevel = 2;
    auto sink = KXCapturingSink::install();
    install({Callback::DidReceiveRemoteNotificationWithCompletionHandler});
    std::vector<Result> results;
    proxy->didReceiveRemoteNotification(application(), KXJSON::object(),
                                        [&](Result r) { results.push_back(r); });

    app->handlers[0](Result::NewData);
    app->handlers[0](Result::Failed);  // ignored: neither counted nor merged
    EXPECT_TRUE(results.empty());
    const auto warnings = sink->linesContaining("Completion handler called multiple times.");
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0].rfind("[WARN] ", 0), 0u) << warnings[0];

    library->handlers[0](Result::NoData);
    EXPECT_EQ(results, (std::vector<Result>{Result::NewData}));
    library->handlers[0](Result::NoData);
    app->handlers[0](Result::NoData);
    EXPECT_EQ(results.size(), 1u);
    EXPECT_EQ(sink->linesContaining("Completion handler called multiple times.").size(), 3u);
}

TEST_F(KXAppDelegateProxyTest, AnswersFromManyThreadsCompleteExactlyOnce) {
    install({Callback::DidReceiveRemoteNotificationWithCompletionHandler});
    for (int round = 0; round < 50; ++round) {
        library->handlers.clear();
        app->handlers.clear();
        std::atomic<int> completions{0};
        std::atomic<int> merged{-1};
        proxy->didReceiveRemoteNotification(application(), KXJSON::object(), [&](Result r) {
            merged = static_cast<int>(r);
            ++completions;
        });
        // Every handler is called from two threads at once; only the first call of each counts.
        std::vector<std::thread> threads;
        for (int copy = 0; copy < 2; ++copy) {
            threads.emplace_back([h = library->handlers[0]] { h(Result::Failed); });
            threads.emplace_back([h = app->handlers[0]] { h(Result::NoData); });
        }
        for (auto& t : threads) {
            t.join();
        }
        EXPECT_EQ(completions.load(), 1);
        EXPECT_EQ(merged.load(), static_cast<int>(Result::Failed));
    }
}

TEST_F(KXAppDelegateProxyTest,
       AnApplicationHandlerMayCompleteAnotherNotificationFromInsideTheMerge) {
    install({Callback::DidReceiveRemoteNotificationWithCompletionHandler});
    std::vector<std::string> completed;
    proxy->didReceiveRemoteNotification(application(), {{"n", 2}},
                                        [&](Result) { completed.push_back("second"); });
    Handler secondLibrary = library->handlers[0];
    Handler secondApp = app->handlers[0];
    proxy->didReceiveRemoteNotification(application(), {{"n", 1}}, [&](Result) {
        // Still inside the merge of the first notification, on the same thread.
        secondLibrary(Result::NoData);
        secondApp(Result::NoData);
        completed.push_back("first");
    });
    library->handlers[1](Result::NoData);
    app->handlers[1](Result::NewData);
    EXPECT_EQ(completed, (Strings{"second", "first"}));
}

TEST_F(KXAppDelegateProxyTest, ThePlatformsHandlerWaitsForEveryReceiverAndTheLibraryNeverAnswers) {
    // The application implements it and answers: expected 2, answered 1.
    install({Callback::DidReceiveRemoteNotificationWithCompletionHandler});
    int completions = 0;
    application().deliverRemoteNotification(KXJSON::object(), [&](Result) { ++completions; });
    ASSERT_EQ(app->handlers.size(), 1u);
    app->handlers[0](Result::NewData);
    EXPECT_EQ(completions, 0);

    // The background mode is declared and the application lacks it: expected 1, answered 0.
    log.clear();
    install({});
    KXClientFramework::sharedManager().setBackgroundNotificationEnabled(true);
    application().deliverRemoteNotification({{"k", "v"}}, [&](Result) { ++completions; });
    EXPECT_EQ(log, (Strings{R"(library remote+handler {"k":"v"})"}));
    EXPECT_EQ(completions, 0);

    // Nobody to ask: expected 0, answered with no data at once.
    proxy->setZandrelAppDelegate(nullptr);
    std::vector<Result> results;
    proxy->didReceiveRemoteNotification(application(), KXJSON::object(),
                                        [&](Result r) { results.push_back(r); });
    EXPECT_EQ(results, (std::vector<Result>{Result::NoData}));
}

// ---------------------------------------------------------------------------------------------
// The library's delegate

namespace {

class LibraryDelegate : public testing::Test {
protected:
    LibraryDelegate() { kxLogLevel = 3; }

    std::shared_ptr<KXTestPlatform> platform = KXTestPlatform::install();
    KXCapturingSink::Guard sink = KXCapturingSink::install();
    KXClientFrameworkAppDelegate delegate;
};

}  // namespace

TEST_F(LibraryDelegate, ATokenIsSavedAsLowercaseHexAndLoggedAndAnEmptyOneRefused) {
    std::vector<std::uint8_t> wrapping(32);
    for (std::size_t i = 0; i < wrapping.size(); ++i) {
        wrapping[i] = static_cast<std::uint8_t>(0xf0 + i);  // wraps past 0xff
    }
    const std::vector<std::pair<std::vector<std::uint8_t>, std::optional<std::string>>> rows = {
        {{}, std::nullopt},
        {{0xde, 0xad, 0xbe, 0xef}, "deadbeef"},
        {{0x0a, 0x0b, 0x00, 0xff, 0x7f}, "0a0b00ff7f"},
        {wrapping, "f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff000102030405060708090a0b0c0d0e0f"}};
    for (const auto& [bytes, hex] : rows) {
        SCOPED_TRACE(hex.value_or("(empty)"));
        sink->clear();
        KXClientFramework::sharedManager().setPushEnabledOnDevice(false);
        delegate.didRegisterForRemoteNotificationsWithDeviceToken(platform->application(), bytes);
        // Even a refused token marks the device.
        EXPECT_TRUE(KXClientFramework::sharedManager().pushEnabledOnDevice());
        EXPECT_EQ(KXClientFrameworkAppDelegate::deviceTokenString(bytes), hex.value_or(""));
        EXPECT_EQ(KXDevice::currentDevice().deviceToken(), hex);
        EXPECT_EQ(platform->userDefaults().stringForKey("applicationDeviceToken"), hex);
        EXPECT_EQ(sink->linesContaining("No device token found").size(), hex ? 0u : 1u);
        const auto lines =
            sink->linesContaining("APNS device applicationToken: " + hex.value_or("(null)"));
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].rfind("[INFO] KXClientFrameworkAppDelegate::"
                                 "didRegisterForRemoteNotificationsWithDeviceToken [Line ",
                                 0),
                  0u)
            << lines[0];
    }
}

TEST_F(LibraryDelegate, ARegistrationFailureIsOnlyLogged) {
    kxLogLevel = 1;
    delegate.didFailToRegisterForRemoteNotificationsWithError(
        platform->application(), KXError("NSCocoaErrorDomain", 3010, {{"message", "no push"}}));
    const auto lines = sink->lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("[ERROR] ", 0), 0u);
    EXPECT_NE(lines[0].find("] Failed To Register For Remote Notifications With Error: Error "
                            "Domain=NSCocoaErrorDomain Code=3010 \"no push\""),
              std::string::npos)
        << lines[0];
    EXPECT_FALSE(KXClientFramework::sharedManager().pushEnabledOnDevice());
    EXPECT_EQ(KXDevice::currentDevice().deviceToken(), std::nullopt);
}

TEST_F(LibraryDelegate, AnActionIsCompletedAtOnceAndAnEmptyHandlerSkipped) {
    int completions = 0;
    delegate.handleActionWithIdentifier(platform->application(), "DECLINE_IDENTIFIER",
                                        {{"aps", {{"listId", "L1"}}}}, [&] { ++completions; });
    EXPECT_EQ(completions, 1);
    // An empty handler is skipped.
    delegate.handleActionWithIdentifier(platform->application(), "X", nullptr, {});
}
