#pragma once

#include <cstdint>

/// The application's state as the platform reports it (numbers as on the wire).
enum class KXApplicationState : std::int64_t { Active = 0, Inactive = 1, Background = 2 };

/// The six life-cycle events a host (or a toolkit adapter) posts.
enum class KXApplicationEvent {
    DidFinishLaunching,
    DidBecomeActive,
    WillResignActive,
    DidEnterBackground,
    WillEnterForeground,
    WillTerminate,
};

/// Results of handling a background remote notification.
enum class KXBackgroundFetchResult : std::int64_t { NewData = 0, NoData = 1, Failed = 2 };

/// Identifies a background task; KXBackgroundTaskInvalid is "none".
using KXBackgroundTaskIdentifier = std::uint64_t;
inline constexpr KXBackgroundTaskIdentifier KXBackgroundTaskInvalid = 0;

/// Notification presentation types (badge 1, sound 2, alert 4), combined as a bit set.
enum KXUserNotificationType : std::uint32_t {
    KXUserNotificationTypeNone = 0,
    KXUserNotificationTypeBadge = 1,
    KXUserNotificationTypeSound = 2,
    KXUserNotificationTypeAlert = 4,
};

/// The launch-option key under which the launching remote notification is passed.
inline constexpr const char* UIApplicationLaunchOptionsRemoteNotificationKey =
    "UIApplicationLaunchOptionsRemoteNotificationKey";
