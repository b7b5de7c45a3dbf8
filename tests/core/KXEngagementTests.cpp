// Engaging the library: the dispatcher around the application's delegate, the configuration,
// location, credentials and authentication against a loopback token endpoint, notification
// registration; eject; the launch and termination handlers; analytics switching.
#include "KXCapturingSink.h"
#include "KXLoopbackService.h"
#include "KXProcess.h"
#include "KXSealedFiles.h"
#include "KXTestPlatform.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXClientFrameworkAppDelegateProxy.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXEngagement.h>
#include <KXClientFramework/KXException.h>
#include <KXClientFramework/KXFileUserDefaults.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXLocationService.h>
#include <KXClientFramework/KXOAuth2Client.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

using Callback = KXApplicationDelegateCallback;

namespace {

const std::string kKey = "engage-key-42";

const std::string kStagingEntries =
    "<key>appId</key><string>app-1</string>\n"
    "<key>stageClientId</key><string>stage-id</string>\n"
    "<key>stageClientSecret</key><string>stage-secret</string>\n"
    "<key>prodClientId</key><string>prod-id</string>\n"
    "<key>prodClientSecret</key><string>prod-secret</string>\n";

// The application's own delegate: implements the device-token callback and records it.
class AppDelegate : public KXApplicationDelegate {
public:
    bool respondsTo(Callback callback) const override {
        return callback == Callback::Description ||
               callback == Callback::DidRegisterForRemoteNotificationsWithDeviceToken;
    }
    void didRegisterForRemoteNotificationsWithDeviceToken(
        KXApplication&, const std::vector<std::uint8_t>& token) override {
        tokens.push_back(token);
    }
    std::vector<std::vector<std::uint8_t>> tokens;
};

struct Scenario {
    std::string entries = kStagingEntries;
    bool writeConfiguration = true;
    KXJSON infoDictionary = KXJSON::object();
    std::optional<std::string> systemVersion = "12";
    KXScriptedAnswer stagingTokenAnswer =
        KXScriptedAnswer::json(200, {{"access_token", "staging-token"}, {"expires_in", 3600}});
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

        KXServiceEndpoints endpoints;
        endpoints.development = service.baseURL();
        endpoints.production = service.baseURL();
        endpoints.stagingToken = service.baseURL() + "/staging";
        endpoints.productionToken = service.baseURL() + "/production";
        KXClientFramework::setServiceEndpoints(endpoints);
        service.script("POST", "/staging/token", setup.stagingTokenAnswer);
        service.script("POST", "/production/token",
                       KXScriptedAnswer::json(
                           200, {{"access_token", "production-token"}, {"expires_in", 3600}}));

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

