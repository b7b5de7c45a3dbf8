#include <KXClientFramework/KXNotificationHelper.h>
#include <KXClientFramework/KXPlatform.h>

namespace {

constexpr std::uint32_t kBadgeSoundAlert =
    KXUserNotificationTypeBadge | KXUserNotificationTypeSound | KXUserNotificationTypeAlert;

}  // namespace

void KXNotificationHelper::registerUINotifications() {
    KXUserNotificationSettings settings;
    settings.types = kBadgeSoundAlert;
    KXPlatform::current().application().registerUserNotificationSettings(settings);
}

void KXNotificationHelper::registerUNNotifications() {
    KXPlatform::current().notificationAuthorizer().requestAuthorization(
        kBadgeSoundAlert, [](bool granted, const std::optional<KXError>& /*error*/) {
            if (granted) {
                KXPlatform::current().application().registerForRemoteNotifications();
            }
        });
}
