#include "KXCapturingSink.h"
#include "KXLoopbackService.h"
#include "KXProcess.h"
#include "KXSealedFiles.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXEngagement.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <tuple>

using Callback = KXApplicationDelegateCallback;
using Bytes = std::vector<std::uint8_t>;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

const std::string kKey = "engage-key-42";
const std::string kStagingEntries =
    "<key>appId</key><string>app-1</string>\n"
    "<key>stageClientId</key><string>stage-id</string>\n"
    "<key>stageClientSecret</key><string>stage-secret</string>\n"
    "<key>prodClientId</key><string>prod-id</string>\n"
    "<key>prodClientSecret</key><string>prod-secret</string>\n";

KXScriptedAnswer tokenAnswer(const std::string& token) {
    return KXScriptedAnswer::json(200, {{"access_token", token}, {"expires_in", 3600}});
}

class AppDelegate : public KXApplicationDelegate {
public:
    bool respondsTo(Callback c) const override {
        return c == Callback::Description ||
               c == Callback::DidRegisterForRemoteNotificationsWithDeviceToken;
    }
    void didRegisterForRemoteNotificationsWithDeviceToken(KXApplication&, const Bytes& t) override {
        tokens.push_back(t);
    }
    std::vector<Bytes> tokens;
};

struct Scenario {
    std::string entries = kStagingEntries;
    bool writeConfiguration = true;
    KXJSON infoDictionary = KXJSON::object();
    std::optional<std::string> systemVersion = "12";
    KXScriptedAnswer stagingTokenAnswer = tokenAnswer("staging-token");
};

class KXEngagementTest : public testing::Test {
protected:
    void start(const Scenario& setup = {}) {
        KXTestPlatformOptions options;
        options.infoDictionary = setup.infoDictionary;
        platform = KXTestPlatform::install(options);
        platform->fakeDeviceFacts().systemVersion = setup.systemVersion;
        if (setup.writeConfiguration) {
            const auto scratch = kxtest::scratchDirectory("plain");
            kxtest::writeText(scratch / "KXConfig.plist", kxtest::xmlPropertyList(setup.entries));
            kxtest::sealWithOpenSSL(scratch / "KXConfig.plist",
                                    platform->resourceDirectory() / "KXConfig.enc", kKey);
        }
        const std::string base = service.baseURL();
        KXClientFramework::setServiceEndpoints({.production = base,
                                                .development = base,
                                                .productionToken = base + "/production",
                                                .stagingToken = base + "/staging"});
        service.script("POST", "/staging/token", setup.stagingTokenAnswer);
        service.script("POST", "/production/token", tokenAnswer("production-token"));

        appDelegate = std::make_shared<AppDelegate>();
        platform->application().setDelegate(appDelegate);
        kxLogLevel = 4;
    }

    KXClientFramework& manager() { return KXClientFramework::sharedManager(); }
    KXApplication& application() { return platform->application(); }

    std::shared_ptr<KXClientFrameworkAppDelegateProxy> installedProxy() {
        return std::dynamic_pointer_cast<KXClientFrameworkAppDelegateProxy>(
            application().delegate());
    }

    std::size_t logged(std::string_view text) const { return sink->linesContaining(text).size(); }

    bool waitFor(const std::function<bool()>& done) {
        return platform->runUntil(done, std::chrono::seconds(15));
    }

    bool waitForReady() {
        return waitFor([&] { return logged("KX iOS SDK Ready!") > 0; });
    }

    // Runs what the main queue holds now (answers of the fake authoriser and the like).
    void drain() {
        bool reached = false;
        platform->mainQueue().post([&] { reached = true; });
        ASSERT_TRUE(platform->runUntil([&] { return reached; }));
    }

    KXCapturingSink::Guard sink = KXCapturingSink::install();
    KXLoopbackService service;
    std::shared_ptr<KXTestPlatform> platform;
    std::shared_ptr<AppDelegate> appDelegate;
};

}  // namespace