    bool waitFor(const std::function<bool()>& done) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            platform->asioMainQueue().runFor(std::chrono::milliseconds(5));
        }
        return true;
    }

    bool waitForReady() {
        return waitFor([&] { return !sink->linesContaining("KX iOS SDK Ready!").empty(); });
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

// ---------------------------------------------------------------------------------------------
// Engaging

TEST_F(KXEngagementTest, EngagingPutsTheDispatcherAroundTheApplicationDelegateAndAuthenticates) {
    start();
    EXPECT_EQ(manager().sharedZandrel(), nullptr);
    KXLocationService::sharedManager().setEnabled(true);

    manager().engageUsingKey(kKey);

    const auto engaged = manager().sharedZandrel();
    ASSERT_NE(engaged, nullptr);
    EXPECT_NE(engaged.get(), &manager());  // the engaged object is not the shared manager
    const auto proxy = installedProxy();
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(engaged->appDelegate(), proxy);
    EXPECT_EQ(proxy->originalAppDelegate(), appDelegate);
    EXPECT_NE(proxy->zandrelAppDelegate(), nullptr);

    // Credentials chosen for staging land on the receiver.
    EXPECT_EQ(manager().clientId(), "stage-id");
    EXPECT_EQ(manager().clientSecret(), "stage-secret");
    EXPECT_EQ(manager().applicationId(), "app-1");

    ASSERT_TRUE(waitForReady());
    EXPECT_EQ(service.requestsTo("/staging/token").size(), 1u);

    // The library's delegate behind the dispatcher takes the device token, and the
    // application's delegate still gets it.
    application().deliverDeviceToken({0x0a, 0x0b, 0xfe});
    EXPECT_EQ(KXDevice::currentDevice().deviceToken(), "0a0bfe");
    EXPECT_TRUE(manager().pushEnabledOnDevice());
    EXPECT_EQ(appDelegate->tokens, (std::vector<std::vector<std::uint8_t>>{{0x0a, 0x0b, 0xfe}}));
    // Without locationServicesEnabled, location stays off.
    EXPECT_FALSE(KXLocationService::sharedManager().isEnabled());
    EXPECT_TRUE(platform->locationSources().empty());
    EXPECT_TRUE(sink->linesContaining("KXLocationService enabled").empty());

    const auto logged = sink->lines();
    auto position = [&](std::string_view text) {
        for (std::size_t i = 0; i < logged.size(); ++i) {
            if (logged[i].find(text) != std::string::npos) {
                return static_cast<long>(i);
            }
        }
        return -1L;
    };
    EXPECT_GE(position("] Configuring KX iOS SDK"), 0);
    EXPECT_LT(position("] Configuring KX iOS SDK"), position("] Authenticating KX iOS SDK"));
    EXPECT_LT(position("] Authenticating KX iOS SDK"),
              position("] Initializing KX iOS SDK with\n\tbusinessUnit: (null),\n\tclientId: "
                       "stage-id,\n\tapplicationId: app-1\n"));
    EXPECT_LT(position("] Authenticating KX iOS SDK"),
              position("] Register for Pushing KX iOS SDK"));
    EXPECT_GE(position("] \n\nKX iOS SDK Ready!\n\n"), 0);
    EXPECT_EQ(position("] Configuring KX iOS SDK"),
              position("[DEBUG] KXClientFramework::engageUsingKey [Line "));
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
    Scenario setup;
    if (row.inProduction) {
        setup.entries += "<key>inProduction</key><true/>\n";
    }
    setup.stagingTokenAnswer = row.tokenAnswer;
    start(setup);
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
    const std::string used = row.inProduction ? "/production/token" : "/staging/token";
    const std::string unused = row.inProduction ? "/staging/token" : "/production/token";
    const auto requests = service.requestsTo(used);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method, "POST");
    const std::string credential = row.inProduction ? "prod" : "stage";
    EXPECT_EQ(kxtest::formFields(requests[0].body),
              (std::map<std::string, std::string>{{"grant_type", "client_credentials"},
                                                  {"scope", "RETURN_ALL_CLIENT_SCOPES"},
                                                  {"client_id", credential + "-id"},
                                                  {"client_secret", credential + "-secret"}}));
    EXPECT_TRUE(service.requestsTo(unused).empty());
    const auto troubleLines =
        sink->linesContaining("] Error Zandrel had trouble starting.\nError Domain=");
    if (row.failureCode) {
        ASSERT_TRUE(told[0].has_value());
        EXPECT_EQ(told[0]->code, *row.failureCode);
        ASSERT_EQ(troubleLines.size(), 1u);
        EXPECT_EQ(troubleLines[0].rfind("[ERROR] ", 0), 0u);
        EXPECT_NE(troubleLines[0].find("Code=" + std::to_string(*row.failureCode)),
                  std::string::npos)
            << troubleLines[0];
        EXPECT_NE(manager().sharedZandrel(), nullptr);  // still engaged
    } else {
        EXPECT_FALSE(told[0].has_value()) << told[0]->description();
        EXPECT_TRUE(troubleLines.empty());
        EXPECT_EQ(manager().clientSecret(), credential + "-secret");
        ASSERT_NE(KXHTTPSessionManager::sharedManager().bearerToken(), nullptr);
        EXPECT_EQ(KXHTTPSessionManager::sharedManager().bearerToken()->token(),
                  row.inProduction ? "production-token" : "staging-token");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, KXEngagementAuthenticationTest,
    testing::Values(
        AuthenticationRow{"Staging", false, Scenario{}.stagingTokenAnswer, std::nullopt},
        AuthenticationRow{"Production", true, Scenario{}.stagingTokenAnswer, std::nullopt},
        AuthenticationRow{"Refused", false,
                          KXScriptedAnswer::json(401, {{"error", "invalid_client"}}), 401},
        AuthenticationRow{"ServerError", false, KXScriptedAnswer::text(503, "<html>", "text/html"),
                          503}),
    [](const testing::TestParamInfo<AuthenticationRow>& info) { return info.param.name; });

TEST_F(KXEngagementTest, ASecondEngageChangesNothingButTheBackgroundFlag) {
    start({.infoDictionary = {{"UIBackgroundModes", {"fetch", "remote-notification"}}}});
    manager().engageUsingKey(kKey);
    ASSERT_TRUE(waitForReady());
    drain();
    const auto engaged = manager().sharedZandrel();
    const auto proxy = installedProxy();
    EXPECT_TRUE(manager().backgroundNotificationEnabled());

    platform->fakeDeviceFacts().coreFoundationVersionNumber = 800.0;
    manager().engageUsingKey("another key");
    drain();

    EXPECT_FALSE(manager().backgroundNotificationEnabled());
    EXPECT_EQ(manager().sharedZandrel(), engaged);
    EXPECT_EQ(installedProxy(), proxy);
    EXPECT_EQ(proxy->originalAppDelegate(), appDelegate);  // not wrapped twice
    EXPECT_EQ(sink->linesContaining("] Configuring KX iOS SDK").size(), 1u);
    EXPECT_EQ(platform->fakeNotificationAuthorizer().requests().size(), 1u);
    EXPECT_EQ(service.requestsTo("/staging/token").size(), 1u);
}

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
    EXPECT_TRUE(thrown->userInfo().is_null());
    EXPECT_EQ(manager().sharedZandrel(), nullptr);
    EXPECT_EQ(application().delegate(), appDelegate);
    EXPECT_TRUE(manager().backgroundNotificationEnabled());  // computed before the check
    EXPECT_TRUE(sink->linesContaining("Configuring KX iOS SDK").empty());

    // The main thread can still engage afterwards.
    manager().engageUsingKey(kKey);
    EXPECT_NE(installedProxy(), nullptr);
}

