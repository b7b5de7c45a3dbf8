#include "KXCapturingSink.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXClientFrameworkAppDelegate.h>
#include <KXClientFramework/KXClientFrameworkAppDelegateProxy.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXException.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <tuple>

using Callback = KXApplicationDelegateCallback;
using Result = KXBackgroundFetchResult;
using Results = std::vector<Result>;
using Strings = std::vector<std::string>;
using Handler = std::function<void(Result)>;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

// Records each call as "<who> <call>", keeps the background handlers for the test to answer
// through, then does what the library's delegate does. Claims `claimed` (and Description) if given.
class Recorder : public KXClientFrameworkAppDelegate {
public:
    Recorder(std::string who, Strings& log, std::optional<std::set<Callback>> claimed = {})
        : who_(std::move(who)), log_(log), claimed_(std::move(claimed)) {}

    bool respondsTo(Callback c) const override {
        return claimed_ ? c == Callback::Description || claimed_->count(c) > 0
                        : KXClientFrameworkAppDelegate::respondsTo(c);
    }
    bool didFinishLaunching(KXApplication&, const KXJSON&) override {
        note("didFinishLaunching");
        return launchResult;
    }
    void didBecomeActive(KXApplication&) override { note("didBecomeActive"); }
    void didRegisterForRemoteNotificationsWithDeviceToken(
        KXApplication& app, const std::vector<std::uint8_t>& token) override {
        note("token " + std::to_string(token.size()));
        KXClientFrameworkAppDelegate::didRegisterForRemoteNotificationsWithDeviceToken(app, token);
    }
    void didReceiveRemoteNotification(KXApplication& app, const KXJSON& info, Handler h) override {
        note("remote+handler " + info.dump());
        handlers.push_back(h);
        KXClientFrameworkAppDelegate::didReceiveRemoteNotification(app, info, std::move(h));
    }
    void handleActionWithIdentifier(KXApplication& app, const std::string& identifier,
                                    const KXJSON& info, std::function<void()> completion) override {
        note("action " + identifier);
        KXClientFrameworkAppDelegate::handleActionWithIdentifier(app, identifier, info,
                                                                 std::move(completion));
    }
    std::string description() const override {
        note("description");
        return "<" + who_ + ">";
    }

    bool launchResult = false;
    std::vector<Handler> handlers;

private:
    void note(const std::string& call) const { log_.push_back(who_ + " " + call); }

    std::string who_;
    Strings& log_;
    std::optional<std::set<Callback>> claimed_;
};

class KXAppDelegateProxyTest : public testing::Test {
protected:
    void SetUp() override { setBackgroundMode(false); }

    void install(std::set<Callback> claimed) {
        app = std::make_shared<Recorder>("app", log, claimed);
        library = std::make_shared<Recorder>("library", log);
        proxy = std::make_shared<KXClientFrameworkAppDelegateProxy>();
        proxy->setOriginalAppDelegate(app);
        proxy->setZandrelAppDelegate(library);
        application().setDelegate(proxy);
    }

    void notify(const KXJSON& info = KXJSON::object()) {
        proxy->didReceiveRemoteNotification(application(), info,
                                            [this](Result r) { results.push_back(r); });
    }

    void setBackgroundMode(bool on) {
        KXClientFramework::sharedManager().setBackgroundNotificationEnabled(on);
    }
    KXApplication& application() { return platform->application(); }

    std::shared_ptr<KXTestPlatform> platform = KXTestPlatform::install();
    Strings log;
    Results results;
    std::shared_ptr<Recorder> app;
    std::shared_ptr<Recorder> library;
    std::shared_ptr<KXClientFrameworkAppDelegateProxy> proxy;
};

constexpr Callback kBackground = Callback::DidReceiveRemoteNotificationWithCompletionHandler;

}  // namespace

