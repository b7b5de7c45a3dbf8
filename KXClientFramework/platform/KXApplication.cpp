#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXMainQueue.h>
#include <KXClientFramework/KXNotificationCenter.h>

#include <utility>

KXApplication::KXApplication(KXMainQueue& mainQueue, std::chrono::milliseconds backgroundTimeLimit)
    : mainQueue_(mainQueue), backgroundTimeLimit_(backgroundTimeLimit) {}

KXApplication::~KXApplication() = default;

// ---------------------------------------------------------------------------------------------
// Delegate slot

std::shared_ptr<KXApplicationDelegate> KXApplication::delegate() const {
    std::lock_guard lock(lock_);
    return delegate_;
}

void KXApplication::setDelegate(std::shared_ptr<KXApplicationDelegate> delegate) {
    std::shared_ptr<KXApplicationDelegate> previous;
    {
        std::lock_guard lock(lock_);
        previous = std::exchange(delegate_, std::move(delegate));
    }
    // `previous` is released here, outside the lock, in case its destructor reaches back.
}

void KXApplication::withLock(const std::function<void()>& body) const {
    std::lock_guard lock(lock_);
    if (body) {
        body();
    }
}

void KXApplication::callDelegate(KXApplicationDelegateCallback callback,
                                 const std::function<void(KXApplicationDelegate&)>& call) {
    // The delegate is read under the lock and called without it, so a callback may swap the
    // delegate; the snapshot keeps the one being called alive until it returns.
    const std::shared_ptr<KXApplicationDelegate> target = delegate();
    if (target && target->respondsTo(callback)) {
        call(*target);
    }
}

// ---------------------------------------------------------------------------------------------
// State

KXApplicationState KXApplication::applicationState() const {
    std::lock_guard lock(lock_);
    return state_;
}

KXJSON KXApplication::launchOptions() const {
    std::lock_guard lock(lock_);
    return launchOptions_;
}

std::int64_t KXApplication::applicationIconBadgeNumber() const {
    std::lock_guard lock(lock_);
    return badgeNumber_;
}

void KXApplication::setApplicationIconBadgeNumber(std::int64_t number) {
    {
        std::lock_guard lock(lock_);
        badgeNumber_ = number;
    }
    onBadgeNumberChanged(number);
}

bool KXApplication::isNetworkActivityIndicatorVisible() const {
    std::lock_guard lock(lock_);
    return networkActivityIndicatorVisible_;
}

void KXApplication::setNetworkActivityIndicatorVisible(bool visible) {
    {
        std::lock_guard lock(lock_);
        networkActivityIndicatorVisible_ = visible;
    }
    onNetworkActivityIndicatorChanged(visible);
}

// ---------------------------------------------------------------------------------------------
// Remote notifications

void KXApplication::registerForRemoteNotifications() {
    {
        std::lock_guard lock(lock_);
        registeredForRemoteNotifications_ = true;
    }
    onRegisterForRemoteNotifications();
}

bool KXApplication::isRegisteredForRemoteNotifications() const {
    std::lock_guard lock(lock_);
    return registeredForRemoteNotifications_;
}

void KXApplication::registerUserNotificationSettings(const KXUserNotificationSettings& settings) {
    {
        std::lock_guard lock(lock_);
        userNotificationSettings_ = settings;
    }
    // A phone answers the registration later, from its run loop, never inside the call.
    std::weak_ptr<int> alive = lifetime_;
    mainQueue_.post([this, alive, settings] {
        if (alive.expired()) {
            return;
        }
        callDelegate(KXApplicationDelegateCallback::DidRegisterUserNotificationSettings,
                     [&](KXApplicationDelegate& d) {
                         d.didRegisterUserNotificationSettings(*this, settings);
                     });
    });
}

std::optional<KXUserNotificationSettings> KXApplication::currentUserNotificationSettings() const {
    std::lock_guard lock(lock_);
    return userNotificationSettings_;
}

// ---------------------------------------------------------------------------------------------
// Background tasks

KXBackgroundTaskIdentifier KXApplication::beginBackgroundTask(
    std::function<void()> expirationHandler) {
    std::lock_guard lock(lock_);
    const KXBackgroundTaskIdentifier identifier = nextBackgroundTask_++;
    backgroundTasks_.emplace(identifier, std::move(expirationHandler));
    return identifier;
}

void KXApplication::endBackgroundTask(KXBackgroundTaskIdentifier identifier) {
    std::function<void()> handler;
    {
        std::lock_guard lock(lock_);
        auto it = backgroundTasks_.find(identifier);
        if (it == backgroundTasks_.end()) {
            return;
        }
        handler = std::move(it->second);
        backgroundTasks_.erase(it);
    }
    // The handler (and whatever it captured) is released outside the lock.
}

std::size_t KXApplication::backgroundTaskCount() const {
    std::lock_guard lock(lock_);
    return backgroundTasks_.size();
}

void KXApplication::expireBackgroundTasks() {
    // Each task's handler runs at most once. The task itself stays until the application ends
    // it, which handlers normally do; they run without the lock so that they can.
    std::vector<std::function<void()>> handlers;
    {
        std::lock_guard lock(lock_);
        for (auto& [identifier, handler] : backgroundTasks_) {
            if (handler) {
                handlers.push_back(std::exchange(handler, nullptr));
            }
        }
    }
    for (auto& handler : handlers) {
        handler();
    }
}

// ---------------------------------------------------------------------------------------------
// Host side