TEST_F(KXEngagementTest, BackgroundNotificationsNeedTheModeAndARecentEnoughPlatform) {
    struct Case {
        KXJSON modes;
        double coreFoundation;
        bool enabled;
    };
    const std::vector<Case> cases = {
        {{"remote-notification"}, 847.2, true},
        {{"audio", "remote-notification"}, 1600.0, true},
        {{"fetch"}, 1600.0, false},
        {nullptr, 1600.0, false},
        {"remote-notification", 1600.0, false},  // not a list
        {{"remote-notification"}, 847.1, false},
    };
    for (const Case& c : cases) {
        // Nothing to authenticate.
        start({.writeConfiguration = false,
               .infoDictionary =
                   c.modes.is_null() ? KXJSON::object() : KXJSON{{"UIBackgroundModes", c.modes}}});
        platform->fakeDeviceFacts().coreFoundationVersionNumber = c.coreFoundation;
        manager().engageUsingKey(kKey);  // after the first, only the flag is computed
        EXPECT_EQ(manager().backgroundNotificationEnabled(), c.enabled)
            << c.modes.dump() << " " << c.coreFoundation;
    }
}

class KXEngagementRegistrationTest
    : public KXEngagementTest,
      public testing::WithParamInterface<std::pair<std::optional<std::string>, bool>> {};

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
}

using Version = std::pair<std::optional<std::string>, bool>;  // the version, and newer than 10?
INSTANTIATE_TEST_SUITE_P(Versions, KXEngagementRegistrationTest,
                         testing::Values(Version{"9.3", false}, Version{"9.10.4", false},
                                         Version{"10", false}, Version{"10.0", true},
                                         Version{"10.0.1", true}, Version{"11.2", true},
                                         Version{"12", true}, Version{std::nullopt, true}));

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
    // No credentials, no authentication, no location.
    EXPECT_EQ(manager().clientId(), std::nullopt);
    EXPECT_EQ(KXOAuth2Client::client().clientId(), std::nullopt);
    EXPECT_TRUE(sink->linesContaining("Authenticating KX iOS SDK").empty());
    EXPECT_TRUE(platform->locationSources().empty());
}

