#pragma once

// A platform for tests: the real Linux parts where the test can look at real results (the asio
// main queue, file-backed user defaults and keychain in the test's temporary XDG directories, a
// bundle over resource directories the test chooses, a real background queue) and fakes where a
// test must control or observe the outside world (clock, device facts, alerts, location,
// notification authorisation, the application's platform hooks). KXTestPlatform::install()
// makes it the process's platform. Work the library posts to the main queue runs only while the
// test runs the queue (runUntil, poll, runFor).

#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXAsioMainQueue.h>
#include <KXClientFramework/KXDirectoryBundle.h>
#include <KXClientFramework/KXFileKeychain.h>
#include <KXClientFramework/KXFileUserDefaults.h>
#include <KXClientFramework/KXPlatform.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// A clock that stands still until the test sets or advances it, or moves on by a step at every
/// reading once the test sets one (as a device's clock does between two readings). Starts at
/// 2020-01-01 00:00 UTC.
class KXFakeClock final : public KXClock {
public:
    using Clock = std::chrono::system_clock;

    Clock::time_point now() const override {
        return Clock::time_point(Clock::duration(ticks_.fetch_add(step_)));
    }
    void set(Clock::time_point time) { ticks_ = time.time_since_epoch().count(); }
    void advance(Clock::duration by) { ticks_ += by.count(); }
    void setStepPerReading(Clock::duration step) { step_ = step.count(); }

private:
    mutable std::atomic<Clock::rep> ticks_{
        Clock::duration(std::chrono::seconds(1577836800)).count()};
    std::atomic<Clock::rep> step_{0};
};

/// Records every alert instead of showing it.
class KXFakeAlertPresenter final : public KXAlertPresenter {
public:
    void present(const KXAlert& alert) override {
        std::lock_guard lock(mutex_);
        alerts_.push_back(alert);
    }
    std::vector<KXAlert> alerts() const {
        std::lock_guard lock(mutex_);
        return alerts_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<KXAlert> alerts_;
};

/// Answers authorisation requests with the answer the test chose (granted by default), on the
/// main queue, and records the options asked for.
class KXFakeNotificationAuthorizer final : public KXNotificationAuthorizer {
public:
    explicit KXFakeNotificationAuthorizer(KXMainQueue& mainQueue) : mainQueue_(mainQueue) {}

    void requestAuthorization(
        std::uint32_t options,
        std::function<void(bool granted, const std::optional<KXError>& error)> completion) override;

    void grant() { setAnswer(true); }
    void deny(std::optional<KXError> error = std::nullopt) { setAnswer(false, std::move(error)); }
    /// The options of each request, in order.
    std::vector<std::uint32_t> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

private:
    void setAnswer(bool granted, std::optional<KXError> error = std::nullopt) {
        std::lock_guard lock(mutex_);
        granted_ = granted;
        error_ = std::move(error);
    }

    KXMainQueue& mainQueue_;
    mutable std::mutex mutex_;
    bool granted_ = true;
    std::optional<KXError> error_;
    std::vector<std::uint32_t> requests_;
};

/// A location source that records what the library asks of it and delivers what the test
/// hands it, synchronously, to the current delegate (whether or not updates are on, so that a
/// test can also check what the library does with unexpected fixes).
class KXFakeLocationSource final : public KXLocationSource {
public:
    struct Calls {
        int requestWhenInUseAuthorization = 0;
        int requestAlwaysAuthorization = 0;
        int startUpdatingLocation = 0;
        int stopUpdatingLocation = 0;
        int startMonitoringSignificantLocationChanges = 0;
        int stopMonitoringSignificantLocationChanges = 0;
    };

    void setDelegate(KXLocationSourceDelegate* delegate) override { delegate_ = delegate; }
    void setDesiredAccuracy(double metres) override { desiredAccuracy_ = metres; }
    double desiredAccuracy() const override { return desiredAccuracy_; }
    void setDistanceFilter(double metres) override { distanceFilter_ = metres; }
    double distanceFilter() const override { return distanceFilter_; }
    void requestWhenInUseAuthorization() override { ++calls_.requestWhenInUseAuthorization; }
    void requestAlwaysAuthorization() override { ++calls_.requestAlwaysAuthorization; }
    void startUpdatingLocation() override { ++calls_.startUpdatingLocation, updating_ = true; }
    void stopUpdatingLocation() override { ++calls_.stopUpdatingLocation, updating_ = false; }
    void startMonitoringSignificantLocationChanges() override {
        ++calls_.startMonitoringSignificantLocationChanges, monitoring_ = true;
    }
    void stopMonitoringSignificantLocationChanges() override {
        ++calls_.stopMonitoringSignificantLocationChanges, monitoring_ = false;
    }

    void deliver(const std::vector<KXLocation>& locations) {
        if (delegate_ != nullptr) {
            delegate_->didUpdateLocations(locations);
        }
    }
    void deliverError(const KXError& error) {
        if (delegate_ != nullptr) {
            delegate_->didFailWithError(error);
        }
    }

