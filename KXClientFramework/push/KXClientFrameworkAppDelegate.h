#pragma once

#include <KXClientFramework/KXApplicationDelegate.h>
#include <KXClientFramework/KXExport.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

/// The library's own application delegate. It sits behind KXClientFrameworkAppDelegateProxy,
/// which the façade installs in the application's delegate slot, and receives the push
/// callbacks:
///
/// - a new device token: marks the device as registered for pushes on the shared manager and
///   saves the token (as lowercase hexadecimal text) through KXDevice;
/// - a failed registration: logged at ERROR;
/// - a remote notification: handed, with the application's state, to the remote-notification
///   handler (set by the engagement, for the analytics engine of the engaged library), if any.
///   The completion handler it is given is never called (see KXClientFrameworkAppDelegateProxy);
/// - a tapped notification action: logged, and the completion handler is called at once;
/// - registered notification settings: registers for remote notifications.
///
/// Its only state is that handler.
class KX_EXPORT KXClientFrameworkAppDelegate : public KXApplicationDelegate {
public:
    using RemoteNotificationHandler =
        std::function<void(const KXJSON& userInfo, KXApplicationState state)>;

    /// Where remote notifications go; an empty handler drops them. Any thread.
    void setRemoteNotificationHandler(RemoteNotificationHandler handler);

    bool respondsTo(KXApplicationDelegateCallback callback) const override;

    void didRegisterForRemoteNotificationsWithDeviceToken(
        KXApplication& application, const std::vector<std::uint8_t>& deviceToken) override;
    void didFailToRegisterForRemoteNotificationsWithError(KXApplication& application,
                                                          const KXError& error) override;
    void didReceiveRemoteNotification(
        KXApplication& application, const KXJSON& userInfo,
        std::function<void(KXBackgroundFetchResult)> completionHandler) override;
    void handleActionWithIdentifier(KXApplication& application, const std::string& identifier,
                                    const KXJSON& userInfo,
                                    std::function<void()> completionHandler) override;
    void didRegisterUserNotificationSettings(KXApplication& application,
                                             const KXUserNotificationSettings& settings) override;

    // The older remote-notification callback stays the base class's: not implemented.
    using KXApplicationDelegate::didReceiveRemoteNotification;

    /// The text form of a device token: two lowercase hexadecimal digits per byte, no
    /// separators (64 characters for a 32-byte token).
    static std::string deviceTokenString(const std::vector<std::uint8_t>& deviceToken);

private:
    mutable std::mutex mutex_;
    RemoteNotificationHandler remoteNotificationHandler_;
};
