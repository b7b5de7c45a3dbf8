// Engagement: taking over the application delegate, loading the configuration, switching
// location, authenticating and registering for notifications; the automatic guest; the launch
// and termination handlers; eject and the analytics switch.
#include <KXClientFramework/KXEngagement.h>

#include <KXClientFramework/KXAnalytics.h>
#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXClientFrameworkAppDelegate.h>
#include <KXClientFramework/KXClientFrameworkAppDelegateProxy.h>
#include <KXClientFramework/KXClientFrameworkFacade.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXException.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXGuestManager.h>
#include <KXClientFramework/KXLocationService.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXNotificationHelper.h>
#include <KXClientFramework/KXOAuth2Client.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXProcessWide.h>

#include <cctype>
#include <string_view>
#include <utility>

namespace {

// The first Core Foundation version able to run background remote notifications (iPhone OS
// 7.0).
constexpr double kBackgroundFetchCoreFoundationVersion = 847.2;

// Engagement logs under the names of the façade operations the application calls.
constexpr std::string_view kEngageUsingKey = "KXClientFramework::engageUsingKey";
constexpr std::string_view kAuthZconfig = "KXClientFramework::authZconfig";
constexpr std::string_view kEngageWithAutoGuest = "KXClientFramework::engageWithAutoGuestUsingKey";
constexpr std::string_view kLaunchHandler =
    "KXClientFramework::handleAppDidFinishLaunchingNotification";
constexpr std::string_view kTerminationHandler =
    "KXClientFramework::handleAppTerminationNotification";
constexpr std::string_view kEnableAnalytics = "KXClientFramework::enableAnalytics";

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

// The engagement the façade forwards to. A type of its own, so that it is nobody else's
// process-wide object.
struct SharedEngagement : KXEngagement {
    SharedEngagement()
        : KXEngagement({
              .platform = []() -> KXPlatform& { return KXPlatform::current(); },
              .configuration = KXConfig::defaultConfig(),
              .tokenClient = KXOAuth2Client::client(),
              .location = KXLocationService::sharedManager(),
              .notificationCenter = KXNotificationCenter::defaultCenter(),
              .makeDispatcher =
                  [] { return std::make_shared<KXClientFrameworkAppDelegateProxy>(); },
              .makeAnalytics = [] { return KXAnalytics::create(); },
          }) {}
};

}  // namespace

KXEngagement::KXEngagement(Collaborators collaborators)
    : collaborators_(std::move(collaborators)) {}

KXEngagement::~KXEngagement() {
    eject();
    for (const auto observer : {launchObserver_, terminationObserver_}) {
        if (observer) {
            collaborators_.notificationCenter.removeObserver(*observer);
        }
    }
}

KXEngagement& KXEngagement::shared() {
    return kxProcessWide<SharedEngagement>();
}

KXPlatform& KXEngagement::platform() const {
    return collaborators_.platform();
}

void KXEngagement::setAuthenticationHandler(AuthenticationHandler handler) {
    std::lock_guard lock(mutex_);
    authenticationHandler_ = std::move(handler);
}

std::shared_ptr<KXClientFramework> KXEngagement::engaged() const {
    std::lock_guard lock(mutex_);
    return engaged_;
}

bool KXEngagement::switchLocationService() {
    KXLocationService& location = collaborators_.location;
    if (collaborators_.configuration.locationServicesEnabled()) {
        location.initializeLocationManager();
        location.enableStandardLocationService();
        return true;
    }
    location.disableStandardLocationService();
    return false;
}

// ---------------------------------------------------------------------------------------------
// Engaging

