#include <KXClientFramework/KXGuarded.h>
#include <KXClientFramework/KXProcessWide.h>
#include <KXClientFramework/KXSettings.h>

#include <utility>

struct KXSettings::State {
    KXGuarded<std::int64_t> environment;
    KXGuarded<std::optional<std::string>> businessUnit;
    KXGuarded<KXServiceEndpoints> serviceEndpoints;
    KXGuarded<bool> RESTfulServiceLoggingEnabled;
    KXGuarded<bool> useInternalKXAPIService;
    KXGuarded<std::optional<std::string>> clientId;
    KXGuarded<std::optional<std::string>> clientSecret;
    KXGuarded<std::optional<std::string>> applicationId;
    KXGuarded<bool> pushEnabledOnDevice;
    KXGuarded<bool> backgroundNotificationEnabled;
    KXGuarded<std::optional<std::string>> applicationName;
};

KXSettings& KXSettings::shared() {
    return kxProcessWide<KXSettings>();
}

KXSettings::KXSettings() : state_(std::make_unique<State>()) {}
KXSettings::~KXSettings() = default;

std::int64_t KXSettings::environment() const {
    return state_->environment.get();
}
void KXSettings::setEnvironment(std::int64_t environment) {
    state_->environment.set(environment);
}
std::optional<std::string> KXSettings::businessUnit() const {
    return state_->businessUnit.get();
}
void KXSettings::setBusinessUnit(std::optional<std::string> businessUnit) {
    state_->businessUnit.set(std::move(businessUnit));
}
KXServiceEndpoints KXSettings::serviceEndpoints() const {
    return state_->serviceEndpoints.get();
}
void KXSettings::setServiceEndpoints(KXServiceEndpoints endpoints) {
    state_->serviceEndpoints.set(std::move(endpoints));
}
bool KXSettings::RESTfulServiceLoggingEnabled() const {
    return state_->RESTfulServiceLoggingEnabled.get();
}
void KXSettings::setRESTfulServiceLoggingEnabled(bool enabled) {
    state_->RESTfulServiceLoggingEnabled.set(enabled);
}
bool KXSettings::useInternalKXAPIService() const {
    return state_->useInternalKXAPIService.get();
}
void KXSettings::setUseInternalKXAPIService(bool use) {
    state_->useInternalKXAPIService.set(use);
}
std::optional<std::string> KXSettings::clientId() const {
    return state_->clientId.get();
}
void KXSettings::setClientId(std::optional<std::string> clientId) {
    state_->clientId.set(std::move(clientId));
}
std::optional<std::string> KXSettings::clientSecret() const {
    return state_->clientSecret.get();
}
void KXSettings::setClientSecret(std::optional<std::string> clientSecret) {
    state_->clientSecret.set(std::move(clientSecret));
}
std::optional<std::string> KXSettings::applicationId() const {
    return state_->applicationId.get();
}
void KXSettings::setApplicationId(std::optional<std::string> applicationId) {
    state_->applicationId.set(std::move(applicationId));
}
bool KXSettings::pushEnabledOnDevice() const {
    return state_->pushEnabledOnDevice.get();
}
void KXSettings::setPushEnabledOnDevice(bool enabled) {
    state_->pushEnabledOnDevice.set(enabled);
}
bool KXSettings::backgroundNotificationEnabled() const {
    return state_->backgroundNotificationEnabled.get();
}
void KXSettings::setBackgroundNotificationEnabled(bool enabled) {
    state_->backgroundNotificationEnabled.set(enabled);
}
std::optional<std::string> KXSettings::applicationName() const {
    return state_->applicationName.get();
}
void KXSettings::setApplicationName(std::optional<std::string> applicationName) {
    state_->applicationName.set(std::move(applicationName));
}