TEST_F(KXEngagementTest, EngagingPutsTheDispatcherAroundTheApplicationDelegateOnce) {
    start({.infoDictionary = {{"UIBackgroundModes", {"fetch", "remote-notification"}}}});
    KXLocationService::sharedManager().setEnabled(true);

    manager().engageUsingKey(kKey);

    const auto engaged = manager().sharedZandrel();
    ASSERT_NE(engaged, nullptr);
    EXPECT_NE(engaged.get(), &manager());  // the engaged object is not the shared manager
    const auto proxy = installedProxy();
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(engaged->appDelegate(), proxy);
    EXPECT_EQ(proxy->originalAppDelegate(), appDelegate);

    ASSERT_TRUE(waitForReady());

    // The library's delegate behind the dispatcher takes the device token, and the
    // application's delegate still gets it.
    application().deliverDeviceToken({0x0a, 0x0b, 0xfe});
    EXPECT_EQ(KXDevice::currentDevice().deviceToken(), "0a0bfe");
    EXPECT_EQ(appDelegate->tokens, (std::vector<Bytes>{{0x0a, 0x0b, 0xfe}}));
    // Without locationServicesEnabled, location stays off.
    EXPECT_FALSE(KXLocationService::sharedManager().isEnabled());
    EXPECT_TRUE(platform->locationSources().empty());

    EXPECT_THAT(
        sink->linesContaining("[DEBUG] KXClientFramework::"),
        ElementsAre(
            AllOf(StartsWith("[DEBUG] KXClientFramework::engageUsingKey [Line "),
                  EndsWith("] Configuring KX iOS SDK")),
            EndsWith("] Authenticating KX iOS SDK"),
            AllOf(StartsWith("[DEBUG] KXClientFramework::authZconfig [Line "),
                  EndsWith("] Initializing KX iOS SDK with\n\tbusinessUnit: (null),\n\tclientId: "
                           "stage-id,\n\tapplicationId: app-1\n")),
            EndsWith("] Register for Pushing KX iOS SDK"),
            EndsWith("] \n\nKX iOS SDK Ready!\n\n")));

    // A second engage changes nothing but the background flag.
    drain();
    EXPECT_TRUE(manager().backgroundNotificationEnabled());
    platform->fakeDeviceFacts().coreFoundationVersionNumber = 800.0;
    manager().engageUsingKey("another key");
    drain();
    EXPECT_FALSE(manager().backgroundNotificationEnabled());
    EXPECT_EQ(manager().sharedZandrel(), engaged);
    EXPECT_EQ(installedProxy(), proxy);  // not wrapped twice
    EXPECT_EQ(logged("] Configuring KX iOS SDK"), 1u);
    EXPECT_EQ(service.requestsTo("/staging/token").size(), 1u);
}

// How engaging's authentication ends, each row in a process of its own (the token it gets
// stays with the process).
struct AuthenticationRow {
    const char* name;
    bool inProduction;
    KXScriptedAnswer tokenAnswer;
    std::optional<std::int64_t> failureCode;  // none: the token arrives
};

void PrintTo(const AuthenticationRow& row, std::ostream* out) {
    *out << row.name;
}

class KXEngagementAuthenticationTest : public KXEngagementTest,
                                       public testing::WithParamInterface<AuthenticationRow> {};