void KXEngagement::engage(KXClientFramework& caller, const std::string& key) {
    KXPlatform& platform = this->platform();
    caller.setBackgroundNotificationEnabled(declaresBackgroundRemoteNotifications(platform));

    if (!platform.mainQueue().isMainThread()) {
        throw KXException("KXClientFrameworkEngageBackgroundThreadException",
                          "KXClientFramework engage must be called on the main thread.");
    }

    std::shared_ptr<KXClientFramework> engaged;
    {
        std::lock_guard lock(mutex_);
        if (engaged_) {
            return;
        }
        engaged = std::make_shared<KXClientFramework>();
        engaged_ = engaged;
    }
    auto proxy = collaborators_.makeDispatcher();
    engaged->setAppDelegate(proxy);

    KXApplication& application = platform.application();
    application.withLock([&] {
        proxy->setOriginalAppDelegate(application.delegate());
        auto delegate = std::make_shared<KXClientFrameworkAppDelegate>();
        // Remote notifications go to the analytics engine of whichever object is engaged when
        // they arrive.
        delegate->setRemoteNotificationHandler(
            [this](const KXJSON& userInfo, KXApplicationState state) {
                if (auto current = this->engaged()) {
                    current->handleNotificationForAnalytics(userInfo, state);
                }
            });
        proxy->setZandrelAppDelegate(std::move(delegate));
        application.setDelegate(proxy);
    });

    KX_LOG_AS(KXLogLevel::Debug, kEngageUsingKey, "Configuring KX iOS SDK");
    const auto path = platform.mainBundle().pathForResource("KXConfig", "enc");
    if (collaborators_.configuration.loadContentsOfFile(path, key)) {
        if (switchLocationService()) {
            KX_LOG_AS(KXLogLevel::Debug, kEngageUsingKey, "KXLocationService enabled");
        }
        KX_LOG_AS(KXLogLevel::Debug, kEngageUsingKey, "Authenticating KX iOS SDK");
        chooseCredentials(caller);
        AuthenticationHandler told;
        {
            std::lock_guard lock(mutex_);
            told = authenticationHandler_;
        }
        authenticate(
            caller.clientId(), caller.clientSecret(),
            [told] {
                KX_LOG_AS(KXLogLevel::Debug, kEngageUsingKey, "\n\nKX iOS SDK Ready!\n\n");
                if (told) {
                    told(std::nullopt);
                }
            },
            [told](const KXError& error) {
                KX_LOG_AS(KXLogLevel::Error, kEngageUsingKey,
                          "Error Zandrel had trouble starting.\n{}", error.description());
                if (told) {
                    told(error);
                }
            });
    }

    KX_LOG_AS(KXLogLevel::Debug, kEngageUsingKey, "Register for Pushing KX iOS SDK");
    const auto systemVersion = platform.deviceFacts().systemVersion;
    // An unknown version compares as equal, so it takes the newer registration.
    if (systemVersion && compareNumerically(*systemVersion, "10.0") < 0) {
        KXNotificationHelper::registerUINotifications();
    } else {
        KXNotificationHelper::registerUNNotifications();
    }
}

void KXEngagement::chooseCredentials(KXClientFramework& caller) const {
    const KXConfig& config = collaborators_.configuration;
    if (config.inProduction()) {
        caller.setClientId(config.prodClientId());
        caller.setClientSecret(config.prodClientSecret());
    } else {
        caller.setClientId(config.stageClientId());
        caller.setClientSecret(config.stageClientSecret());
    }
    caller.setApplicationId(config.appId());
    KX_LOG_AS(
        KXLogLevel::Debug, kAuthZconfig,
        "Initializing KX iOS SDK with\n\tbusinessUnit: {},\n\tclientId: {},\n\tapplicationId: "
        "{}\n",
        describe(caller.businessUnit()), describe(caller.clientId()),
        describe(caller.applicationId()));
}

void KXEngagement::authenticate(const std::optional<std::string>& clientId,
                                const std::optional<std::string>& secret,
                                std::function<void()> success,
                                std::function<void(const KXError&)> failure) {
    collaborators_.tokenClient.initWithClientId(clientId, secret)
        .authenticateWithSuccess(
            [success = std::move(success)] {
                if (success) {
                    success();
                }
            },
            [failure = std::move(failure)](const KXError& error) {
                if (failure) {
                    failure(error);
                }
            });
}

// ---------------------------------------------------------------------------------------------
// The automatic guest: the guest of this installation is fetched again by the id stored in the
// user defaults, or registered and its id stored.

std::string KXEngagement::autoGuestStorageKey() const {
    const KXConfig& config = collaborators_.configuration;
    const auto& clientId = config.inProduction() ? config.prodClientId() : config.stageClientId();
    return (clientId ? *clientId : std::string("(null)")) + "-GUEST-ID";
}

void KXEngagement::engageWithAutoGuest(KXClientFramework& caller, const std::string& key,
                                       std::function<void(const std::shared_ptr<KXGuest>&)> success,
                                       std::function<void(const KXError&)> failure) {
    engage(caller, key);
    const std::string storageKey = autoGuestStorageKey();

    if (!collaborators_.configuration.autoGuestEnabled()) {
        KX_LOG_AS(KXLogLevel::Debug, kEngageWithAutoGuest,
                  "Delete KXGuest externalId in UserDefaults");
        caller.deleteUserDefaultsExternalIdForKey(storageKey);
        KXGuest::currentGuest()->logout();
        if (success) {
            success(nullptr);
        }
        return;
    }

    // The entry lives in the user defaults, whatever the line says.
    KX_LOG_AS(KXLogLevel::Debug, kEngageWithAutoGuest,
              "Get stored KXGuest external with keychain key: {}", storageKey);
    auto failed = [failure = std::move(failure)](const KXError& error) {
        KX_LOG_AS(KXLogLevel::Error, kEngageWithAutoGuest, "ERROR: {}", error.description());
        if (failure) {
            failure(error);
        }
    };
    // The id is stored back through the façade object that asked, after the answer arrives.
    auto stored = [&caller, storageKey, success](const char* line) {
        return [&caller, storageKey, success, line](const std::shared_ptr<KXGuest>& guest) {
            KX_LOG_AS(KXLogLevel::Debug, kEngageWithAutoGuest, "{}", line);
            caller.saveUserDefaultsExternalId(guest->externalId(), storageKey);
            if (success) {
                success(guest);
            }
        };
    };
    if (const auto storedId = caller.retrieveUserDefaultsExternalIdForKey(storageKey)) {
        KXGuestManager::fetchGuestWithId(
            storedId, stored("Reset KXGuest externalId in UserDefaults"), std::move(failed));
        return;
    }
    KXGuestManager::registerGuestWithSuccess(stored("Set KXGuest externalId in UserDefaults"),
                                             std::move(failed));
}

