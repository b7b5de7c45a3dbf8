// The façade: the shared manager's settings, the engaged object's parts, the user-defaults
// entries, and the engagement operations, which the process's engagement carries out.
#include <KXClientFramework/KXEngagement.h>

#include <KXClientFramework/KXAnalytics.h>
#include <KXClientFramework/KXClientFrameworkFacade.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXProcessWide.h>

#include <utility>

KXClientFramework& KXClientFramework::sharedManager() {
    return kxProcessWide<KXClientFramework>(KXSettings::shared());
}

KXClientFramework::KXClientFramework()
    : ownSettings_(std::make_unique<KXSettings>()), settings_(*ownSettings_) {}

KXClientFramework::KXClientFramework(KXSettings& settings) : settings_(settings) {}

std::int64_t KXClientFramework::environment() const {
    return settings_.environment();
}
std::optional<std::string> KXClientFramework::businessUnit() const {
    return settings_.businessUnit();
}
void KXClientFramework::setBusinessUnit(std::optional<std::string> businessUnit) {
    settings_.setBusinessUnit(std::move(businessUnit));
}
bool KXClientFramework::RESTfulServiceLoggingEnabled() const {
    return settings_.RESTfulServiceLoggingEnabled();
}
void KXClientFramework::setRESTfulServiceLoggingEnabled(bool enabled) {
    settings_.setRESTfulServiceLoggingEnabled(enabled);
}
bool KXClientFramework::useInternalKXAPIService() const {
    return settings_.useInternalKXAPIService();
}
void KXClientFramework::setUseInternalKXAPIService(bool use) {
    settings_.setUseInternalKXAPIService(use);
}
std::optional<std::string> KXClientFramework::clientId() const {
    return settings_.clientId();
}
void KXClientFramework::setClientId(std::optional<std::string> clientId) {
    settings_.setClientId(std::move(clientId));
}
std::optional<std::string> KXClientFramework::clientSecret() const {
    return settings_.clientSecret();
}
void KXClientFramework::setClientSecret(std::optional<std::string> clientSecret) {
    settings_.setClientSecret(std::move(clientSecret));
}
std::optional<std::string> KXClientFramework::applicationId() const {
    return settings_.applicationId();
}
void KXClientFramework::setApplicationId(std::optional<std::string> applicationId) {
    settings_.setApplicationId(std::move(applicationId));
}
bool KXClientFramework::pushEnabledOnDevice() const {
    return settings_.pushEnabledOnDevice();
}
void KXClientFramework::setPushEnabledOnDevice(bool enabled) {
    settings_.setPushEnabledOnDevice(enabled);
}
bool KXClientFramework::backgroundNotificationEnabled() const {
    return settings_.backgroundNotificationEnabled();
}
void KXClientFramework::setBackgroundNotificationEnabled(bool enabled) {
    settings_.setBackgroundNotificationEnabled(enabled);
}
std::optional<std::string> KXClientFramework::applicationName() const {
    return settings_.applicationName();
}
void KXClientFramework::setApplicationName(std::optional<std::string> applicationName) {
    settings_.setApplicationName(std::move(applicationName));
}

void KXClientFramework::setEnvironment(std::int64_t environment) {
    KXSettings::shared().setEnvironment(environment);
}
void KXClientFramework::setRESTfulServiceLogging(bool enabled) {
    sharedManager().setRESTfulServiceLoggingEnabled(enabled);
}
void KXClientFramework::setInternalKXAPIService(bool use) {
    sharedManager().setUseInternalKXAPIService(use);
}
void KXClientFramework::setLogging(bool enabled) {
    kxLoggingEnabled.store(enabled);
}
void KXClientFramework::setDiskLogging(bool enabled) {
    kxLoggingToDiskEnabled.store(enabled);
}
void KXClientFramework::setLogLevel(std::int64_t level) {
    kxLogLevel.store(level);
}

void KXClientFramework::setServiceEndpoints(KXServiceEndpoints endpoints) {
    KXSettings::shared().setServiceEndpoints(std::move(endpoints));
}
KXServiceEndpoints KXClientFramework::serviceEndpoints() {
    return KXSettings::shared().serviceEndpoints();
}

// ---------------------------------------------------------------------------------------------
// Engagement

void KXClientFramework::engageUsingKey(const std::string& key) {
    KXEngagement::shared().engage(*this, key);
}

void KXClientFramework::setEngagementAuthenticationHandler(
    std::function<void(const std::optional<KXError>&)> handler) {
    KXEngagement::shared().setAuthenticationHandler(std::move(handler));
}

void KXClientFramework::engageWithAutoGuestUsingKey(
    const std::string& key, std::function<void(const std::shared_ptr<KXGuest>&)> success,
    std::function<void(const KXError&)> failure) {
    KXEngagement::shared().engageWithAutoGuest(*this, key, std::move(success), std::move(failure));
}

std::string KXClientFramework::autoGuestStorageKey() {
    return KXEngagement::shared().autoGuestStorageKey();
}

void KXClientFramework::authZconfig() {
    KXEngagement::shared().chooseCredentials(*this);
}

void KXClientFramework::authenticateWithClientId(const std::optional<std::string>& clientId,
                                                 const std::optional<std::string>& secret,
                                                 std::function<void()> success,
                                                 std::function<void(const KXError&)> failureBlock) {
    KXEngagement::shared().authenticate(clientId, secret, std::move(success),
                                        std::move(failureBlock));
}

std::shared_ptr<KXClientFramework> KXClientFramework::sharedZandrel() const {
    return KXEngagement::shared().engaged();
}

void KXClientFramework::load() {
    KXEngagement::shared().observeLaunchAndTermination();
}

void KXClientFramework::handleAppDidFinishLaunchingNotification(
    const KXNotification& notification) {
    KXEngagement::shared().handleLaunch(notification);
}

void KXClientFramework::handleAppTerminationNotification(const KXNotification& notification) {
    KXEngagement::shared().handleTermination(notification);
}

void KXClientFramework::eject() {
    KXEngagement::shared().eject();
}

void KXClientFramework::enableAnalytics(bool enabled) {
    KXEngagement::shared().enableAnalytics(enabled);
}

// ---------------------------------------------------------------------------------------------
// The engaged object's parts

std::shared_ptr<KXClientFrameworkAppDelegateProxy> KXClientFramework::appDelegate() const {
    return appDelegate_.get();
}

void KXClientFramework::setAppDelegate(std::shared_ptr<KXClientFrameworkAppDelegateProxy> proxy) {
    appDelegate_.set(std::move(proxy));
}

bool KXClientFramework::analyticsEnabled() const {
    return analyticsEnabled_.get();
}

void KXClientFramework::setAnalyticsEnabled(bool enabled) {
    analyticsEnabled_.set(enabled);
}

std::shared_ptr<KXAnalytics> KXClientFramework::analytics() const {
    return analytics_.get();
}

void KXClientFramework::setAnalytics(std::shared_ptr<KXAnalytics> analytics) {
    // A replaced engine that was the last reference is released outside the lock.
    analytics_.set(std::move(analytics));
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

namespace {

// Observes launch and termination as soon as the library is loaded, before the application
// runs.
[[maybe_unused]] const bool kObserversRegistered = [] {
    KXClientFramework::load();
    return true;
}();

}  // namespace