TEST_F(KXAppDelegateProxyTest, ClaimsWhatEitherDelegateImplementsAndNeedsTheApplicationsToForward) {
    install({Callback::DidBecomeActive});
    EXPECT_TRUE(proxy->respondsTo(Callback::DidBecomeActive));             // the application's
    EXPECT_FALSE(proxy->respondsTo(Callback::WillResignActive));           // nobody's
    EXPECT_TRUE(proxy->respondsTo(Callback::HandleActionWithIdentifier));  // the library's
    EXPECT_TRUE(proxy->respondsTo(Callback::Description));                 // the application's
    EXPECT_FALSE(proxy->zandrelDelegateRespondsToSelector(Callback::Description));
    // The background variant needs the background mode, although the library's delegate has it.
    EXPECT_FALSE(proxy->respondsTo(kBackground));
    setBackgroundMode(true);
    EXPECT_TRUE(proxy->respondsTo(kBackground));

    setBackgroundMode(false);
    install({kBackground});
    EXPECT_TRUE(proxy->respondsTo(kBackground));
    // Without an application delegate, Description is nobody's: the library's delegate does not
    // take over what every object answers.
    proxy->setOriginalAppDelegate(nullptr);
    EXPECT_FALSE(proxy->respondsTo(kBackground));
    EXPECT_FALSE(proxy->respondsTo(Callback::Description));
    EXPECT_TRUE(proxy->respondsTo(Callback::DidRegisterUserNotificationSettings));
    // Forwarding without it throws, before the library's delegate runs.
    try {
        application().deliverDeviceToken({0x0a, 0x0b});
        ADD_FAILURE() << "no exception";
    } catch (const KXException& e) {
        EXPECT_EQ(e.name(), "UAMissingOriginalDelegate");
        EXPECT_EQ(e.reason(),
                  "UAAppDelegateProxy originalAppDelegate was nil while forwarding an invocation");
    }
    EXPECT_THROW(proxy->description(), KXException);
    EXPECT_THROW(proxy->didBecomeActive(application()), KXException);
    EXPECT_TRUE(log.empty());
    proxy->setZandrelAppDelegate(nullptr);
    EXPECT_FALSE(proxy->respondsTo(Callback::HandleActionWithIdentifier));
    notify();  // nobody to ask: answered with no data at once
    EXPECT_EQ(results, Results{Result::NoData});
}

TEST_F(KXAppDelegateProxyTest, ACallbackBothImplementRunsOnTheLibraryFirstTheRestOnTheApplication) {
    install({Callback::DidRegisterForRemoteNotificationsWithDeviceToken,
             Callback::HandleActionWithIdentifier, Callback::DidBecomeActive,
             Callback::DidFinishLaunching});
    application().deliverDeviceToken({0xab, 0x01});
    int completions = 0;
    application().deliverAction("ACCEPT_IDENTIFIER", KXJSON::object(), [&] { ++completions; });
    EXPECT_EQ(completions, 2);  // each delegate completes the handler it was given
    EXPECT_EQ(KXDevice::currentDevice().deviceToken(), "ab01");
    application().postEvent(KXApplicationEvent::DidBecomeActive);
    for (const bool result : {false, true}) {
        app->launchResult = result;
        EXPECT_EQ(proxy->didFinishLaunching(application(), KXJSON::object()), result);
    }
    install({});
    application().deliverDeviceToken({0x01});  // the library's alone
    proxy->didBecomeActive(application());     // unclaimed, still the application's
    EXPECT_EQ(proxy->description(), "<app>");
    EXPECT_EQ(log, (Strings{"library token 2", "app token 2", "library action ACCEPT_IDENTIFIER",
                            "app action ACCEPT_IDENTIFIER", "app didBecomeActive",
                            "app didFinishLaunching", "app didFinishLaunching", "library token 1",
                            "app didBecomeActive", "app description"}));
}

TEST_F(KXAppDelegateProxyTest, FanOutMergesTheAnswersAndCompletesOnceAfterTheLast) {
    // The first answer, the second, whether the library's delegate answers first, the merge.
    const std::vector<std::tuple<Result, Result, bool, Result>> cases = {
        {Result::NoData, Result::NewData, true, Result::NewData},
        {Result::Failed, Result::NoData, true, Result::Failed},
        {Result::NewData, Result::Failed, true, Result::NewData},
        {Result::NewData, Result::Failed, false, Result::NewData},
        {Result::NoData, Result::NoData, true, Result::NoData}};
    for (const auto& [firstAnswer, secondAnswer, libraryFirst, merged] : cases) {
        log.clear();
        results.clear();
        install({kBackground});
        notify({{"n", 1}});
        ASSERT_EQ(log,
                  (Strings{R"(library remote+handler {"n":1})", R"(app remote+handler {"n":1})"}));
        (libraryFirst ? library : app)->handlers[0](firstAnswer);
        EXPECT_TRUE(results.empty());
        (libraryFirst ? app : library)->handlers[0](secondAnswer);
        EXPECT_EQ(results, Results{merged})
            << static_cast<int>(firstAnswer) << " then " << static_cast<int>(secondAnswer);
    }
}