// ---------------------------------------------------------------------------------------------
// Life cycle

void KXEngagement::observeLaunchAndTermination() {
    std::lock_guard lock(mutex_);
    if (std::exchange(observing_, true)) {
        return;
    }
    KXNotificationCenter& center = collaborators_.notificationCenter;
    launchObserver_ = center.addObserver(
        KXApplicationEvent::DidFinishLaunching,
        [this](const KXNotification& notification) { handleLaunch(notification); });
    terminationObserver_ = center.addObserver(
        KXApplicationEvent::WillTerminate,
        [this](const KXNotification& notification) { handleTermination(notification); });
}

std::optional<KXNotificationCenter::Token> KXEngagement::takeObserver(
    std::optional<KXNotificationCenter::Token> KXEngagement::*observer) {
    std::lock_guard lock(mutex_);
    return std::exchange(this->*observer, std::nullopt);
}

void KXEngagement::handleLaunch(const KXNotification& notification) {
    if (const auto observer = takeObserver(&KXEngagement::launchObserver_)) {
        collaborators_.notificationCenter.removeObserver(*observer);
    }

    if (!engaged()) {
        KX_LOG_AS(KXLogLevel::Error, kLaunchHandler,
                  "[KXClientFramework engage] was not called in "
                  "application:didFinishLaunchingWithOptions:");
        KX_LOG_AS(KXLogLevel::Error, kLaunchHandler,
                  "Please ensure that [KXClientFramework engage] is called synchronously before "
                  "application:didFinishLaunchingWithOptions: returns");
        return;
    }

    if (collaborators_.configuration.analyticsEnabled()) {
        enableAnalytics(true);
        // The remote notification that launched the application, if any, is kept by the engine;
        // its broadcast identifier goes to the next broadcast the engine makes.
        KXJSON launchingNotification;
        if (notification.userInfo.is_object()) {
            launchingNotification = notification.userInfo.value(
                UIApplicationLaunchOptionsRemoteNotificationKey, KXJSON());
        }
        if (const auto current = engaged()) {
            if (const auto engine = current->analytics()) {
                engine->setNotificationUserInfo(std::move(launchingNotification));
            }
        }
    }
    switchLocationService();
}

void KXEngagement::handleTermination(const KXNotification& /*notification*/) {
    if (const auto observer = takeObserver(&KXEngagement::terminationObserver_)) {
        collaborators_.notificationCenter.removeObserver(*observer);
    }
    KX_LOG_AS(KXLogLevel::Debug, kTerminationHandler, "Handle AppTerminationNotification");
    eject();
}

void KXEngagement::eject() {
    const std::shared_ptr<KXClientFramework> current = engaged();
    if (!current) {
        return;
    }
    KXApplication& application = platform().application();
    const auto proxy = current->appDelegate();
    application.withLock(
        [&] { application.setDelegate(proxy ? proxy->originalAppDelegate() : nullptr); });
    // The engine goes with the engaged object that ran it.
    if (const auto engine = current->analytics(); engine && engine == KXAnalytics::engaged()) {
        KXAnalytics::setEngaged(nullptr);
    }
    std::lock_guard lock(mutex_);
    engaged_.reset();
}

void KXEngagement::enableAnalytics(bool enabled) {
    const std::shared_ptr<KXClientFramework> current = engaged();
    if (!current) {
        KX_LOG_AS(KXLogLevel::Debug, kEnableAnalytics,
                  "_sharingZandrel is nil. Unable to start analytics.");
        return;
    }
    ::analyticsEnabled.store(enabled);
    if (!enabled) {
        if (const auto engine = current->analytics()) {
            engine->end();
            if (engine == KXAnalytics::engaged()) {
                KXAnalytics::setEngaged(nullptr);
            }
        }
        current->setAnalytics(nullptr);
        return;
    }
    if (!current->analytics()) {
        auto engine = collaborators_.makeAnalytics();
        KXAnalytics::setEngaged(engine);
        current->setAnalytics(std::move(engine));
    }
    KX_LOG_AS(KXLogLevel::Debug, kEnableAnalytics, "Analytics started!");
}
