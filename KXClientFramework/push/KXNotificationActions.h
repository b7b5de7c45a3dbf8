#pragma once

#include <KXClientFramework/KXExport.h>
#include <KXClientFramework/KXUserNotificationSettings.h>

/// The invitation category "INVITE_CATEGORY" that the library understands, and its actions:
/// accept ("ACCEPT_IDENTIFIER", "Yes"), maybe ("MAYBE_IDENTIFIER", "Maybe") and decline
/// ("DECLINE_IDENTIFIER", "No"), all run in the background, none destructive, none asking
/// for the device to be unlocked. The category shows accept and decline; maybe is handled but
/// never shown.
///
/// Nothing in the library registers the category; the application calls registerActions().
class KX_EXPORT KXNotificationActions {
public:
    /// The shared instance, created once (thread-safe).
    static KXNotificationActions& sharedManager();

    /// Registers notification settings with badge, sound and alert (7) and the invitation
    /// category, through the platform application's notification-settings registration.
    void registerActions();

    KXNotificationCategory inviteCategory() const;
    KXNotificationAction acceptAction() const;
    KXNotificationAction maybeAction() const;
    KXNotificationAction declineAction() const;
};