TEST_P(KXEngagementAuthenticationTest, IsLoggedAndToldToTheApplicationOnceOnTheMainQueue) {
    const AuthenticationRow& row = GetParam();
    start(
        {.entries = kStagingEntries + (row.inProduction ? "<key>inProduction</key><true/>\n" : ""),
         .stagingTokenAnswer = row.tokenAnswer});
    std::vector<std::optional<KXError>> told;
    bool onMainThread = true;
    KXClientFramework::setEngagementAuthenticationHandler([&](const std::optional<KXError>& error) {
        onMainThread = onMainThread && platform->mainQueue().isMainThread();
        told.push_back(error);
    });
    manager().engageUsingKey(kKey);
    ASSERT_TRUE(waitFor([&] { return !told.empty(); }));
    drain();
    KXClientFramework::setEngagementAuthenticationHandler(nullptr);

    ASSERT_EQ(told.size(), 1u);
    EXPECT_TRUE(onMainThread);
    const auto requests =
        service.requestsTo(row.inProduction ? "/production/token" : "/staging/token");
    ASSERT_EQ(requests.size(), 1u);
    const std::string credential = row.inProduction ? "prod" : "stage";
    EXPECT_EQ(kxtest::formFields(requests[0].body),
              (std::map<std::string, std::string>{{"grant_type", "client_credentials"},
                                                  {"scope", "RETURN_ALL_CLIENT_SCOPES"},
                                                  {"client_id", credential + "-id"},
                                                  {"client_secret", credential + "-secret"}}));
    const auto trouble =
        sink->linesContaining("] Error Zandrel had trouble starting.\nError Domain=");
    if (row.failureCode) {
        ASSERT_TRUE(told[0].has_value());
        EXPECT_EQ(told[0]->code, *row.failureCode);
        EXPECT_THAT(trouble,
                    ElementsAre(AllOf(StartsWith("[ERROR] "),
                                      HasSubstr("Code=" + std::to_string(*row.failureCode)))));
        EXPECT_NE(manager().sharedZandrel(), nullptr);  // still engaged
    } else {
        EXPECT_FALSE(told[0].has_value()) << told[0]->description();
        EXPECT_TRUE(trouble.empty());
        EXPECT_EQ(manager().clientSecret(), credential + "-secret");
        ASSERT_NE(KXHTTPSessionManager::sharedManager().bearerToken(), nullptr);
        EXPECT_EQ(KXHTTPSessionManager::sharedManager().bearerToken()->token(),
                  row.inProduction ? "production-token" : "staging-token");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, KXEngagementAuthenticationTest,
    testing::Values(
        AuthenticationRow{"Staging", false, tokenAnswer("staging-token"), std::nullopt},
        AuthenticationRow{"Production", true, tokenAnswer("staging-token"), std::nullopt},
        AuthenticationRow{"Refused", false,
                          KXScriptedAnswer::json(401, {{"error", "invalid_client"}}), 401},
        AuthenticationRow{"ServerError", false, KXScriptedAnswer::text(503, "<html>", "text/html"),
                          503}),
    [](const testing::TestParamInfo<AuthenticationRow>& info) { return info.param.name; });

TEST_F(KXEngagementTest, EngagingOffTheMainThreadThrowsAndEngagesNothing) {
    start({.infoDictionary = {{"UIBackgroundModes", {"remote-notification"}}}});
    std::optional<KXException> thrown;
    std::thread([&] {
        try {
            manager().engageUsingKey(kKey);
        } catch (const KXException& e) {
            thrown = e;
        }
    }).join();

    ASSERT_TRUE(thrown.has_value());
    EXPECT_EQ(thrown->name(), "KXClientFrameworkEngageBackgroundThreadException");
    EXPECT_EQ(thrown->reason(), "KXClientFramework engage must be called on the main thread.");
    EXPECT_EQ(manager().sharedZandrel(), nullptr);
    EXPECT_EQ(application().delegate(), appDelegate);
    EXPECT_TRUE(manager().backgroundNotificationEnabled());  // computed before the check

    // The main thread can still engage afterwards.
    manager().engageUsingKey(kKey);
    EXPECT_NE(installedProxy(), nullptr);
}

TEST_F(KXEngagementTest, BackgroundNotificationsNeedTheModeAndARecentEnoughPlatform) {
    const std::vector<std::tuple<KXJSON, double, bool>> cases = {
        {{"remote-notification"}, 847.2, true},
        {{"audio", "remote-notification"}, 1600.0, true},
        {{"fetch"}, 1600.0, false},
        {nullptr, 1600.0, false},
        {"remote-notification", 1600.0, false},  // not a list
        {{"remote-notification"}, 847.1, false},
    };
    for (const auto& [modes, coreFoundation, enabled] : cases) {
        // Nothing to authenticate.
        start({.writeConfiguration = false,
               .infoDictionary =
                   modes.is_null() ? KXJSON::object() : KXJSON{{"UIBackgroundModes", modes}}});
        platform->fakeDeviceFacts().coreFoundationVersionNumber = coreFoundation;
        manager().engageUsingKey(kKey);  // after the first, only the flag is computed
        EXPECT_EQ(manager().backgroundNotificationEnabled(), enabled)
            << modes.dump() << " " << coreFoundation;
    }
}

using Version = std::pair<std::optional<std::string>, bool>;  // the version, and newer than 10?
class KXEngagementRegistrationTest : public KXEngagementTest,
                                     public testing::WithParamInterface<Version> {};

TEST_P(KXEngagementRegistrationTest, TheSystemVersionChoosesTheRegistration) {
    const auto& [version, newer] = GetParam();
    start({.systemVersion = version});
    manager().engageUsingKey(kKey);
    drain();

    // Either way the application registers: the older way once the library's delegate sees
    // the settings registered.
    EXPECT_EQ(platform->recordingApplication().registerForRemoteNotificationsCount(), 1);
    EXPECT_EQ(platform->fakeNotificationAuthorizer().requests(),
              newer ? std::vector<std::uint32_t>{7} : std::vector<std::uint32_t>{});
    const auto settings = application().currentUserNotificationSettings();
    EXPECT_EQ(settings.has_value(), !newer);
    EXPECT_EQ(settings ? settings->types : 7u, 7u);
    EXPECT_TRUE(!settings || settings->categories.empty());
}

INSTANTIATE_TEST_SUITE_P(Versions, KXEngagementRegistrationTest,
                         testing::Values(Version{"9.10.4", false}, Version{"10", false},
                                         Version{"10.0", true}, Version{"10.0.1", true},
                                         Version{std::nullopt, true}));

TEST_F(KXEngagementTest, AMissingConfigurationShowsTheAlertAndStillRegistersForNotifications) {
    start({.writeConfiguration = false});
    manager().engageUsingKey(kKey);
    drain();
    const auto alerts = platform->fakeAlertPresenter().alerts();
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].title, "Missing Config File");
    EXPECT_NE(installedProxy(), nullptr);  // engaged all the same
    EXPECT_EQ(platform->fakeNotificationAuthorizer().requests(), std::vector<std::uint32_t>{7});
    EXPECT_EQ(platform->recordingApplication().registerForRemoteNotificationsCount(), 1);
    EXPECT_EQ(manager().clientId(), std::nullopt);
    EXPECT_EQ(KXOAuth2Client::client().clientId(), std::nullopt);
    EXPECT_EQ(logged("Authenticating KX iOS SDK"), 0u);
    EXPECT_TRUE(platform->locationSources().empty());
}

