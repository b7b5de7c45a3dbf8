#pragma once

#include <KXClientFramework/KXApplicationTypes.h>

#include <cstdint>
#include <string>
#include <vector>

/// One button of an interactive notification.
struct KXNotificationAction {
    std::string identifier;
    std::string title;
    std::int64_t activationMode = 0;  // 0 foreground, 1 background
    bool destructive = false;
    bool authenticationRequired = false;
};

/// A category of interactive notifications and the buttons shown in the default context.
struct KXNotificationCategory {
    std::string identifier;
    std::vector<KXNotificationAction> actions;
};

/// What the application asks the system to present, and the categories it understands.
struct KXUserNotificationSettings {
    std::uint32_t types = KXUserNotificationTypeNone;
    std::vector<KXNotificationCategory> categories;
};
