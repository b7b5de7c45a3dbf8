#include "KXTestPlatform.h"

#include "KXTestDirectories.h"

#include <KXClientFramework/KXLinuxPlatform.h>

#include <asio/post.hpp>

#include <cstdlib>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

// ---------------------------------------------------------------------------------------------

std::chrono::system_clock::time_point KXFakeClock::now() const {
    std::lock_guard lock(mutex_);
    const auto reading = now_;
    now_ += step_;
    return reading;
}

void KXFakeClock::setStepPerReading(std::chrono::system_clock::duration step) {
    std::lock_guard lock(mutex_);
    step_ = step;
}

void KXFakeClock::set(std::chrono::system_clock::time_point time) {
    std::lock_guard lock(mutex_);
    now_ = time;
}

void KXFakeClock::advance(std::chrono::system_clock::duration by) {
    std::lock_guard lock(mutex_);
    now_ += by;
}

void KXFakeAlertPresenter::present(const KXAlert& alert) {
    std::lock_guard lock(mutex_);
    alerts_.push_back(alert);
}

std::vector<KXAlert> KXFakeAlertPresenter::alerts() const {
    std::lock_guard lock(mutex_);
    return alerts_;
}

void KXFakeNotificationAuthorizer::requestAuthorization(
    std::uint32_t options,
    std::function<void(bool granted, const std::optional<KXError>& error)> completion) {
    bool granted = false;
    std::optional<KXError> error;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(options);
        granted = granted_;
        error = error_;
    }
    if (completion) {
        mainQueue_.post(
            [completion = std::move(completion), granted, error] { completion(granted, error); });
    }
}

void KXFakeNotificationAuthorizer::setAnswer(bool granted, std::optional<KXError> error) {
    std::lock_guard lock(mutex_);
    granted_ = granted;
    error_ = std::move(error);
}

std::vector<std::uint32_t> KXFakeNotificationAuthorizer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void KXFakeLocationSource::startUpdatingLocation() {
    ++calls_.startUpdatingLocation;
    updating_ = true;
}

void KXFakeLocationSource::stopUpdatingLocation() {
    ++calls_.stopUpdatingLocation;
    updating_ = false;
}

void KXFakeLocationSource::startMonitoringSignificantLocationChanges() {
    ++calls_.startMonitoringSignificantLocationChanges;
    monitoring_ = true;
}

void KXFakeLocationSource::stopMonitoringSignificantLocationChanges() {
    ++calls_.stopMonitoringSignificantLocationChanges;
    monitoring_ = false;
}

void KXFakeLocationSource::deliver(const std::vector<KXLocation>& locations) {
    if (delegate_ != nullptr) {
        delegate_->didUpdateLocations(locations);
    }
}

void KXFakeLocationSource::deliverError(const KXError& error) {
    if (delegate_ != nullptr) {
        delegate_->didFailWithError(error);
    }
}

// ---------------------------------------------------------------------------------------------

namespace {

fs::path baseDirectory(const char* variable, const char* homeRelative) {
    if (const char* value = std::getenv(variable); value != nullptr && value[0] == '/') {
        return value;
    }
    const char* home = std::getenv("HOME");
    return fs::path(home != nullptr ? home : "/tmp") / homeRelative;
}

fs::path temporaryRoot() {
    if (!KXTestDirectories::current().empty()) {
        return KXTestDirectories::current();
    }
    return fs::temp_directory_path();
}

}  // namespace

KXTestPlatform::KXTestPlatform(KXTestPlatformOptions options) : options_(std::move(options)) {
    const std::string& id = options_.applicationId;
    configDirectory_ = baseDirectory("XDG_CONFIG_HOME", ".config") / id;
    dataDirectory_ = baseDirectory("XDG_DATA_HOME", ".local/share") / id;
    cachesDirectory_ = baseDirectory("XDG_CACHE_HOME", ".cache") / id;

    resourceDirectories_ = options_.resourceDirectories;
    if (resourceDirectories_.empty()) {
        resourceDirectories_.push_back(temporaryRoot() / "resources");
        std::error_code ec;
        fs::create_directories(resourceDirectories_.front(), ec);
    }

    deviceFacts_.systemName = "Debian GNU/Linux";
    deviceFacts_.systemVersion = "12";
    deviceFacts_.model = "Test Machine";
    deviceFacts_.manufacturer = "Test Manufacturer";
    deviceFacts_.localeIdentifier = "en_US";
    deviceFacts_.preferredLanguages = {"en-US"};
    deviceFacts_.coreFoundationVersionNumber = kKXLinuxCoreFoundationVersionNumber;

    keychain_ = std::make_unique<KXFileKeychain>(dataDirectory_ / "keychain.plist");
    userDefaults_ = std::make_unique<KXFileUserDefaults>(configDirectory_ / "UserDefaults.plist");
    bundle_ =
        std::make_unique<KXDirectoryBundle>(resourceDirectories_, options_.infoDictionary, id);
    application_ =
        std::make_unique<KXRecordingApplication>(mainQueue_, options_.backgroundTimeLimit);
    backgroundQueue_ = std::make_unique<KXBackgroundQueue>(options_.backgroundThreads);
}

KXTestPlatform::~KXTestPlatform() {
    backgroundQueue_->shutdown();
}

std::shared_ptr<KXTestPlatform> KXTestPlatform::install(KXTestPlatformOptions options) {
    auto platform = std::make_shared<KXTestPlatform>(std::move(options));
    KXPlatform::install(platform);
    return platform;
}

KXDeviceFacts KXTestPlatform::deviceFacts() const {
    return deviceFacts_;
}

std::unique_ptr<KXLocationSource> KXTestPlatform::makeLocationSource() {
    auto source = std::make_unique<KXFakeLocationSource>();
    locationSources_.push_back(source.get());
    return source;
}

bool KXTestPlatform::runUntil(const std::function<bool()>& done,
                              std::chrono::milliseconds timeout) {
    return mainQueue_.runUntil(done, timeout);
}