TEST_F(KXEngagementTest, RemoteNotificationsReachTheAnalyticsEngineWithTheApplicationsState) {
    start({.infoDictionary = {{"UIBackgroundModes", {"remote-notification"}}}});
    manager().engageUsingKey(kKey);
    application().postEvent(KXApplicationEvent::DidBecomeActive);
    KXClientFramework::enableAnalytics(true);  // created while active: no session yet
    const auto engine = KXAnalytics::engaged();
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(manager().sharedZandrel()->analytics(), engine);

    int completions = 0;
    application().deliverRemoteNotification({{"aps", {{"alert", "hello"}}}},
                                            [&](KXBackgroundFetchResult) { ++completions; });
    EXPECT_EQ(logged("Application running and received push: {\"aps\":{\"alert\":\"hello\"}}, "
                     "applicationState: Active"),
              1u);
    EXPECT_EQ(completions, 0);  // the library's delegate never answers
    application().postEvent(KXApplicationEvent::DidEnterBackground);
    application().deliverRemoteNotification({{"n", 1}});
    EXPECT_EQ(engine->notificationUserInfo(), KXJSON({{"n", 1}}));

    // After eject the engine is gone and nothing reaches analytics.
    KXClientFramework::eject();
    EXPECT_EQ(KXAnalytics::engaged(), nullptr);
    KXClientFrameworkAppDelegate().didReceiveRemoteNotification(application(), {{"n", 2}}, {});
    EXPECT_EQ(engine->notificationUserInfo(), KXJSON({{"n", 1}}));
}

