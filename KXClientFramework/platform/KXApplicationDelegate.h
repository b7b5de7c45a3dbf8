#pragma once

#include <KXClientFramework/KXApplicationTypes.h>
#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXUserNotificationSettings.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class KXApplication;

/// The callbacks an application delegate may implement.
enum class KXApplicationDelegateCallback {
    DidFinishLaunching,
    DidBecomeActive,
    WillResignActive,
    DidEnterBackground,
    WillEnterForeground,
    WillTerminate,
    DidRegisterForRemoteNotificationsWithDeviceToken,
    DidFailToRegisterForRemoteNotificationsWithError,
    DidReceiveRemoteNotification,
    DidReceiveRemoteNotificationWithCompletionHandler,
    HandleActionWithIdentifier,
    DidRegisterUserNotificationSettings,
    /// Answered by every object; never handled by the library's own delegate.
    Description,
};

/// The application's delegate. The application object calls a callback only when respondsTo()
/// says the delegate implements it, so a delegate declares what it implements by overriding
/// respondsTo() next to the callbacks themselves. Callbacks arrive on the main thread.
class KX_EXPORT KXApplicationDelegate {
public:
    virtual ~KXApplicationDelegate() = default;

    /// True for each callback this delegate implements. The default implements only
    /// Description, which every object answers.
    virtual bool respondsTo(KXApplicationDelegateCallback callback) const;

    virtual bool didFinishLaunching(KXApplication& application, const KXJSON& launchOptions);
    virtual void didBecomeActive(KXApplication& application);
    virtual void willResignActive(KXApplication& application);
    virtual void didEnterBackground(KXApplication& application);
    virtual void willEnterForeground(KXApplication& application);
    virtual void willTerminate(KXApplication& application);

    virtual void didRegisterForRemoteNotificationsWithDeviceToken(
        KXApplication& application, const std::vector<std::uint8_t>& deviceToken);
    virtual void didFailToRegisterForRemoteNotificationsWithError(KXApplication& application,
                                                                  const KXError& error);
    /// The older path: a remote notification without a completion handler.
    virtual void didReceiveRemoteNotification(KXApplication& application, const KXJSON& userInfo);
    /// A remote notification that may do background work; call completionHandler once when done.
    virtual void didReceiveRemoteNotification(
        KXApplication& application, const KXJSON& userInfo,
        std::function<void(KXBackgroundFetchResult)> completionHandler);
    /// The user tapped a notification action; call completionHandler when done.
    virtual void handleActionWithIdentifier(KXApplication& application,
                                            const std::string& identifier, const KXJSON& userInfo,
                                            std::function<void()> completionHandler);
    virtual void didRegisterUserNotificationSettings(KXApplication& application,
                                                     const KXUserNotificationSettings& settings);

    virtual std::string description() const;
};