TEST_F(KXAppDelegateProxyTest, AReceiverAnsweringTwiceIsLoggedAndCountsOnce) {
    kxLogLevel = 2;
    auto sink = KXCapturingSink::install();
    install({kBackground});
    notify();
    app->handlers[0](Result::NewData);
    app->handlers[0](Result::Failed);  // ignored: neither counted nor merged
    EXPECT_TRUE(results.empty());
    EXPECT_THAT(sink->lines(),
                ElementsAre(AllOf(StartsWith("[WARN] "),
                                  HasSubstr("] Completion handler called multiple times."))));
    library->handlers[0](Result::NoData);
    library->handlers[0](Result::NoData);
    app->handlers[0](Result::NoData);
    EXPECT_EQ(results, Results{Result::NewData});
    EXPECT_EQ(sink->linesContaining("Completion handler called multiple times.").size(), 3u);
}

TEST_F(KXAppDelegateProxyTest, AnswersFromManyThreadsCompleteExactlyOnce) {
    install({kBackground});
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

TEST_F(KXAppDelegateProxyTest, AnApplicationHandlerMayCompleteAnotherNotificationFromTheMerge) {
    install({kBackground});
    Strings completed;
    proxy->didReceiveRemoteNotification(application(), {{"n", 2}},
                                        [&](Result) { completed.push_back("second"); });
    proxy->didReceiveRemoteNotification(application(), {{"n", 1}}, [&](Result) {
        // Still inside the merge of the first notification, on the same thread.
        library->handlers[0](Result::NoData);
        app->handlers[0](Result::NoData);
        completed.push_back("first");
    });
    library->handlers[1](Result::NoData);
    app->handlers[1](Result::NewData);
    EXPECT_EQ(completed, (Strings{"second", "first"}));
}

TEST_F(KXAppDelegateProxyTest, TheLibraryDelegateSavesATokenAsLowercaseHexAndRefusesAnEmptyOne) {
    kxLogLevel = 3;
    auto sink = KXCapturingSink::install();
    KXClientFrameworkAppDelegate delegate;
    const std::vector<std::pair<std::vector<std::uint8_t>, std::optional<std::string>>> rows = {
        {{}, std::nullopt}, {{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef}, "0123456789abcdef"}};
    for (const auto& [bytes, hex] : rows) {
        SCOPED_TRACE(hex.value_or("(empty)"));
        sink->clear();
        KXClientFramework::sharedManager().setPushEnabledOnDevice(false);
        delegate.didRegisterForRemoteNotificationsWithDeviceToken(application(), bytes);
        EXPECT_TRUE(KXClientFramework::sharedManager().pushEnabledOnDevice());  // even refused
        EXPECT_EQ(KXClientFrameworkAppDelegate::deviceTokenString(bytes), hex.value_or(""));
        EXPECT_EQ(KXDevice::currentDevice().deviceToken(), hex);
        EXPECT_EQ(platform->userDefaults().stringForKey("applicationDeviceToken"), hex);
        EXPECT_EQ(sink->linesContaining("No device token found").size(), hex ? 0u : 1u);
        EXPECT_THAT(
            sink->linesContaining("APNS device applicationToken: "),
            ElementsAre(AllOf(StartsWith("[INFO] "), EndsWith("] APNS device applicationToken: " +
                                                              hex.value_or("(null)")))));
    }
}

TEST_F(KXAppDelegateProxyTest, TheLibraryDelegateOnlyLogsARegistrationFailure) {
    kxLogLevel = 1;
    auto sink = KXCapturingSink::install();
    KXClientFrameworkAppDelegate delegate;
    delegate.didFailToRegisterForRemoteNotificationsWithError(
        application(), KXError("NSCocoaErrorDomain", 3010, {{"message", "no push"}}));
    EXPECT_THAT(sink->lines(), ElementsAre(AllOf(StartsWith("[ERROR] "),
                                                 HasSubstr("] Failed To Register For Remote "
                                                           "Notifications With Error: Error "
                                                           "Domain=NSCocoaErrorDomain Code=3010 "
                                                           "\"no push\""))));
    EXPECT_FALSE(KXClientFramework::sharedManager().pushEnabledOnDevice());
    EXPECT_EQ(KXDevice::currentDevice().deviceToken(), std::nullopt);
    // An action is completed at once (KXNotificationActionTest); without a handler, skipped.
    delegate.handleActionWithIdentifier(application(), "X", nullptr, {});
}