TEST_F(KXEngagementTest, EjectAndTerminationRestoreTheDelegateAndALaterEngageWrapsItAgain) {
    start();
    manager().engageUsingKey(kKey);
    ASSERT_TRUE(waitForReady());
    const auto firstProxy = installedProxy();
    KXClientFramework::eject();
    EXPECT_EQ(application().delegate(), appDelegate);
    EXPECT_EQ(manager().sharedZandrel(), nullptr);
    EXPECT_EQ(manager().clientId(), "stage-id");  // settings stay
    KXClientFramework::eject();                   // nothing left to do
    EXPECT_EQ(application().delegate(), appDelegate);

    manager().engageUsingKey(kKey);
    const auto secondProxy = installedProxy();
    ASSERT_NE(secondProxy, nullptr);
    EXPECT_NE(secondProxy, firstProxy);
    EXPECT_EQ(secondProxy->originalAppDelegate(), appDelegate);
    ASSERT_TRUE(service.waitForRequests(2, std::chrono::seconds(15)));
    EXPECT_EQ(service.requestsTo("/staging/token").size(), 2u);  // authenticated again

    // Termination ejects, once.
    application().postEvent(KXApplicationEvent::WillTerminate);
    EXPECT_EQ(application().delegate(), appDelegate);
    EXPECT_EQ(manager().sharedZandrel(), nullptr);
    EXPECT_THAT(
        sink->linesContaining("] Handle AppTerminationNotification"),
        ElementsAre(StartsWith("[DEBUG] KXClientFramework::handleAppTerminationNotification ")));
    manager().engageUsingKey(kKey);
    application().postEvent(KXApplicationEvent::WillTerminate);
    EXPECT_NE(installedProxy(), nullptr);
}

TEST_F(KXEngagementTest, LaunchingWithoutEngagingLogsTwoErrorsOnce) {
    start();
    kxLogLevel = 1;
    application().postEvent(KXApplicationEvent::DidFinishLaunching);
    application().postEvent(KXApplicationEvent::DidFinishLaunching);
    EXPECT_THAT(
        sink->lines(),
        ElementsAre(
            AllOf(StartsWith(
                      "[ERROR] KXClientFramework::handleAppDidFinishLaunchingNotification [Line "),
                  HasSubstr("] [KXClientFramework engage] was not called in "
                            "application:didFinishLaunchingWithOptions:")),
            HasSubstr("] Please ensure that [KXClientFramework engage] is called synchronously "
                      "before application:didFinishLaunchingWithOptions: returns")));
}

TEST_F(KXEngagementTest, LocationFollowsTheConfigurationAndLaunchingStartsAnalytics) {
    start({.entries = kStagingEntries + "<key>analyticsEnabled</key><true/>\n" +
                      "<key>locationServicesEnabled</key><true/>\n",
           .infoDictionary = {{"NSLocationWhenInUseUsageDescription", "To find your table"}}});
    manager().engageUsingKey(kKey);
    ASSERT_EQ(platform->locationSources().size(), 1u);
    EXPECT_TRUE(platform->locationSources()[0]->isUpdating());
    EXPECT_TRUE(KXLocationService::sharedManager().isEnabled());
    EXPECT_EQ(logged("NSLocationAlwaysUsageDescription in the info.plist"), 1u);
    EXPECT_EQ(logged("NSLocationWhenInUseUsageDescription in the info"), 0u);
    EXPECT_FALSE(analyticsEnabled.load());

    application().postEvent(KXApplicationEvent::DidFinishLaunching,
                            {{UIApplicationLaunchOptionsRemoteNotificationKey, {{"aps", 1}}}});
    EXPECT_TRUE(analyticsEnabled.load());
    EXPECT_EQ(logged("] Analytics started!"), 1u);
    // The engine runs and keeps the notification that launched the application.
    ASSERT_NE(KXAnalytics::engaged(), nullptr);
    EXPECT_EQ(KXAnalytics::engaged()->notificationUserInfo(), KXJSON({{"aps", 1}}));
    EXPECT_EQ(logged("not called in"), 0u);
    // Location switched again, on the same source, without a second log line.
    ASSERT_EQ(platform->locationSources().size(), 1u);
    EXPECT_EQ(platform->locationSources()[0]->calls().startUpdatingLocation, 2);
    EXPECT_EQ(logged("] KXLocationService enabled"), 1u);
}

