#include <KXClientFramework/KXClientFrameworkAppDelegateProxy.h>
#include <KXClientFramework/KXException.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXSettings.h>

#include <utility>
#include <vector>

using Callback = KXApplicationDelegateCallback;

namespace {

// What a plain delegate answers: the callbacks every object implements.
bool everyObjectResponds(Callback callback) {
    static const KXApplicationDelegate plain;
    return plain.respondsTo(callback);
}

// The answers to one background notification, shared by the completion handlers of its
// receivers.
struct FetchMerge {
    std::shared_ptr<std::recursive_mutex> lock;
    std::function<void(KXBackgroundFetchResult)> completionHandler;
    std::size_t expected = 0;
    std::size_t answered = 0;
    KXBackgroundFetchResult merged = KXBackgroundFetchResult::NoData;
};

}  // namespace

KXClientFrameworkAppDelegateProxy::KXClientFrameworkAppDelegateProxy()
    : mergeLock_(std::make_shared<std::recursive_mutex>()) {}

std::shared_ptr<KXApplicationDelegate> KXClientFrameworkAppDelegateProxy::originalAppDelegate()
    const {
    std::lock_guard lock(mutex_);
    return originalAppDelegate_;
}

void KXClientFrameworkAppDelegateProxy::setOriginalAppDelegate(
    std::shared_ptr<KXApplicationDelegate> delegate) {
    std::lock_guard lock(mutex_);
    originalAppDelegate_ = std::move(delegate);
}

std::shared_ptr<KXClientFrameworkAppDelegate>
KXClientFrameworkAppDelegateProxy::zandrelAppDelegate() const {
    std::lock_guard lock(mutex_);
    return zandrelAppDelegate_;
}

void KXClientFrameworkAppDelegateProxy::setZandrelAppDelegate(
    std::shared_ptr<KXClientFrameworkAppDelegate> delegate) {
    std::lock_guard lock(mutex_);
    zandrelAppDelegate_ = std::move(delegate);
}

bool KXClientFrameworkAppDelegateProxy::zandrelDelegateRespondsToSelector(Callback callback) const {
    const auto zandrel = zandrelAppDelegate();
    return zandrel && zandrel->respondsTo(callback) && !everyObjectResponds(callback);
}

bool KXClientFrameworkAppDelegateProxy::respondsTo(Callback callback) const {
    const auto original = originalAppDelegate();
    if (callback == Callback::DidReceiveRemoteNotificationWithCompletionHandler) {
        if (KXSettings::shared().backgroundNotificationEnabled()) {
            return true;
        }
        return original && original->respondsTo(callback);
    }
    if (original && original->respondsTo(callback)) {
        return true;
    }
    return zandrelDelegateRespondsToSelector(callback);
}

void KXClientFrameworkAppDelegateProxy::forward(
    Callback callback, const std::function<void(KXApplicationDelegate&)>& call) const {
    const auto original = originalAppDelegate();
    if (!original) {
        throw KXException(kKXMissingOriginalDelegateExceptionName,
                          kKXMissingOriginalDelegateExceptionReason);
    }
    bool libraryRan = false;
    if (zandrelDelegateRespondsToSelector(callback)) {
        if (const auto zandrel = zandrelAppDelegate()) {
            call(*zandrel);
            libraryRan = true;
        }
    }
    if (original->respondsTo(callback)) {
        call(*original);
    } else if (!libraryRan) {
        // Nobody claims it: the application delegate gets it anyway, and its base
        // implementation answers.
        call(*original);
    }
}

bool KXClientFrameworkAppDelegateProxy::didFinishLaunching(KXApplication& application,
                                                           const KXJSON& launchOptions) {
    // The result is that of the last delegate called: the application's own when it ran.
    bool result = true;
    forward(Callback::DidFinishLaunching, [&](KXApplicationDelegate& d) {
        result = d.didFinishLaunching(application, launchOptions);
    });
    return result;
}

void KXClientFrameworkAppDelegateProxy::didBecomeActive(KXApplication& application) {
    forward(Callback::DidBecomeActive,
            [&](KXApplicationDelegate& d) { d.didBecomeActive(application); });
}

void KXClientFrameworkAppDelegateProxy::willResignActive(KXApplication& application) {
    forward(Callback::WillResignActive,
            [&](KXApplicationDelegate& d) { d.willResignActive(application); });
}

