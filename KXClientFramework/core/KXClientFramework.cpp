#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXGlobals.h>

#include <utility>

namespace {

std::mutex& endpointsMutex() {
    static std::mutex mutex;
    return mutex;
}

KXServiceEndpoints& installedEndpoints() {
    static KXServiceEndpoints endpoints;
    return endpoints;
}

template <typename T>
T read(std::mutex& mutex, const T& value) {
    std::lock_guard lock(mutex);
    return value;
}

template <typename T>
void write(std::mutex& mutex, T& slot, T value) {
    std::lock_guard lock(mutex);
    slot = std::move(value);
}

}  // namespace

KXClientFramework& KXClientFramework::sharedManager() {
    // Never destroyed: components may read settings from any thread until the process ends.
    static KXClientFramework* const manager = new KXClientFramework();
    return *manager;
}

KXClientFramework::KXClientFramework() = default;

std::int64_t KXClientFramework::environment() const {
    return read(mutex_, environment_);
}
std::optional<std::string> KXClientFramework::businessUnit() const {
    return read(mutex_, businessUnit_);
}
void KXClientFramework::setBusinessUnit(std::optional<std::string> businessUnit) {
    write(mutex_, businessUnit_, std::move(businessUnit));
}
bool KXClientFramework::RESTfulServiceLoggingEnabled() const {
    return read(mutex_, RESTfulServiceLoggingEnabled_);
}
void KXClientFramework::setRESTfulServiceLoggingEnabled(bool enabled) {
    write(mutex_, RESTfulServiceLoggingEnabled_, enabled);
}
bool KXClientFramework::useInternalKXAPIService() const {
    return read(mutex_, useInternalKXAPIService_);
}
void KXClientFramework::setUseInternalKXAPIService(bool use) {
    write(mutex_, useInternalKXAPIService_, use);
}
std::optional<std::string> KXClientFramework::clientId() const {
    return read(mutex_, clientId_);
}
void KXClientFramework::setClientId(std::optional<std::string> clientId) {
    write(mutex_, clientId_, std::move(clientId));
}
std::optional<std::string> KXClientFramework::clientSecret() const {
    return read(mutex_, clientSecret_);
}
void KXClientFramework::setClientSecret(std::optional<std::string> clientSecret) {
    write(mutex_, clientSecret_, std::move(clientSecret));
}
std::optional<std::string> KXClientFramework::applicationId() const {
    return read(mutex_, applicationId_);
}
void KXClientFramework::setApplicationId(std::optional<std::string> applicationId) {
    write(mutex_, applicationId_, std::move(applicationId));
}
bool KXClientFramework::pushEnabledOnDevice() const {
    return read(mutex_, pushEnabledOnDevice_);
}
void KXClientFramework::setPushEnabledOnDevice(bool enabled) {
    write(mutex_, pushEnabledOnDevice_, enabled);
}
bool KXClientFramework::backgroundNotificationEnabled() const {
    return read(mutex_, backgroundNotificationEnabled_);
}
void KXClientFramework::setBackgroundNotificationEnabled(bool enabled) {
    write(mutex_, backgroundNotificationEnabled_, enabled);
}
std::optional<std::string> KXClientFramework::applicationName() const {
    return read(mutex_, applicationName_);
}
void KXClientFramework::setApplicationName(std::optional<std::string> applicationName) {
    write(mutex_, applicationName_, std::move(applicationName));
}

void KXClientFramework::setEnvironment(std::int64_t environment) {
    KXClientFramework& manager = sharedManager();
    write(manager.mutex_, manager.environment_, environment);
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
    write(endpointsMutex(), installedEndpoints(), std::move(endpoints));
}
KXServiceEndpoints KXClientFramework::serviceEndpoints() {
    return read(endpointsMutex(), installedEndpoints());
}
