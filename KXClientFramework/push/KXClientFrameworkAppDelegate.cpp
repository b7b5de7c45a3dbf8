#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXClientFrameworkAppDelegate.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXJSONReader.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXNotificationActionHandler.h>
#include <KXClientFramework/KXSettings.h>

#include <utility>

using Callback = KXApplicationDelegateCallback;

void KXClientFrameworkAppDelegate::setRemoteNotificationHandler(RemoteNotificationHandler handler) {
    std::lock_guard lock(mutex_);
    remoteNotificationHandler_ = std::move(handler);
}

bool KXClientFrameworkAppDelegate::respondsTo(Callback callback) const {
    switch (callback) {
        case Callback::DidRegisterForRemoteNotificationsWithDeviceToken:
        case Callback::DidFailToRegisterForRemoteNotificationsWithError:
        case Callback::DidReceiveRemoteNotificationWithCompletionHandler:
        case Callback::HandleActionWithIdentifier:
        case Callback::DidRegisterUserNotificationSettings:
            return true;
        default:
            return KXApplicationDelegate::respondsTo(callback);
    }
}

std::string KXClientFrameworkAppDelegate::deviceTokenString(
    const std::vector<std::uint8_t>& deviceToken) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(deviceToken.size() * 2);
    for (const std::uint8_t byte : deviceToken) {
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 0x0f]);
    }
    return text;
}

void KXClientFrameworkAppDelegate::didRegisterForRemoteNotificationsWithDeviceToken(
    KXApplication& /*application*/, const std::vector<std::uint8_t>& deviceToken) {
    const std::string token = deviceTokenString(deviceToken);
    KXSettings::shared().setPushEnabledOnDevice(true);
    KXDevice& device = KXDevice::currentDevice();
    device.saveDeviceToken(token);
    KX_LOG_INFO("APNS device applicationToken: {}", device.deviceToken().value_or("(null)"));
}

void KXClientFrameworkAppDelegate::didFailToRegisterForRemoteNotificationsWithError(
    KXApplication& /*application*/, const KXError& error) {
    KX_LOG_ERROR("Failed To Register For Remote Notifications With Error: {}", error.description());
}

void KXClientFrameworkAppDelegate::didReceiveRemoteNotification(
    KXApplication& application, const KXJSON& userInfo,
    std::function<void(KXBackgroundFetchResult)> /*completionHandler*/) {
    // The handler is deliberately left uncalled: the proxy's merge then never reports for a
    // notification the library received (see KXClientFrameworkAppDelegateProxy).
    RemoteNotificationHandler handler;
    {
        std::lock_guard lock(mutex_);
        handler = remoteNotificationHandler_;
    }
    if (handler) {
        handler(userInfo, application.applicationState());
    }
}

void KXClientFrameworkAppDelegate::handleActionWithIdentifier(
    KXApplication& /*application*/, const std::string& identifier, const KXJSON& userInfo,
    std::function<void()> completionHandler) {
    KX_LOG_INFO("HandleActionWithIdentifier: {} and userInfo: {}", identifier,
                KXJSONReader::dump(userInfo));
    KXNotificationActionHandler::handleIdentifier(identifier, userInfo);
    // The system is told at once that the tap was handled; the action's requests go on.
    if (completionHandler) {
        completionHandler();
    }
}

void KXClientFrameworkAppDelegate::didRegisterUserNotificationSettings(
    KXApplication& application, const KXUserNotificationSettings& /*settings*/) {
    application.registerForRemoteNotifications();
}
