#include <KXClientFramework/KXClientFrameworkFacade.h>
#include <KXClientFramework/KXGlobals.h>

#include <utility>

KXClientFramework& KXClientFramework::sharedManager() {
    // Never destroyed: components may read settings from any thread until the process ends.
    static KXClientFramework* const manager = new KXClientFramework(KXSettings::shared());
    return *manager;
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
