// Asking for notification permission and registering for remote notifications.
#include "KXTestPlatform.h"

#include <KXClientFramework/KXClientFrameworkAppDelegate.h>
#include <KXClientFramework/KXNotificationHelper.h>

#include <gtest/gtest.h>

namespace {

// Runs the main queue until everything posted so far has run.
void drain(KXTestPlatform& platform) {
    bool reached = false;
    platform.mainQueue().post([&] { reached = true; });
    ASSERT_TRUE(platform.runUntil([&] { return reached; }));
}

}  // namespace

TEST(KXNotificationHelper, GrantedAuthorisationRegistersForRemoteNotifications) {
    auto platform = KXTestPlatform::install();
    KXNotificationHelper::registerUNNotifications();

    EXPECT_EQ(platform->fakeNotificationAuthorizer().requests(), std::vector<std::uint32_t>{7});
    // The answer arrives later, on the main queue.
    EXPECT_EQ(platform->recordingApplication().registerForRemoteNotificationsCount(), 0);
    ASSERT_TRUE(platform->runUntil([&] {
        return platform->recordingApplication().registerForRemoteNotificationsCount() > 0;
    }));
    drain(*platform);
    EXPECT_EQ(platform->recordingApplication().registerForRemoteNotificationsCount(), 1);
    EXPECT_FALSE(platform->application().currentUserNotificationSettings().has_value());
}

TEST(KXNotificationHelper, RefusedAuthorisationDoesNotRegister) {
    auto platform = KXTestPlatform::install();
    platform->fakeNotificationAuthorizer().deny();
    KXNotificationHelper::registerUNNotifications();
    drain(*platform);

    EXPECT_EQ(platform->fakeNotificationAuthorizer().requests(), std::vector<std::uint32_t>{7});
    EXPECT_EQ(platform->recordingApplication().registerForRemoteNotificationsCount(), 0);
    EXPECT_FALSE(platform->application().isRegisteredForRemoteNotifications());

    platform->fakeNotificationAuthorizer().deny(KXError("UNErrorDomain", 1));
    KXNotificationHelper::registerUNNotifications();
    drain(*platform);
    EXPECT_EQ(platform->recordingApplication().registerForRemoteNotificationsCount(), 0);
}

TEST(KXNotificationHelper, OlderRegistrationAsksForBadgeSoundAndAlertWithoutCategories) {
    auto platform = KXTestPlatform::install();
    KXNotificationHelper::registerUINotifications();

    const auto settings = platform->application().currentUserNotificationSettings();
    ASSERT_TRUE(settings.has_value());
    EXPECT_EQ(settings->types, 7u);
    EXPECT_TRUE(settings->categories.empty());
    EXPECT_TRUE(platform->fakeNotificationAuthorizer().requests().empty());
    drain(*platform);
    EXPECT_EQ(platform->recordingApplication().registerForRemoteNotificationsCount(), 0);

    // The library's delegate completes the older path once the settings are registered.
    platform->application().setDelegate(std::make_shared<KXClientFrameworkAppDelegate>());
    KXNotificationHelper::registerUINotifications();
    ASSERT_TRUE(platform->runUntil([&] {
        return platform->recordingApplication().registerForRemoteNotificationsCount() > 0;
    }));
}