TEST_F(KXEngagementTest, LocationFollowsTheConfiguration) {
    start({.entries = kStagingEntries + "<key>locationServicesEnabled</key><true/>\n",
           .infoDictionary = {{"NSLocationWhenInUseUsageDescription", "To find your table"}}});
    manager().engageUsingKey(kKey);

    ASSERT_EQ(platform->locationSources().size(), 1u);
    EXPECT_TRUE(platform->locationSources()[0]->isUpdating());
    EXPECT_TRUE(KXLocationService::sharedManager().isEnabled());
    EXPECT_EQ(sink->linesContaining("] KXLocationService enabled").size(), 1u);
    EXPECT_EQ(sink->linesContaining("NSLocationAlwaysUsageDescription in the info.plist").size(),
              1u);
    EXPECT_TRUE(sink->linesContaining("NSLocationWhenInUseUsageDescription in the info").empty());
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
    EXPECT_EQ(sink->linesContaining("Application running and received push: {\"aps\":{\"alert\":"
                                    "\"hello\"}}, applicationState: Active")
                  .size(),
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

// ---------------------------------------------------------------------------------------------
// Eject

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
    const auto lines = sink->linesContaining("] Handle AppTerminationNotification");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("[DEBUG] KXClientFramework::handleAppTerminationNotification ", 0),
              0u);
    manager().engageUsingKey(kKey);
    application().postEvent(KXApplicationEvent::WillTerminate);
    EXPECT_NE(installedProxy(), nullptr);
}

// ---------------------------------------------------------------------------------------------
// Scenario and termination

TEST_F(KXEngagementTest, LaunchingWithoutEngagingLogsTwoErrorsOnce) {
    start();
    kxLogLevel = 1;
    application().postEvent(KXApplicationEvent::DidFinishLaunching);
    application().postEvent(KXApplicationEvent::DidFinishLaunching);

    const auto lines = sink->lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("[ERROR] KXClientFramework::handleAppDidFinishLaunchingNotification "
                             "[Line ",
                             0),
              0u)
        << lines[0];
    EXPECT_NE(lines[0].find("] [KXClientFramework engage] was not called in "
                            "application:didFinishLaunchingWithOptions:"),
              std::string::npos);
    EXPECT_NE(lines[1].find("] Please ensure that [KXClientFramework engage] is called "
                            "synchronously before application:didFinishLaunchingWithOptions: "
                            "returns"),
              std::string::npos);
}

