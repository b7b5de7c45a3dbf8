#pragma once

#include <KXClientFramework/KXApplicationDelegate.h>
#include <KXClientFramework/KXClientFrameworkAppDelegate.h>
#include <KXClientFramework/KXExport.h>

#include <memory>
#include <mutex>

/// Name and reason of the KXException thrown when a callback must be forwarded while the
/// proxy holds no application delegate.
inline constexpr const char* kKXMissingOriginalDelegateExceptionName = "UAMissingOriginalDelegate";
inline constexpr const char* kKXMissingOriginalDelegateExceptionReason =
    "UAAppDelegateProxy originalAppDelegate was nil while forwarding an invocation";

/// Takes the application delegate's place so that the library sees the push callbacks without
/// the application forwarding them.
///
/// It holds the application's own delegate (originalAppDelegate) and the library's delegate
/// (zandrelAppDelegate) and dispatches every callback by these rules:
///
/// - respondsTo(): for the background remote notification (the variant with a completion
///   handler), true when the shared manager's backgroundNotificationEnabled() is true, else the
///   application delegate's answer. For every other callback, true when the application
///   delegate implements it, else zandrelDelegateRespondsToSelector().
/// - A callback is forwarded to the library's delegate first, when
///   zandrelDelegateRespondsToSelector() says so, and then to the application's delegate when
///   it implements the callback; for a callback both implement, both run, and a result is the
///   application delegate's. When neither claims it, the application delegate is called anyway
///   (its base implementation runs). Forwarding while the proxy holds no application delegate
///   throws KXException "UAMissingOriginalDelegate".
/// - The background remote notification is fanned out to both (same order and conditions,
///   without the missing-delegate rule). Each receiver gets a completion handler of its own;
///   once every receiver has answered, the application's handler is called once with the merged
///   result: NewData wins, Failed replaces NoData. With no receiver at all the handler gets
///   NoData at once. A receiver answering twice is logged at WARN and otherwise ignored.
///   Completion handlers may be called on any thread; the merge is serialised by the proxy's
///   lock, and the application's handler runs inside it, on the thread of the last answer.
///
/// The library's delegate never answers the background notification itself, so whenever it is
/// a receiver the application's handler is not called through the merge.
class KX_EXPORT KXClientFrameworkAppDelegateProxy : public KXApplicationDelegate {
public:
    KXClientFrameworkAppDelegateProxy();

    std::shared_ptr<KXApplicationDelegate> originalAppDelegate() const;
    void setOriginalAppDelegate(std::shared_ptr<KXApplicationDelegate> delegate);
    std::shared_ptr<KXClientFrameworkAppDelegate> zandrelAppDelegate() const;
    void setZandrelAppDelegate(std::shared_ptr<KXClientFrameworkAppDelegate> delegate);

    /// True when the library's delegate implements `callback` and it is not one that every
    /// object answers (Description), which stays with the application's delegate.
    bool zandrelDelegateRespondsToSelector(KXApplicationDelegateCallback callback) const;

    bool respondsTo(KXApplicationDelegateCallback callback) const override;

    bool didFinishLaunching(KXApplication& application, const KXJSON& launchOptions) override;
    void didBecomeActive(KXApplication& application) override;
    void willResignActive(KXApplication& application) override;
    void didEnterBackground(KXApplication& application) override;
    void willEnterForeground(KXApplication& application) override;
    void willTerminate(KXApplication& application) override;
    void didRegisterForRemoteNotificationsWithDeviceToken(
        KXApplication& application, const std::vector<std::uint8_t>& deviceToken) override;
    void didFailToRegisterForRemoteNotificationsWithError(KXApplication& application,
                                                          const KXError& error) override;
    void didReceiveRemoteNotification(KXApplication& application, const KXJSON& userInfo) override;
    void didReceiveRemoteNotification(
        KXApplication& application, const KXJSON& userInfo,
        std::function<void(KXBackgroundFetchResult)> completionHandler) override;
    void handleActionWithIdentifier(KXApplication& application, const std::string& identifier,
                                    const KXJSON& userInfo,
                                    std::function<void()> completionHandler) override;
    void didRegisterUserNotificationSettings(KXApplication& application,
                                             const KXUserNotificationSettings& settings) override;
    /// The application delegate's description (forwarded like any other callback).
    std::string description() const override;

private:
    // Runs `call` on the delegates by the forwarding rules above.
    void forward(KXApplicationDelegateCallback callback,
                 const std::function<void(KXApplicationDelegate&)>& call) const;

    mutable std::mutex mutex_;  // guards the two references
    std::shared_ptr<KXApplicationDelegate> originalAppDelegate_;
    std::shared_ptr<KXClientFrameworkAppDelegate> zandrelAppDelegate_;
    // The proxy's lock for merging background-notification answers; completion handlers share
    // it, so it lives as long as the last of them. Recursive, so that an application handler
    // may complete another notification's receiver on the same thread.
    std::shared_ptr<std::recursive_mutex> mergeLock_;
};
