#include <KXClientFramework/KXNotificationActions.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXProcessWide.h>

namespace {

constexpr std::int64_t kBackgroundActivation = 1;

KXNotificationAction backgroundAction(const char* identifier, const char* title) {
    KXNotificationAction action;
    action.identifier = identifier;
    action.title = title;
    action.activationMode = kBackgroundActivation;
    action.destructive = false;
    action.authenticationRequired = false;
    return action;
}

}  // namespace

KXNotificationActions& KXNotificationActions::sharedManager() {
    return kxProcessWide<KXNotificationActions>();
}

void KXNotificationActions::registerActions() {
    KXUserNotificationSettings settings;
    settings.types =
        KXUserNotificationTypeBadge | KXUserNotificationTypeSound | KXUserNotificationTypeAlert;
    settings.categories = {inviteCategory()};
    KXPlatform::current().application().registerUserNotificationSettings(settings);
}

KXNotificationCategory KXNotificationActions::inviteCategory() const {
    // Two buttons: the maybe action is deliberately left out.
    return {"INVITE_CATEGORY", {acceptAction(), declineAction()}};
}

KXNotificationAction KXNotificationActions::acceptAction() const {
    return backgroundAction("ACCEPT_IDENTIFIER", "Yes");
}

KXNotificationAction KXNotificationActions::maybeAction() const {
    return backgroundAction("MAYBE_IDENTIFIER", "Maybe");
}

KXNotificationAction KXNotificationActions::declineAction() const {
    return backgroundAction("DECLINE_IDENTIFIER", "No");
}
