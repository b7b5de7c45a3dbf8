// Engagement: taking over the application delegate, loading the configuration, switching
// location, authenticating and registering for notifications; the launch and termination
// handlers; analytics switching.
#include <KXClientFramework/KXAnalytics.h>
#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXClientFrameworkAppDelegate.h>
#include <KXClientFramework/KXClientFrameworkAppDelegateProxy.h>
#include <KXClientFramework/KXClientFrameworkFacade.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXException.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXLocationService.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXNotificationCenter.h>
#include <KXClientFramework/KXNotificationHelper.h>
#include <KXClientFramework/KXOAuth2Client.h>
#include <KXClientFramework/KXPlatform.h>

#include <cctype>
#include <optional>
#include <string_view>
#include <utility>

namespace {

// The first Core Foundation version able to run background remote notifications (iPhone OS
// 7.0).
constexpr double kBackgroundFetchCoreFoundationVersion = 847.2;

// Process-wide engagement state. Never destroyed: the termination handler may run while the
// process ends.
struct Engagement {
    std::mutex mutex;
    std::shared_ptr<KXClientFramework> sharedZandrel;
    bool loaded = false;
    std::optional<KXNotificationCenter::Token> launchObserver;
    std::optional<KXNotificationCenter::Token> terminationObserver;
};

Engagement& engagement() {
    static Engagement* const state = new Engagement();
    return *state;
}

std::shared_ptr<KXClientFramework> currentSharedZandrel() {
    std::lock_guard lock(engagement().mutex);
    return engagement().sharedZandrel;
}

std::string describe(const std::optional<std::string>& value) {
    return value ? *value : "(null)";
}

// Compares two version texts the way a person reads them: runs of digits by their numeric
// value, everything else character by character; a text that ends first is the smaller.
// Negative, zero or positive like strcmp.
int compareNumerically(std::string_view a, std::string_view b) {
    std::size_t i = 0;
    std::size_t j = 0;
    auto isDigit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            std::size_t endA = i;
            std::size_t endB = j;
            while (endA < a.size() && isDigit(a[endA])) {
                ++endA;
            }
            while (endB < b.size() && isDigit(b[endB])) {
                ++endB;
            }
            std::string_view runA = a.substr(i, endA - i);
            std::string_view runB = b.substr(j, endB - j);
            while (runA.size() > 1 && runA.front() == '0') {
                runA.remove_prefix(1);
            }
            while (runB.size() > 1 && runB.front() == '0') {
                runB.remove_prefix(1);
            }
            if (runA.size() != runB.size()) {
                return runA.size() < runB.size() ? -1 : 1;
            }
            if (const int order = runA.compare(runB); order != 0) {
                return order;
            }
            i = endA;
            j = endB;
            continue;
        }
        if (a[i] != b[j]) {
            return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]) ? -1 : 1;
        }
        ++i;
        ++j;
    }
    if (i < a.size()) {
        return 1;
    }
    if (j < b.size()) {
        return -1;
    }
    return 0;
}

// Switches the location service by the configuration; true when it was switched on.
bool switchLocationService() {
    KXLocationService& location = KXLocationService::sharedManager();
    if (KXConfig::defaultConfig().locationServicesEnabled()) {
        location.initializeLocationManager();
        location.enableStandardLocationService();
        return true;
    }
    location.disableStandardLocationService();
    return false;
}