TEST_F(KXEngagementTest, LaunchingAfterEngagingStartsAnalyticsAndLocationByTheConfiguration) {
    start({.entries = kStagingEntries + "<key>analyticsEnabled</key><true/>\n" +
                      "<key>locationServicesEnabled</key><true/>\n"});
    manager().engageUsingKey(kKey);
    ASSERT_EQ(platform->locationSources().size(), 1u);
    EXPECT_FALSE(analyticsEnabled.load());

    application().postEvent(KXApplicationEvent::DidFinishLaunching,
                            {{UIApplicationLaunchOptionsRemoteNotificationKey, {{"aps", 1}}}});
    EXPECT_TRUE(analyticsEnabled.load());
    EXPECT_EQ(sink->linesContaining("] Analytics started!").size(), 1u);
    // The engine runs and keeps the notification that launched the application.
    ASSERT_NE(KXAnalytics::engaged(), nullptr);
    EXPECT_EQ(KXAnalytics::engaged()->notificationUserInfo(), KXJSON({{"aps", 1}}));
    EXPECT_TRUE(sink->linesContaining("not called in").empty());
    // Location switched again, on the same source, without a second log line.
    ASSERT_EQ(platform->locationSources().size(), 1u);
    EXPECT_EQ(platform->locationSources()[0]->calls().startUpdatingLocation, 2);
    EXPECT_EQ(sink->linesContaining("] KXLocationService enabled").size(), 1u);
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
        EXPECT_EQ(configuration.stageClientId(), "stage-id");
        EXPECT_EQ(KXConfig::defaultConfig().stageClientId(), std::nullopt);
        EXPECT_EQ(caller.clientId(), "stage-id");
        EXPECT_EQ(manager().clientId(), std::nullopt);
        EXPECT_EQ(tokenClient.clientId(), "stage-id");
        EXPECT_EQ(KXOAuth2Client::client().clientId(), std::nullopt);
        ASSERT_TRUE(waitForReady());
        EXPECT_EQ(service.requestsTo("/staging/token").size(), 1u);

        // Launch is observed on the engagement's own centre, not the process's.
        application().postEvent(KXApplicationEvent::DidFinishLaunching);
        EXPECT_EQ(enginesMade, 0);
        center.post(KXApplicationEvent::DidFinishLaunching);
        EXPECT_EQ(enginesMade, 1);
        EXPECT_NE(engagement.engaged()->analytics(), nullptr);
        center.post(KXApplicationEvent::DidFinishLaunching);  // observed once
        EXPECT_EQ(enginesMade, 1);
        EXPECT_EQ(sink->linesContaining("[DEBUG] KXClientFramework::enableAnalytics ").size(), 1u);
    }
    // Gone while engaged: the application has its own delegate back.
    EXPECT_EQ(application().delegate(), appDelegate);
}

// ---------------------------------------------------------------------------------------------
// Analytics switch

TEST_F(KXEngagementTest, AnalyticsCannotBeSwitchedBeforeEngaging) {
    start();
    KXClientFramework::enableAnalytics(true);
    EXPECT_FALSE(analyticsEnabled.load());
    const auto lines =
        sink->linesContaining("] _sharingZandrel is nil. Unable to start analytics.");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("[DEBUG] ", 0), 0u);

    EXPECT_EQ(KXAnalytics::engaged(), nullptr);

    manager().engageUsingKey(kKey);
    KXClientFramework::enableAnalytics(true);
    EXPECT_TRUE(analyticsEnabled.load());
    const auto engine = KXAnalytics::engaged();
    ASSERT_NE(engine, nullptr);
    KXClientFramework::enableAnalytics(true);  // the running engine stays
    EXPECT_EQ(KXAnalytics::engaged(), engine);
    EXPECT_EQ(sink->linesContaining("] Analytics started!").size(), 2u);

    // Off: the engine ends its session under a background task and is dropped.
    KXClientFramework::enableAnalytics(false);
    EXPECT_FALSE(analyticsEnabled.load());
    EXPECT_EQ(KXAnalytics::engaged(), nullptr);
    EXPECT_EQ(manager().sharedZandrel()->analytics(), nullptr);
    EXPECT_NE(engine->backgroundTask(), KXBackgroundTaskInvalid);
    EXPECT_EQ(application().backgroundTaskCount(), 1u);
}

// ---------------------------------------------------------------------------------------------
// User defaults

TEST_F(KXEngagementTest, ExternalIdsAreStoredInTheUserDefaultsFile) {
    start();
    manager().saveUserDefaultsExternalId("guest-77", "stage-id-GUEST-ID");
    EXPECT_EQ(manager().retrieveUserDefaultsExternalIdForKey("stage-id-GUEST-ID"), "guest-77");
    EXPECT_EQ(
        KXFileUserDefaults(platform->fileUserDefaults().path()).objectForKey("stage-id-GUEST-ID"),
        "guest-77");

    manager().deleteUserDefaultsExternalIdForKey("stage-id-GUEST-ID");
    EXPECT_EQ(manager().retrieveUserDefaultsExternalIdForKey("stage-id-GUEST-ID"), std::nullopt);
    EXPECT_TRUE(KXFileUserDefaults(platform->fileUserDefaults().path())
                    .objectForKey("stage-id-GUEST-ID")
                    .is_null());
    EXPECT_EQ(manager().retrieveUserDefaultsExternalIdForKey("never-set"), std::nullopt);
}
