#include <KXClientFramework/KXBadgeManager.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXPlatform.h>

#include "inbox/internal/KXInboxGuest.h"

void KXBadgeManager::setBadging(bool enabled) {
    badging = enabled;
}

void KXBadgeManager::setBadgeNumber(std::int64_t number) {
    if (badging) {
        KXPlatform::current().application().setApplicationIconBadgeNumber(number);
    }
}

void KXBadgeManager::fetchCurrentInboxUnreadCount() {
    if (!badging || !kx::inbox::currentGuestHasInboxDeliveryProfile()) {
        return;
    }
    KXInbox::shared().fetchMessagesWithId(
        std::nullopt,
        [](const std::optional<KXInboxMessages>&) {
            setBadgeNumber(static_cast<std::int64_t>(KXInbox::shared().unreadCount()));
        },
        {});
}
