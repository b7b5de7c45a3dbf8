#pragma once

#include <KXClientFramework/KXExport.h>

#include <cstdint>

/// Keeps the application's badge number at the guest's unread message count.
///
/// All of it is gated by the global `badging` switch: while it is off, nothing here touches the
/// badge or the service.
class KX_EXPORT KXBadgeManager {
public:
    /// Sets the global `badging` switch.
    static void setBadging(bool enabled);

    /// Sets the platform application's badge number to `number` while badging is on.
    static void setBadgeNumber(std::int64_t number);

    /// While badging is on and the current guest has an inbox delivery profile: fetches every
    /// message of the configured inbox domain into KXInbox::shared() and, when that succeeds,
    /// sets the badge to its unreadCount(). A failure is ignored.
    static void fetchCurrentInboxUnreadCount();

    KXBadgeManager() = delete;
};
