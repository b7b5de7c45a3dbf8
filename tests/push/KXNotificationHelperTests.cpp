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

TEST(KXNotificationHelper, OnlyAGrantedAuthorisationRegistersForRemoteNotifications) {
    struct Case {
        const char* name;
        bool granted;
        std::optional<KXError> error;
    };
    for (const Case& c : {Case{"granted", true, {}}, Case{"refused", false, {}},
                          Case{"refused with an error", false, KXError("UNErrorDomain", 1)}}) {
        SCOPED_TRACE(c.name);
        auto platform = KXTestPlatform::install();
        const auto registrations = [&] {
            return platform->recordingApplication().registerForRemoteNotificationsCount();
        };
        if (!c.granted) {
            platform->fakeNotificationAuthorizer().deny(c.error);
        }
        KXNotificationHelper::registerUNNotifications();
        EXPECT_EQ(platform->fakeNotificationAuthorizer().requests(), std::vector<std::uint32_t>{7});
        EXPECT_EQ(registrations(), 0) << "the answer arrives later, on the main queue";
        if (c.granted) {
            ASSERT_TRUE(platform->runUntil([&] { return registrations() > 0; }));
        }
        drain(*platform);
        EXPECT_EQ(registrations(), c.granted ? 1 : 0);
        EXPECT_EQ(platform->application().isRegisteredForRemoteNotifications(), c.granted);
        EXPECT_FALSE(platform->application().currentUserNotificationSettings().has_value());
    }
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