bool declaresBackgroundRemoteNotifications(KXPlatform& platform) {
    const KXJSON modes = platform.mainBundle().objectForInfoDictionaryKey("UIBackgroundModes");
    bool declared = false;
    if (modes.is_array()) {
        for (const KXJSON& mode : modes) {
            if (mode.is_string() && mode.get<std::string>() == "remote-notification") {
                declared = true;
                break;
            }
        }
    }
    return declared && platform.deviceFacts().coreFoundationVersionNumber >=
                           kBackgroundFetchCoreFoundationVersion;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Engaging

void KXClientFramework::engageUsingKey(const std::string& key) {
    KXPlatform& platform = KXPlatform::current();
    setBackgroundNotificationEnabled(declaresBackgroundRemoteNotifications(platform));

    if (!platform.mainQueue().isMainThread()) {
        throw KXException("KXClientFrameworkEngageBackgroundThreadException",
                          "KXClientFramework engage must be called on the main thread.");
    }

    std::shared_ptr<KXClientFramework> engaged;
    {
        std::lock_guard lock(engagement().mutex);
        if (engagement().sharedZandrel) {
            return;
        }
        engaged = std::make_shared<KXClientFramework>();
        engagement().sharedZandrel = engaged;
    }
    auto proxy = std::make_shared<KXClientFrameworkAppDelegateProxy>();
    engaged->setAppDelegate(proxy);

    KXApplication& application = platform.application();
    application.withLock([&] {
        proxy->setOriginalAppDelegate(application.delegate());
        auto delegate = std::make_shared<KXClientFrameworkAppDelegate>();
        // Remote notifications go to the analytics handler of whichever object is engaged when
        // they arrive.
        delegate->setRemoteNotificationHandler(
            [](const KXJSON& userInfo, KXApplicationState state) {
                if (auto current = currentSharedZandrel()) {
                    current->handleNotificationForAnalytics(userInfo, state);
                }
            });
        proxy->setZandrelAppDelegate(std::move(delegate));
        application.setDelegate(proxy);
    });

    KX_LOG_DEBUG("Configuring KX iOS SDK");
    const auto path = platform.mainBundle().pathForResource("KXConfig", "enc");
    if (KXConfig::defaultConfig().configWithContentsOfFile(path, key)) {
        if (switchLocationService()) {
            KX_LOG_DEBUG("KXLocationService enabled");
        }
        KX_LOG_DEBUG("Authenticating KX iOS SDK");
        authZconfig();
        authenticateWithClientId(
            clientId(), clientSecret(), [] { KX_LOG_DEBUG("\n\nKX iOS SDK Ready!\n\n"); },
            [](const KXError& error) {
                KX_LOG_ERROR("Error Zandrel had trouble starting.\n{}", error.description());
            });
    }

    KX_LOG_DEBUG("Register for Pushing KX iOS SDK");
    const auto systemVersion = platform.deviceFacts().systemVersion;
    // An unknown version compares as equal, so it takes the newer registration.
    if (systemVersion && compareNumerically(*systemVersion, "10.0") < 0) {
        KXNotificationHelper::registerUINotifications();
    } else {
        KXNotificationHelper::registerUNNotifications();
    }
}

void KXClientFramework::authZconfig() {
    const KXConfig& config = KXConfig::defaultConfig();
    if (config.inProduction()) {
        setClientId(config.prodClientId());
        setClientSecret(config.prodClientSecret());
    } else {
        setClientId(config.stageClientId());
        setClientSecret(config.stageClientSecret());
    }
    setApplicationId(config.appId());
    KX_LOG_DEBUG(
        "Initializing KX iOS SDK with\n\tbusinessUnit: {},\n\tclientId: {},\n\tapplicationId: "
        "{}\n",
        describe(businessUnit()), describe(clientId()), describe(applicationId()));
}

void KXClientFramework::authenticateWithClientId(const std::optional<std::string>& clientId,
                                                 const std::optional<std::string>& secret,
                                                 std::function<void()> success,
                                                 std::function<void(const KXError&)> failureBlock) {
    KXOAuth2Client& client = KXOAuth2Client::client().initWithClientId(clientId, secret);
    client.authenticateWithSuccess(
        [success = std::move(success)] {
            if (success) {
                success();
            }
        },
        [failure = std::move(failureBlock)](const KXError& error) {
            if (failure) {
                failure(error);
            }
        });
}

std::shared_ptr<KXClientFramework> KXClientFramework::sharedZandrel() const {
    return currentSharedZandrel();
}

// ---------------------------------------------------------------------------------------------
// The engaged object's parts

std::shared_ptr<KXClientFrameworkAppDelegateProxy> KXClientFramework::appDelegate() const {
    std::lock_guard lock(mutex_);
    return appDelegate_;
}

void KXClientFramework::setAppDelegate(std::shared_ptr<KXClientFrameworkAppDelegateProxy> proxy) {
    std::lock_guard lock(mutex_);
    appDelegate_ = std::move(proxy);
}

bool KXClientFramework::analyticsEnabled() const {
    std::lock_guard lock(mutex_);
    return analyticsEnabled_;
}

void KXClientFramework::setAnalyticsEnabled(bool enabled) {
    std::lock_guard lock(mutex_);
    analyticsEnabled_ = enabled;
}

std::shared_ptr<KXAnalytics> KXClientFramework::analytics() const {
    std::lock_guard lock(mutex_);
    return analytics_;
}

void KXClientFramework::setAnalytics(std::shared_ptr<KXAnalytics> analytics) {
    std::shared_ptr<KXAnalytics> previous;
    {
        std::lock_guard lock(mutex_);
        previous = std::exchange(analytics_, std::move(analytics));
    }
    // `previous` may be the last reference; it is released outside the lock.
}

void KXClientFramework::handleNotificationForAnalytics(const KXJSON& userInfo,
                                                       KXApplicationState state) const {
    if (const auto engine = analytics()) {
        engine->handleNotification(userInfo, state);
    }
}

// ---------------------------------------------------------------------------------------------
// User defaults

void KXClientFramework::saveUserDefaultsExternalId(const std::optional<std::string>& externalId,
                                                   const std::string& key) {
    KXUserDefaults& defaults = KXPlatform::current().userDefaults();
    defaults.setObject(key, externalId ? KXJSON(*externalId) : KXJSON());
    defaults.synchronize();
}

std::optional<std::string> KXClientFramework::retrieveUserDefaultsExternalIdForKey(
    const std::string& key) const {
    return KXPlatform::current().userDefaults().stringForKey(key);
}

void KXClientFramework::deleteUserDefaultsExternalIdForKey(const std::string& key) {
    KXUserDefaults& defaults = KXPlatform::current().userDefaults();
    defaults.setObject(key, nullptr);
    defaults.synchronize();
}

// ---------------------------------------------------------------------------------------------
// Life cycle

void KXClientFramework::load() {
    std::lock_guard lock(engagement().mutex);
    if (std::exchange(engagement().loaded, true)) {
        return;
    }
    KXNotificationCenter& center = KXNotificationCenter::defaultCenter();
    engagement().launchObserver = center.addObserver(
        KXApplicationEvent::DidFinishLaunching,
        [](const KXNotification& n) { handleAppDidFinishLaunchingNotification(n); });
    engagement().terminationObserver =
        center.addObserver(KXApplicationEvent::WillTerminate,
                           [](const KXNotification& n) { handleAppTerminationNotification(n); });
}

void KXClientFramework::handleAppDidFinishLaunchingNotification(
    const KXNotification& notification) {
    std::optional<KXNotificationCenter::Token> observer;
    {
        std::lock_guard lock(engagement().mutex);
        observer = std::exchange(engagement().launchObserver, std::nullopt);
    }
    if (observer) {
        KXNotificationCenter::defaultCenter().removeObserver(*observer);
    }

    if (!currentSharedZandrel()) {
        KX_LOG_ERROR(
            "[KXClientFramework engage] was not called in "
            "application:didFinishLaunchingWithOptions:");
        KX_LOG_ERROR(
            "Please ensure that [KXClientFramework engage] is called synchronously before "
            "application:didFinishLaunchingWithOptions: returns");
        return;
    }

    if (KXConfig::defaultConfig().analyticsEnabled()) {
        enableAnalytics(true);
        // The remote notification that launched the application, if any, is kept by the engine;
        // its broadcast identifier goes to the next broadcast the engine makes.
        KXJSON launchingNotification;
        if (notification.userInfo.is_object()) {
            launchingNotification = notification.userInfo.value(
                UIApplicationLaunchOptionsRemoteNotificationKey, KXJSON());
        }
        if (const auto engaged = currentSharedZandrel()) {
            if (const auto engine = engaged->analytics()) {
                engine->setNotificationUserInfo(std::move(launchingNotification));
            }
        }
    }
    switchLocationService();
}

void KXClientFramework::handleAppTerminationNotification(const KXNotification& /*notification*/) {
    std::optional<KXNotificationCenter::Token> observer;
    {
        std::lock_guard lock(engagement().mutex);
        observer = std::exchange(engagement().terminationObserver, std::nullopt);
    }
    if (observer) {
        KXNotificationCenter::defaultCenter().removeObserver(*observer);
    }
    KX_LOG_DEBUG("Handle AppTerminationNotification");
    eject();
}

void KXClientFramework::eject() {
    std::shared_ptr<KXClientFramework> engaged = currentSharedZandrel();
    if (!engaged) {
        return;
    }
    KXApplication& application = KXPlatform::current().application();
    const auto proxy = engaged->appDelegate();
    application.withLock(
        [&] { application.setDelegate(proxy ? proxy->originalAppDelegate() : nullptr); });
    // The engine goes with the engaged object that ran it.
    if (const auto engine = engaged->analytics(); engine && engine == KXAnalytics::engaged()) {
        KXAnalytics::setEngaged(nullptr);
    }
    std::lock_guard lock(engagement().mutex);
    engagement().sharedZandrel.reset();
}

void KXClientFramework::enableAnalytics(bool enabled) {
    const std::shared_ptr<KXClientFramework> engaged = currentSharedZandrel();
    if (!engaged) {
        KX_LOG_DEBUG("_sharingZandrel is nil. Unable to start analytics.");
        return;
    }
    ::analyticsEnabled.store(enabled);
    if (!enabled) {
        if (const auto engine = engaged->analytics()) {
            engine->end();
            if (engine == KXAnalytics::engaged()) {
                KXAnalytics::setEngaged(nullptr);
            }
        }
        engaged->setAnalytics(nullptr);
        return;
    }
    if (!engaged->analytics()) {
        auto engine = KXAnalytics::create();
        KXAnalytics::setEngaged(engine);
        engaged->setAnalytics(std::move(engine));
    }
    KX_LOG_DEBUG("Analytics started!");
}

namespace {

// Observes launch and termination as soon as the library is loaded, before the application
// runs.
[[maybe_unused]] const bool kObserversRegistered = [] {
    KXClientFramework::load();
    return true;
}();

}  // namespace
