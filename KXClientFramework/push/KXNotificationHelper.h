#pragma once

#include <KXClientFramework/KXExport.h>

/// Asks the system for permission to present notifications and registers for remote
/// notifications.
class KX_EXPORT KXNotificationHelper {
public:
    /// Registers notification settings with badge, sound and alert (7) and no categories; the
    /// application registers for remote notifications once the settings are registered
    /// (KXClientFrameworkAppDelegate).
    static void registerUINotifications();

    /// Asks the platform's notification authoriser for badge, sound and alert (7); when the
    /// user grants it, registers the application for remote notifications. A refusal does
    /// nothing.
    static void registerUNNotifications();
};