void KXApplication::postEvent(KXApplicationEvent event, const KXJSON& userInfo) {
    std::uint64_t backgroundEpoch = 0;
    {
        std::lock_guard lock(lock_);
        switch (event) {
            case KXApplicationEvent::DidFinishLaunching:
                launchOptions_ = userInfo;
                state_ = KXApplicationState::Inactive;
                break;
            case KXApplicationEvent::DidBecomeActive:
                state_ = KXApplicationState::Active;
                break;
            case KXApplicationEvent::WillResignActive:
                state_ = KXApplicationState::Inactive;
                break;
            case KXApplicationEvent::DidEnterBackground:
                state_ = KXApplicationState::Background;
                backgroundEpoch = ++backgroundEpoch_;
                break;
            case KXApplicationEvent::WillEnterForeground:
                state_ = KXApplicationState::Inactive;
                ++backgroundEpoch_;
                break;
            case KXApplicationEvent::WillTerminate:
                ++backgroundEpoch_;
                break;
        }
    }

    if (event == KXApplicationEvent::DidEnterBackground) {
        // Tasks still running when the time allowed in the background is up are expired,
        // unless the application came back to the foreground (or went back again, which
        // starts a new allowance) in the meantime.
        std::weak_ptr<int> alive = lifetime_;
        mainQueue_.postAfter(backgroundTimeLimit_, [this, alive, backgroundEpoch] {
            if (alive.expired()) {
                return;
            }
            {
                std::lock_guard lock(lock_);
                if (backgroundEpoch != backgroundEpoch_) {
                    return;
                }
            }
            expireBackgroundTasks();
        });
    }

    using C = KXApplicationDelegateCallback;
    switch (event) {
        case KXApplicationEvent::DidFinishLaunching: {
            const KXJSON options = launchOptions();
            callDelegate(C::DidFinishLaunching,
                         [&](KXApplicationDelegate& d) { d.didFinishLaunching(*this, options); });
            break;
        }
        case KXApplicationEvent::DidBecomeActive:
            callDelegate(C::DidBecomeActive,
                         [&](KXApplicationDelegate& d) { d.didBecomeActive(*this); });
            break;
        case KXApplicationEvent::WillResignActive:
            callDelegate(C::WillResignActive,
                         [&](KXApplicationDelegate& d) { d.willResignActive(*this); });
            break;
        case KXApplicationEvent::DidEnterBackground:
            callDelegate(C::DidEnterBackground,
                         [&](KXApplicationDelegate& d) { d.didEnterBackground(*this); });
            break;
        case KXApplicationEvent::WillEnterForeground:
            callDelegate(C::WillEnterForeground,
                         [&](KXApplicationDelegate& d) { d.willEnterForeground(*this); });
            break;
        case KXApplicationEvent::WillTerminate:
            callDelegate(C::WillTerminate,
                         [&](KXApplicationDelegate& d) { d.willTerminate(*this); });
            break;
    }

    KXNotificationCenter::defaultCenter().post(event, userInfo);

    if (event == KXApplicationEvent::WillTerminate) {
        expireBackgroundTasks();
    }
}

void KXApplication::deliverDeviceToken(const std::vector<std::uint8_t>& deviceToken) {
    callDelegate(KXApplicationDelegateCallback::DidRegisterForRemoteNotificationsWithDeviceToken,
                 [&](KXApplicationDelegate& d) {
                     d.didRegisterForRemoteNotificationsWithDeviceToken(*this, deviceToken);
                 });
}

void KXApplication::deliverRegistrationError(const KXError& error) {
    callDelegate(KXApplicationDelegateCallback::DidFailToRegisterForRemoteNotificationsWithError,
                 [&](KXApplicationDelegate& d) {
                     d.didFailToRegisterForRemoteNotificationsWithError(*this, error);
                 });
}

void KXApplication::deliverRemoteNotification(
    const KXJSON& userInfo, std::function<void(KXBackgroundFetchResult)> completion) {
    const std::shared_ptr<KXApplicationDelegate> target = delegate();
    using C = KXApplicationDelegateCallback;
    if (target && target->respondsTo(C::DidReceiveRemoteNotificationWithCompletionHandler)) {
        // The delegate always gets a callable handler, even when the host passed none.
        std::function<void(KXBackgroundFetchResult)> handler =
            completion ? std::move(completion) : [](KXBackgroundFetchResult) {};
        target->didReceiveRemoteNotification(*this, userInfo, std::move(handler));
        return;
    }
    if (target && target->respondsTo(C::DidReceiveRemoteNotification)) {
        target->didReceiveRemoteNotification(*this, userInfo);
    }
    if (completion) {
        completion(KXBackgroundFetchResult::NoData);
    }
}

void KXApplication::deliverRemoteNotification(
    const KXJSON& userInfo, KXApplicationState state,
    std::function<void(KXBackgroundFetchResult)> completion) {
    KXApplicationState own{};
    {
        std::lock_guard lock(lock_);
        own = std::exchange(state_, state);
    }
    deliverRemoteNotification(userInfo, std::move(completion));
    std::lock_guard lock(lock_);
    if (state_ == state) {
        state_ = own;
    }
}

void KXApplication::deliverAction(const std::string& identifier, const KXJSON& userInfo,
                                  std::function<void()> completion) {
    const std::shared_ptr<KXApplicationDelegate> target = delegate();
    if (target && target->respondsTo(KXApplicationDelegateCallback::HandleActionWithIdentifier)) {
        std::function<void()> handler = completion ? std::move(completion) : [] {};
        target->handleActionWithIdentifier(*this, identifier, userInfo, std::move(handler));
        return;
    }
    if (completion) {
        completion();
    }
}