void KXClientFrameworkAppDelegateProxy::didEnterBackground(KXApplication& application) {
    forward(Callback::DidEnterBackground,
            [&](KXApplicationDelegate& d) { d.didEnterBackground(application); });
}

void KXClientFrameworkAppDelegateProxy::willEnterForeground(KXApplication& application) {
    forward(Callback::WillEnterForeground,
            [&](KXApplicationDelegate& d) { d.willEnterForeground(application); });
}

void KXClientFrameworkAppDelegateProxy::willTerminate(KXApplication& application) {
    forward(Callback::WillTerminate,
            [&](KXApplicationDelegate& d) { d.willTerminate(application); });
}

void KXClientFrameworkAppDelegateProxy::didRegisterForRemoteNotificationsWithDeviceToken(
    KXApplication& application, const std::vector<std::uint8_t>& deviceToken) {
    forward(Callback::DidRegisterForRemoteNotificationsWithDeviceToken,
            [&](KXApplicationDelegate& d) {
                d.didRegisterForRemoteNotificationsWithDeviceToken(application, deviceToken);
            });
}

void KXClientFrameworkAppDelegateProxy::didFailToRegisterForRemoteNotificationsWithError(
    KXApplication& application, const KXError& error) {
    forward(Callback::DidFailToRegisterForRemoteNotificationsWithError,
            [&](KXApplicationDelegate& d) {
                d.didFailToRegisterForRemoteNotificationsWithError(application, error);
            });
}

void KXClientFrameworkAppDelegateProxy::didReceiveRemoteNotification(KXApplication& application,
                                                                     const KXJSON& userInfo) {
    forward(Callback::DidReceiveRemoteNotification, [&](KXApplicationDelegate& d) {
        d.didReceiveRemoteNotification(application, userInfo);
    });
}

void KXClientFrameworkAppDelegateProxy::didReceiveRemoteNotification(
    KXApplication& application, const KXJSON& userInfo,
    std::function<void(KXBackgroundFetchResult)> completionHandler) {
    constexpr Callback callback = Callback::DidReceiveRemoteNotificationWithCompletionHandler;

    std::vector<std::shared_ptr<KXApplicationDelegate>> receivers;
    if (zandrelDelegateRespondsToSelector(callback)) {
        if (auto zandrel = zandrelAppDelegate()) {
            receivers.push_back(std::move(zandrel));
        }
    }
    if (auto original = originalAppDelegate(); original && original->respondsTo(callback)) {
        receivers.push_back(std::move(original));
    }

    if (receivers.empty()) {
        if (completionHandler) {
            completionHandler(KXBackgroundFetchResult::NoData);
        }
        return;
    }

    auto merge = std::make_shared<FetchMerge>();
    merge->lock = mergeLock_;
    merge->completionHandler = std::move(completionHandler);
    merge->expected = receivers.size();

    for (const auto& receiver : receivers) {
        auto called = std::make_shared<bool>(false);
        auto handler = [merge, called](KXBackgroundFetchResult result) {
            std::lock_guard lock(*merge->lock);
            if (*called) {
                KX_LOG_WARN("Completion handler called multiple times.");
                return;
            }
            *called = true;
            ++merge->answered;
            if (result != KXBackgroundFetchResult::NoData &&
                merge->merged != KXBackgroundFetchResult::NewData) {
                merge->merged = result;
            }
            if (merge->answered == merge->expected && merge->completionHandler) {
                merge->completionHandler(merge->merged);
            }
        };
        receiver->didReceiveRemoteNotification(application, userInfo, std::move(handler));
    }
}

void KXClientFrameworkAppDelegateProxy::handleActionWithIdentifier(
    KXApplication& application, const std::string& identifier, const KXJSON& userInfo,
    std::function<void()> completionHandler) {
    forward(Callback::HandleActionWithIdentifier, [&](KXApplicationDelegate& d) {
        d.handleActionWithIdentifier(application, identifier, userInfo, completionHandler);
    });
}

void KXClientFrameworkAppDelegateProxy::didRegisterUserNotificationSettings(
    KXApplication& application, const KXUserNotificationSettings& settings) {
    forward(Callback::DidRegisterUserNotificationSettings, [&](KXApplicationDelegate& d) {
        d.didRegisterUserNotificationSettings(application, settings);
    });
}

std::string KXClientFrameworkAppDelegateProxy::description() const {
    std::string text;
    forward(Callback::Description, [&](KXApplicationDelegate& d) { text = d.description(); });
    return text;
}