TEST_F(KXEngagementTest, AnEngagementOfItsOwnWorksWithTheCollaboratorsItIsGiven) {
    start({.entries = kStagingEntries + "<key>analyticsEnabled</key><true/>\n"});
    KXConfig configuration;
    KXOAuth2Client tokenClient;
    KXLocationService location;
    KXNotificationCenter center;
    int dispatchersMade = 0;
    int enginesMade = 0;
    KXClientFramework caller;  // settings of its own, not the process's
    {
        KXEngagement engagement({
            .platform = [&]() -> KXPlatform& { return *platform; },
            .configuration = configuration,
            .tokenClient = tokenClient,
            .location = location,
            .notificationCenter = center,
            .makeDispatcher =
                [&] {
                    ++dispatchersMade;
                    return std::make_shared<KXClientFrameworkAppDelegateProxy>();
                },
            .makeAnalytics =
                [&] {
                    ++enginesMade;
                    return KXAnalytics::create();
                },
        });
        engagement.observeLaunchAndTermination();
        engagement.engage(caller, kKey);

        ASSERT_NE(engagement.engaged(), nullptr);
        EXPECT_EQ(manager().sharedZandrel(), nullptr);  // the façade's engagement is untouched
        EXPECT_EQ(dispatchersMade, 1);
        EXPECT_EQ(installedProxy(), engagement.engaged()->appDelegate());
        EXPECT_EQ(KXConfig::defaultConfig().stageClientId(), std::nullopt);
        EXPECT_EQ(caller.clientId(), "stage-id");
        EXPECT_EQ(manager().clientId(), std::nullopt);
        EXPECT_EQ(tokenClient.clientId(), "stage-id");
        EXPECT_EQ(KXOAuth2Client::client().clientId(), std::nullopt);
        ASSERT_TRUE(waitForReady());
        EXPECT_EQ(service.requestsTo("/staging/token").size(), 1u);

        // Launch is observed on the engagement's own centre, not the process's, and once.
        application().postEvent(KXApplicationEvent::DidFinishLaunching);
        EXPECT_EQ(enginesMade, 0);
        center.post(KXApplicationEvent::DidFinishLaunching);
        center.post(KXApplicationEvent::DidFinishLaunching);
        EXPECT_EQ(enginesMade, 1);
        EXPECT_NE(engagement.engaged()->analytics(), nullptr);
        EXPECT_EQ(logged("[DEBUG] KXClientFramework::enableAnalytics "), 1u);
    }
    // Gone while engaged: the application has its own delegate back.
    EXPECT_EQ(application().delegate(), appDelegate);
}

TEST_F(KXEngagementTest, AnalyticsCannotBeSwitchedBeforeEngaging) {
    start();
    KXClientFramework::enableAnalytics(true);
    EXPECT_FALSE(analyticsEnabled.load());
    EXPECT_EQ(KXAnalytics::engaged(), nullptr);
    EXPECT_THAT(sink->linesContaining("] _sharingZandrel is nil. Unable to start analytics."),
                ElementsAre(StartsWith("[DEBUG] ")));

    manager().engageUsingKey(kKey);
    KXClientFramework::enableAnalytics(true);
    EXPECT_TRUE(analyticsEnabled.load());
    const auto engine = KXAnalytics::engaged();
    ASSERT_NE(engine, nullptr);
    KXClientFramework::enableAnalytics(true);  // the running engine stays
    EXPECT_EQ(KXAnalytics::engaged(), engine);
    EXPECT_EQ(logged("] Analytics started!"), 2u);

    // Off: the engine ends its session under a background task and is dropped.
    KXClientFramework::enableAnalytics(false);
    EXPECT_FALSE(analyticsEnabled.load());
    EXPECT_EQ(KXAnalytics::engaged(), nullptr);
    EXPECT_EQ(manager().sharedZandrel()->analytics(), nullptr);
    EXPECT_NE(engine->backgroundTask(), KXBackgroundTaskInvalid);
    EXPECT_EQ(application().backgroundTaskCount(), 1u);
}
