// Engaging's choice between this and the older registration: KXEngagementRegistrationTest.
#include "KXTestPlatform.h"

#include <KXClientFramework/KXNotificationHelper.h>

#include <gtest/gtest.h>

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
        bool drained = false;  // everything posted so far has run
        platform->mainQueue().post([&] { drained = true; });
        ASSERT_TRUE(platform->runUntil([&] { return drained; }));
        EXPECT_EQ(registrations(), c.granted ? 1 : 0);
        EXPECT_EQ(platform->application().isRegisteredForRemoteNotifications(), c.granted);
        EXPECT_FALSE(platform->application().currentUserNotificationSettings().has_value());
    }
}
