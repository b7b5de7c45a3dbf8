#pragma once

#include <KXClientFramework/KXApplicationDelegate.h>
#include <KXClientFramework/KXApplicationTypes.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXUserNotificationSettings.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class KXMainQueue;

/// The application object: the delegate slot, state, badge, activity indicator, remote-
/// notification registration, background tasks and launch options.
///
/// The library uses the public operations. The host (or a toolkit adapter) drives it with
/// postEvent() and the deliver...() operations, which is what an operating system does for a
/// phone application. A platform specialises the hooks (protected virtuals) to show the badge
/// or the indicator, or to reach a push service.
///
/// Everything except the delegate slot and the plain value accessors is meant for the main
/// thread. The delegate slot is guarded by the application's lock, which withLock() holds
/// around a read-modify-write of the slot.
class KX_EXPORT KXApplication {
public:
    /// `backgroundTimeLimit`: how long background tasks may run after the application entered
    /// the background before their expiration handlers are called.
    explicit KXApplication(KXMainQueue& mainQueue, std::chrono::milliseconds backgroundTimeLimit =
                                                       std::chrono::seconds(30));
    virtual ~KXApplication();

    KXApplication(const KXApplication&) = delete;
    KXApplication& operator=(const KXApplication&) = delete;

    // Delegate slot.
    std::shared_ptr<KXApplicationDelegate> delegate() const;
    void setDelegate(std::shared_ptr<KXApplicationDelegate> delegate);
    /// Runs `body` holding the application's lock; delegate() and setDelegate() may be called
    /// inside it, so a concurrent reader sees the old delegate or the new one, never a mix.
    void withLock(const std::function<void()>& body) const;

    // State.
    KXApplicationState applicationState() const;
    KXJSON launchOptions() const;

    std::int64_t applicationIconBadgeNumber() const;
    void setApplicationIconBadgeNumber(std::int64_t number);

    bool isNetworkActivityIndicatorVisible() const;
    void setNetworkActivityIndicatorVisible(bool visible);

    // Remote notifications.
    void registerForRemoteNotifications();
    bool isRegisteredForRemoteNotifications() const;
    void registerUserNotificationSettings(const KXUserNotificationSettings& settings);
    std::optional<KXUserNotificationSettings> currentUserNotificationSettings() const;

    // Background tasks.
    KXBackgroundTaskIdentifier beginBackgroundTask(std::function<void()> expirationHandler);
    void endBackgroundTask(KXBackgroundTaskIdentifier identifier);
    std::size_t backgroundTaskCount() const;
    std::chrono::milliseconds backgroundTimeLimit() const { return backgroundTimeLimit_; }

    // Host side: what the operating system does for a phone application.

    /// Moves the state, calls the delegate's matching callback (if it implements it) and then
    /// posts the event to the default notification centre. DidFinishLaunching keeps `userInfo`
    /// as the launch options. WillTerminate expires every running background task.
    void postEvent(KXApplicationEvent event, const KXJSON& userInfo = nullptr);

    /// Hands a device token to the delegate (as after a successful registration).
    void deliverDeviceToken(const std::vector<std::uint8_t>& deviceToken);
    /// Hands a registration failure to the delegate.
    void deliverRegistrationError(const KXError& error);
    /// Hands a remote notification to the delegate: the variant with a completion handler when
    /// the delegate implements it, else the older one (and then NoData to the handler).
    void deliverRemoteNotification(const KXJSON& userInfo,
                                   std::function<void(KXBackgroundFetchResult)> completion = {});
    /// The same for a notification that arrives while the application is in `state`, whatever
    /// its state now: the application reports `state` while the delegate handles it, then its
    /// own state again (unless the delegate posted an event meanwhile). A host whose push
    /// service tells the state with the notification (one opened from the background is handled
    /// while the application is inactive) hands it in this way.
    void deliverRemoteNotification(const KXJSON& userInfo, KXApplicationState state,
                                   std::function<void(KXBackgroundFetchResult)> completion = {});
    /// Hands a tapped notification action to the delegate.
    void deliverAction(const std::string& identifier, const KXJSON& userInfo,
                       std::function<void()> completion = {});

protected:
    /// Called after registerForRemoteNotifications(); a platform with a push service asks it for
    /// a token here and later calls deliverDeviceToken() or deliverRegistrationError().
    virtual void onRegisterForRemoteNotifications() {}
    virtual void onBadgeNumberChanged(std::int64_t /*number*/) {}
    virtual void onNetworkActivityIndicatorChanged(bool /*visible*/) {}

    KXMainQueue& mainQueue() { return mainQueue_; }

private:
    void expireBackgroundTasks();
    void callDelegate(KXApplicationDelegateCallback callback,
                      const std::function<void(KXApplicationDelegate&)>& call);

    KXMainQueue& mainQueue_;
    const std::chrono::milliseconds backgroundTimeLimit_;

    mutable std::recursive_mutex lock_;
    std::shared_ptr<KXApplicationDelegate> delegate_;
    KXApplicationState state_ = KXApplicationState::Inactive;
    KXJSON launchOptions_;
    std::int64_t badgeNumber_ = 0;
    bool networkActivityIndicatorVisible_ = false;
    bool registeredForRemoteNotifications_ = false;
    std::optional<KXUserNotificationSettings> userNotificationSettings_;
    std::map<KXBackgroundTaskIdentifier, std::function<void()>> backgroundTasks_;
    KXBackgroundTaskIdentifier nextBackgroundTask_ = 1;
    std::uint64_t backgroundEpoch_ = 0;  // invalidates stale expiration timers
    // Work posted to the main queue holds a weak reference to this, so it is skipped when the
    // application object is gone by the time it runs.
    std::shared_ptr<int> lifetime_ = std::make_shared<int>(0);
};