    KXLocationSourceDelegate* delegate() const { return delegate_; }
    const Calls& calls() const { return calls_; }
    bool isUpdating() const { return updating_; }
    bool isMonitoringSignificantChanges() const { return monitoring_; }

private:
    KXLocationSourceDelegate* delegate_ = nullptr;
    double desiredAccuracy_ = -1.0;
    double distanceFilter_ = -1.0;
    bool updating_ = false;
    bool monitoring_ = false;
    Calls calls_;
};

/// The application object with its platform hooks recorded.
class KXRecordingApplication final : public KXApplication {
public:
    using KXApplication::KXApplication;

    int registerForRemoteNotificationsCount() const { return registerCount_; }
    /// Every badge number and indicator state set, in order.
    const std::vector<std::int64_t>& badgeNumbers() const { return badgeNumbers_; }
    const std::vector<bool>& networkActivityIndicatorChanges() const { return indicator_; }

protected:
    void onRegisterForRemoteNotifications() override { ++registerCount_; }
    void onBadgeNumberChanged(std::int64_t number) override { badgeNumbers_.push_back(number); }
    void onNetworkActivityIndicatorChanged(bool visible) override { indicator_.push_back(visible); }

private:
    int registerCount_ = 0;
    std::vector<std::int64_t> badgeNumbers_;
    std::vector<bool> indicator_;
};

struct KXTestPlatformOptions {
    std::string applicationId = "com.example.tests";
    /// Where the bundle looks for resources. Empty: one fresh directory, resourceDirectory(),
    /// under the test's temporary folder.
    std::vector<std::filesystem::path> resourceDirectories;
    /// Merged over the Info.plist of the resources (if any).
    KXJSON infoDictionary = KXJSON::object();
    std::chrono::milliseconds backgroundTimeLimit = std::chrono::seconds(30);
    std::size_t backgroundThreads = 2;
};

class KXTestPlatform final : public KXPlatform {
public:
    explicit KXTestPlatform(KXTestPlatformOptions options = {});
    ~KXTestPlatform() override { backgroundQueue_->shutdown(); }

    /// Makes a test platform and installs it as the process's platform.
    static std::shared_ptr<KXTestPlatform> install(KXTestPlatformOptions options = {});

    KXMainQueue& mainQueue() override { return mainQueue_; }
    KXBackgroundQueue& backgroundQueue() override { return *backgroundQueue_; }
    KXApplication& application() override { return *application_; }
    KXBundle& mainBundle() override { return *bundle_; }
    KXUserDefaults& userDefaults() override { return *userDefaults_; }
    KXKeychain& keychain() override { return *keychain_; }
    KXDeviceFacts deviceFacts() const override { return deviceFacts_; }
    std::filesystem::path cachesDirectory() const override { return cachesDirectory_; }
    /// Returns a KXFakeLocationSource; each one made is also listed by locationSources().
    std::unique_ptr<KXLocationSource> makeLocationSource() override;
    KXNotificationAuthorizer& notificationAuthorizer() override { return authorizer_; }
    KXAlertPresenter& alertPresenter() override { return alerts_; }
    const KXClock& clock() const override { return clock_; }

    // The real parts, by their own types.
    KXAsioMainQueue& asioMainQueue() { return mainQueue_; }
    KXRecordingApplication& recordingApplication() { return *application_; }
    KXFileUserDefaults& fileUserDefaults() { return *userDefaults_; }
    /// The first resource directory (where tests put KXConfig.enc, Info.plist, ...).
    const std::filesystem::path& resourceDirectory() const { return resourceDirectories_.front(); }
    const std::filesystem::path& configDirectory() const { return configDirectory_; }
    const std::filesystem::path& dataDirectory() const { return dataDirectory_; }

    // The fakes.
    KXFakeClock& fakeClock() { return clock_; }
    KXFakeAlertPresenter& fakeAlertPresenter() { return alerts_; }
    KXFakeNotificationAuthorizer& fakeNotificationAuthorizer() { return authorizer_; }
    /// The facts deviceFacts() answers; change them freely.
    KXDeviceFacts& fakeDeviceFacts() { return deviceFacts_; }
    /// Location sources made so far (owned by whoever asked for them: valid while they live).
    const std::vector<KXFakeLocationSource*>& locationSources() const { return locationSources_; }

    /// Runs the main queue until `done()` is true or `timeout` passed; true when done.
    bool runUntil(const std::function<bool()>& done,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return mainQueue_.runUntil(done, timeout);
    }
    /// Runs the work that is ready on the main queue now.
    std::size_t poll() { return mainQueue_.poll(); }

private:
    KXTestPlatformOptions options_;
    std::filesystem::path configDirectory_;
    std::filesystem::path dataDirectory_;
    std::filesystem::path cachesDirectory_;
    std::vector<std::filesystem::path> resourceDirectories_;
    KXFakeClock clock_;
    KXFakeAlertPresenter alerts_;
    KXDeviceFacts deviceFacts_;
    KXAsioMainQueue mainQueue_;
    KXFakeNotificationAuthorizer authorizer_{mainQueue_};
    std::unique_ptr<KXFileKeychain> keychain_;
    std::unique_ptr<KXFileUserDefaults> userDefaults_;
    std::unique_ptr<KXDirectoryBundle> bundle_;
    std::vector<KXFakeLocationSource*> locationSources_;
    std::unique_ptr<KXRecordingApplication> application_;
    std::unique_ptr<KXBackgroundQueue> backgroundQueue_;
};
